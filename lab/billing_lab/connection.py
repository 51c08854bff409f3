"""A connection of a client, and a request with the way of its answer, whichever protocol they speak."""
import abc
import asyncio
import contextlib
import ctypes
import socket
import struct
from collections.abc import Callable, Iterator

from . import check, tls

# What Apache, HAProxy and lighttpd have as they come, so that an app meets it.
IDLE_SECONDS = 5
# Seconds. A silent connection ends at last, so that forgotten ones do not pile up.
SILENT_SECONDS = 300

_SO_ATTACH_FILTER = 26
# A socket filter of one instruction: "return 0", which drops every packet.
_DROP_ALL = ctypes.create_string_buffer(struct.pack("HBBI", 6, 0, 0, 0))


class Link:
    """One connection: what the journal tells of it, and how it ends, idles or goes silent.

    @param idle_seconds after which an idle connection is closed
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
        # It has ended, and so has every request on it.
        self.done = asyncio.Event()
        # What the protocol tells the client before an idle connection is closed.
        self.farewell: Callable[[], None] = lambda: None
        self._gone = gone
        self._idle_seconds = idle_seconds
        self._under_way = 0
        self._timer: asyncio.TimerHandle | None = None
        self.asked()

    @contextlib.contextmanager
    def busy(self) -> Iterator[None]:
        """A request is under way: the connection does not idle."""
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
        """A part of a request has come, or may come at last. Its rest has the usual time at least."""
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

    def close(self) -> None:
        """Ends it with TLS's notice and a FIN, as a server does that wants no more of it."""
        if self.silent:
            return
        self.transport.close()
        # Without this, asyncio would wait for the client's notice before it sends the FIN.
        self.transport.abort()

    def cut(self) -> None:
        """Ends it with a FIN alone."""
        if not self.silent:
            self.transport.abort()

    def reset(self) -> None:
        if not self.silent:
            self._reset()

    def _reset(self) -> None:
        # Closing then drops what is unsent and sends a reset.
        raw = self.transport.get_extra_info("socket")
        raw.setsockopt(socket.SOL_SOCKET, socket.SO_LINGER, struct.pack("ii", 1, 0))
        self.transport.abort()

    def silence(self) -> None:
        """From now on nothing that the client sends arrives or is acknowledged, nothing is sent, and
        neither side is told of an end."""
        if self.silent:
            return
        self._stop_timer()
        self.silent = True
        self._timer = asyncio.get_running_loop().call_later(SILENT_SECONDS, self.drop)
        raw = self.transport.get_extra_info("socket")
        # A kernel without such filters acknowledges what arrives; it is thrown away all the same.
        with contextlib.suppress(OSError):
            raw.setsockopt(socket.SOL_SOCKET, _SO_ATTACH_FILTER, struct.pack("HL", 1, ctypes.addressof(_DROP_ALL)))

    def drop(self) -> None:
        """Ends it, a silent one too: that one by a reset, since a FIN would wait for acknowledgements."""
        if self.silent:
            self._reset()
        else:
            self.transport.abort()


class Exchange(abc.ABC):
    """One request, and the way of its answer. Each step of the answer raises ConnectionError where the
    client has left or the connection is silent.

    @param headers names and values as they came
    """

    # What is compared, and the body as the store understands it.
    sent: check.Sent
    body: bytes
    # Is the fault over that holds the answer back?
    is_over: Callable[[], bool]

    def __init__(self, link: Link, method: str, authority: str, target: str, headers: list[list[str]]):
        self.link = link
        self.method = method
        self.authority = authority
        self.target = target
        self.headers = headers
        # How much of the answer's body was sent.
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
        """Status and headers."""

    @abc.abstractmethod
    async def write(self, data: bytes) -> None:
        """A part of the body. It returns when there is room for more."""

    @abc.abstractmethod
    async def end(self, data: bytes = b"") -> None:
        """The last part of the body."""

    @abc.abstractmethod
    async def left_within(self, seconds: float) -> bool:
        """Waits. @return whether the client left meanwhile"""

    @abc.abstractmethod
    def go_away(self) -> None:
        """Tells the client that this request was not taken up, and ends the connection."""

    def refuse(self) -> None:
        """Refuses this request alone. HTTP/1.1 has no such thing, and its requests never come here."""
        raise NotImplementedError


async def is_set_within(event: asyncio.Event, seconds: float) -> bool:
    try:
        await asyncio.wait_for(event.wait(), seconds)
    except asyncio.TimeoutError:
        return False
    return True
