"""A client's connection, and a request with the means to answer it, for both protocols."""
import abc
import asyncio
import contextlib
import ctypes
import socket
import struct
from collections.abc import Callable, Iterator

from ..shop import check
from . import tls

# The default of Apache, HAProxy and lighttpd, so that an app meets a usual server.
IDLE_SECONDS = 5
# Seconds after which a silent connection ends, so that their number stays bounded.
SILENT_SECONDS = 300

_SO_ATTACH_FILTER = 26
# A socket filter of one instruction: "return 0", which drops every packet.
_DROP_ALL = ctypes.create_string_buffer(struct.pack("HBBI", 6, 0, 0, 0))


class Link:
    """One connection: its facts for the journal, its idle timer, and the ways to end or silence it.

    @param idle_seconds time after which an idle connection is closed
    @param gone called with this link when the connection has ended
    """

    def __init__(self, number: int, transport: asyncio.Transport, idle_seconds: float, gone: Callable[["Link"], None]):
        session = transport.get_extra_info("ssl_object")
        self.number = number
        self.transport = transport
        self.protocol = "HTTP/2" if session.selected_alpn_protocol() == "h2" else "HTTP/1.1"
        self.handshake = "resumed" if session.session_reused else "full"
        self.version = session.version()
        self.certificate = tls.presented(session)
        self.silent = False
        self.left = asyncio.Event()
        # Set when the connection and every request on it have ended.
        self.done = asyncio.Event()
        # Called before an idle connection is closed, so that the protocol can send its notice.
        self.farewell: Callable[[], None] = lambda: None
        self._gone = gone
        self._idle_seconds = idle_seconds
        self._under_way = 0
        self._aborted = False
        self._timer: asyncio.TimerHandle | None = None
        self.asked()

    @contextlib.contextmanager
    def busy(self) -> Iterator[None]:
        """Stops the idle timer while a request is under way."""
        self._under_way += 1
        if not self.silent:
            self._stop_timer()
        try:
            yield
        finally:
            self._under_way -= 1
            self._idle(self._idle_seconds)
            self._settle()

    def asked(self) -> None:
        """Restarts the idle timer at a part of a request, and when the connection is new. However short the idle time is,
        the rest of a request may take IDLE_SECONDS."""
        self._idle(max(self._idle_seconds, IDLE_SECONDS))

    def _idle(self, seconds: float) -> None:
        if self.silent or self._under_way or self.left.is_set():
            return
        self._stop_timer()
        self._timer = asyncio.get_running_loop().call_later(seconds, self._idled)

    def _stop_timer(self) -> None:
        if self._timer is not None:
            self._timer.cancel()

    def _idled(self) -> None:
        self.farewell()
        self.close()

    def lost(self) -> None:
        """The connection has ended."""
        self.left.set()
        self._stop_timer()
        self._gone(self)
        self._settle()

    def _settle(self) -> None:
        if self.left.is_set() and not self._under_way:
            self.done.set()

    def _abort(self) -> None:
        # In Python 3.11 the abort() of a TLS transport raises after a second close(), which aiohttp may have called.
        if not self._aborted:
            self._aborted = True
            self.transport.abort()

    def close(self) -> None:
        """Ends the connection with TLS's close_notify and a FIN, as servers close idle connections."""
        if self.silent or self._aborted:
            return
        self.transport.close()
        # close() alone would wait for the client's close_notify before it sends the FIN.
        self._abort()

    def cut(self) -> None:
        """Ends the connection with a FIN, without close_notify."""
        if self.silent or self._aborted:
            return
        # Closing with unread data, such as a client's HTTP/2 acknowledgement, would send a reset in place of the FIN.
        with contextlib.suppress(OSError):
            self.transport.get_extra_info("socket").shutdown(socket.SHUT_WR)
        self._abort()

    def reset(self) -> None:
        if not self.silent:
            self._reset()

    def _reset(self) -> None:
        if self._aborted:
            return
        # With a linger time of 0, closing drops unsent data and sends a TCP reset.
        raw = self.transport.get_extra_info("socket")
        raw.setsockopt(socket.SOL_SOCKET, socket.SO_LINGER, struct.pack("ii", 1, 0))
        self._abort()

    def silence(self) -> None:
        """Makes the connection silent: the client's packets are dropped unacknowledged, nothing is sent, and no end of the
        connection is signalled."""
        if self.silent:
            return
        self._stop_timer()
        self.silent = True
        self._timer = asyncio.get_running_loop().call_later(SILENT_SECONDS, self.drop)
        raw = self.transport.get_extra_info("socket")
        # A kernel without socket filters acknowledges the data; the protocol classes then ignore it.
        with contextlib.suppress(OSError):
            raw.setsockopt(socket.SOL_SOCKET, _SO_ATTACH_FILTER, struct.pack("HL", 1, ctypes.addressof(_DROP_ALL)))

    def drop(self) -> None:
        """Ends the connection, even a silent one: by a reset, since a FIN would wait for acknowledgements."""
        if self.silent:
            self._reset()
        else:
            self._abort()


class Exchange(abc.ABC):
    """One request, and the functions that send its answer. Each of them raises ConnectionError if the client has left or
    the connection is silent.

    @param headers names and values as received
    """

    # The request for check.py, and its body for the store.
    sent: check.Sent
    body: bytes
    # Tells whether the fault that holds the answer back is over.
    is_over: Callable[[], bool]

    def __init__(self, link: Link, method: str, authority: str, target: str, headers: list[list[str]]):
        self.link = link
        self.method = method
        self.authority = authority
        self.target = target
        self.headers = headers
        # Bytes of the answer's body that were sent.
        self.sent_bytes = 0

    @property
    def path(self) -> str:
        return self.target.partition("?")[0]

    @property
    def token(self) -> str:
        return next((value for name, value in self.headers if name.lower() == "atoken"), "")

    def check_way(self) -> None:
        if self.link.silent or self.link.left.is_set():
            raise ConnectionResetError

    @abc.abstractmethod
    async def head(self, status: int, type: str, length: int) -> None:
        """Sends status and headers."""

    @abc.abstractmethod
    async def write(self, data: bytes) -> None:
        """Sends a part of the body. Returns when there is room for more."""

    @abc.abstractmethod
    async def end(self, data: bytes = b"") -> None:
        """Sends the last part of the body."""

    @abc.abstractmethod
    async def left_within(self, seconds: float) -> bool:
        """Waits at most so many seconds. @return whether the client left meanwhile"""

    @abc.abstractmethod
    def go_away(self) -> None:
        """Tells the client that this request was not processed, and ends the connection."""

    def refuse(self) -> None:
        """Refuses this request alone. HTTP/1.1 cannot do that; the fault refuse-stream strikes HTTP/2 only."""
        raise NotImplementedError


async def is_set_within(event: asyncio.Event, seconds: float) -> bool:
    try:
        await asyncio.wait_for(event.wait(), seconds)
    except asyncio.TimeoutError:
        return False
    return True
