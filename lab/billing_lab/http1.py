"""HTTP/1.1, by aiohttp."""
import asyncio
from collections.abc import Awaitable, Callable

from aiohttp import web

from . import check
from .connection import Exchange, Link, is_set_within

LARGEST_REQUEST = 64 << 20
# Seconds. The link closes idle connections, long before aiohttp would.
_NEVER = 1 << 30


class Http1(web.RequestHandler):
    """aiohttp's protocol, with what it does not keep: the bytes as they came."""

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
        """What is no request at all stands in the journal too."""
        self._refused(self.link, self.take_received(), exc)
        return super().handle_error(request, status, exc, message)

    def take_received(self) -> bytes:
        """The bytes since the last request. Nobody here sends a second one before the answer."""
        taken, self._received = self._received, b""
        return taken


class _Exchange(Exchange):
    """A request over HTTP/1.1."""

    def __init__(self, request: web.BaseRequest, raw: bytes, body: bytes):
        headers = [[name.decode("latin-1"), value.decode("latin-1")] for name, value in request.raw_headers]
        super().__init__(request.protocol.link, request.method, request.headers.get("Host", ""), request.raw_path, headers)
        self.sent = check.Sent.of_http1(raw)
        self.body = body
        # What aiohttp takes for the answer when no head was sent.
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
    """aiohttp's part that is the same for all connections."""

    async def answered(request: web.BaseRequest) -> web.StreamResponse:
        link = request.protocol.link
        with link.busy():
            body = await request.read()
            exchange = _Exchange(request, request.protocol.take_received(), body)
            await handle(exchange)
        if link.silent:
            # aiohttp sends what is returned.
            await link.left.wait()
        return exchange.response

    def large_request(message, payload, protocol, writer, task) -> web.BaseRequest:
        return web.BaseRequest(
            message, payload, protocol, writer, task, asyncio.get_running_loop(), client_max_size=LARGEST_REQUEST
        )

    return web.Server(answered, request_factory=large_request)
