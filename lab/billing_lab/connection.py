"""One connection of a client to the simulator."""
import asyncio

from aiohttp import web

from . import tls


class Connection(web.RequestHandler):
    """aiohttp's protocol, with what it does not keep: the bytes as they came, and the handshake."""

    def __init__(self, server, number: int, manager: web.Server, **options):
        super().__init__(manager, loop=asyncio.get_running_loop(), **options)
        self.server = server
        self.number = number
        self.received = b""
        self.handshake = ""
        self.version = ""
        self.certificate: dict | None = None
        self._left = asyncio.Event()

    def connection_made(self, transport: asyncio.BaseTransport) -> None:
        session = transport.get_extra_info("ssl_object")
        self.handshake = "resumed" if session.session_reused else "full"
        self.version = session.version()
        self.certificate = tls.presented(session)
        super().connection_made(transport)
        self.server.opened(self)

    def data_received(self, data: bytes) -> None:
        self.received += data
        super().data_received(data)

    def connection_lost(self, exc: BaseException | None) -> None:
        self._left.set()
        self.server.gone(self)
        super().connection_lost(exc)

    def handle_error(self, request: web.BaseRequest, status: int = 500,
                     exc: BaseException | None = None, message: str | None = None):
        """What is no request at all stands in the journal too."""
        self.server.refused(self, exc)
        return super().handle_error(request, status, exc, message)

    def take_received(self) -> bytes:
        """The bytes since the last request. Nobody here sends a second one before the answer."""
        taken, self.received = self.received, b""
        return taken

    async def left_within(self, seconds: float) -> bool:
        """Waits. @return whether the client left meanwhile"""
        try:
            await asyncio.wait_for(self._left.wait(), seconds)
        except asyncio.TimeoutError:
            return False
        return True
