"""The store's HTTP/1.1, with aiohttp."""
import asyncio
from collections.abc import Awaitable, Callable

from aiohttp import web

from ..shop import check
from .connection import Exchange, Link, is_set_within

LARGEST_REQUEST = 64 << 20
# Seconds. Link closes idle connections, so aiohttp's own limit must never be reached.
_NEVER = 1 << 30


class Http1(web.RequestHandler):
    """aiohttp's protocol, which also keeps each request's bytes as received: check.py compares them."""

    def __init__(self, link: Link, manager: web.Server, refused: Callable[[Link, bytes, BaseException | None], None]):
        super().__init__(
            manager,
            loop=asyncio.get_running_loop(),
            access_log=None,
            keepalive_timeout=_NEVER,
            max_line_size=LARGEST_REQUEST,
            max_field_size=LARGEST_REQUEST,
        )
        self.link = link
        self._refused = refused
        self._received = b""

    def data_received(self, data: bytes) -> None:
        if self.link.silent:
            return
        self.link.asked()
        self._received += data
        super().data_received(data)

    def connection_lost(self, exc: BaseException | None) -> None:
        self.link.lost()
        super().connection_lost(exc)

    def handle_error(
        self, request: web.BaseRequest, status: int = 500, exc: BaseException | None = None, message: str | None = None
    ):
        """Reports bytes that are not a valid request, so that the journal has them too."""
        self._refused(self.link, self.take_received(), exc)
        return super().handle_error(request, status, exc, message)

    def take_received(self) -> bytes:
        """@return the bytes since the last request. Requests are not pipelined, so all of them belong to one request"""
        taken, self._received = self._received, b""
        return taken


class _Exchange(Exchange):
    """A request over HTTP/1.1."""

    def __init__(self, request: web.BaseRequest, raw: bytes, body: bytes):
        headers = [[name.decode("latin-1"), value.decode("latin-1")] for name, value in request.raw_headers]
        super().__init__(request.protocol.link, request.method, request.headers.get("Host", ""), request.raw_path, headers)
        self.sent = check.Sent.of_http1(raw)
        self.body = body
        # aiohttp demands a response object also if a fault sends no headers.
        self.response: web.StreamResponse = web.Response()
        self._request = request

    async def head(self, status: int, type: str, length: int) -> None:
        self.check_way()
        self.response = web.StreamResponse(status=status, headers={"Content-Type": type})
        self.response.content_length = length
        await self.response.prepare(self._request)

    async def write(self, data: bytes) -> None:
        self.check_way()
        await self.response.write(data)
        self.sent_bytes += len(data)

    async def end(self, data: bytes = b"") -> None:
        self.check_way()
        await self.response.write_eof(data)
        self.sent_bytes += len(data)

    async def left_within(self, seconds: float) -> bool:
        return await is_set_within(self.link.left, seconds)

    def go_away(self) -> None:
        self.link.close()


def manager_of(handle: Callable[[Exchange], Awaitable[None]]) -> web.Server:
    """@return aiohttp's server object, which all connections share"""

    async def answered(request: web.BaseRequest) -> web.StreamResponse:
        link = request.protocol.link
        with link.busy():
            body = await request.read()
            exchange = _Exchange(request, request.protocol.take_received(), body)
            await handle(exchange)
        if link.silent:
            # aiohttp would send the response as soon as this function returns.
            await link.left.wait()
        return exchange.response

    def large_request(message, payload, protocol, writer, task) -> web.BaseRequest:
        return web.BaseRequest(
            message, payload, protocol, writer, task, asyncio.get_running_loop(), client_max_size=LARGEST_REQUEST
        )

    return web.Server(answered, request_factory=large_request)
