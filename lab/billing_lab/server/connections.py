"""Accepts the store's connections, keeps the open ones, and applies the faults of all connections."""
import asyncio
import contextlib
import errno
import pathlib
import socket
from collections.abc import Callable

from ..shop import faults
from . import tls
from .connection import IDLE_SECONDS, Link

HANDSHAKE_SECONDS = 30
_BACKLOG = 512
# A TLS record with the alert handshake_failure.
_ALERT = b"\x15\x03\x03\x00\x02\x02\x28"


def listen(port: int = 0) -> socket.socket:
    """@return a listening socket on this port of 127.0.0.1, or on a free one if it is 0 or taken"""
    with socket.socket() as probe:
        probe.setsockopt(socket.SOL_SOCKET, socket.SO_REUSEADDR, 1)
        with contextlib.suppress(OSError, OverflowError):
            # Fails if another socket listens on the port.
            probe.bind(("127.0.0.1", port))
        if probe.getsockname()[1] == 0:
            probe.bind(("127.0.0.1", 0))
        # Bound to an explicit number even if any free port will do: the kernel frees an automatic one when a restart shuts
        # the socket down.
        return socket.create_server(probe.getsockname(), backlog=_BACKLOG)


class Connections:
    """The listening socket and its connections. Its methods are called from one event loop only.

    @param certificates the folder for tls.server_context()
    @param speak makes the protocol object of a new connection
    @param failed called with the reason of a failed handshake
    """

    def __init__(
        self,
        listener: socket.socket,
        certificates: pathlib.Path,
        speak: Callable[[Link], asyncio.Protocol],
        failed: Callable[[str], None],
    ):
        self.fault = "none"
        self.options: dict[str, int] = {}
        # Called when the store listens again after a restart.
        self.changed: Callable[[], None] = lambda: None
        self._listener = listener
        self._certificates = certificates
        self._speak = speak
        self._failed = failed
        self._context = tls.server_context("none", certificates)
        self._number = 0
        self._links: set[Link] = set()
        self._opening: set[asyncio.Task] = set()
        self._listening = asyncio.Event()
        self._listening.set()
        self._return: asyncio.TimerHandle | None = None

    async def run(self) -> None:
        """Serves until it is cancelled."""
        self._listener.setblocking(False)
        loop = asyncio.get_running_loop()
        try:
            while True:
                await self._listening.wait()
                try:
                    accepted, _ = await loop.sock_accept(self._listener)
                except OSError as error:
                    # EINVAL: a restart has shut the socket down.
                    if error.errno != errno.EINVAL:
                        raise
                    continue
                # asyncio does this only for sockets that it accepts itself.
                accepted.setsockopt(socket.IPPROTO_TCP, socket.TCP_NODELAY, 1)
                task = loop.create_task(self._open(accepted))
                self._opening.add(task)
                task.add_done_callback(self._opening.discard)
        finally:
            self._listener.close()
            self._drop()
            await self.dropped()

    async def _open(self, accepted: socket.socket) -> None:
        if self.fault == "refuse-tls":
            with contextlib.closing(accepted):
                await self._refuse(accepted)
            return
        try:
            # asyncio closes its own socket when a handshake fails, before the alert is sent.
            with accepted.dup() as second:
                await self._shake_hands(accepted, second)
        except (OSError, asyncio.TimeoutError) as error:
            self._failed(str(error) or "the client did not finish the handshake")

    async def _shake_hands(self, accepted: socket.socket, second: socket.socket) -> None:
        loop = asyncio.get_running_loop()
        try:
            await loop.connect_accepted_socket(
                lambda: _Opening(self), accepted, ssl=self._context, ssl_handshake_timeout=HANDSHAKE_SECONDS
            )
        except tls.HandshakeError as error:
            self._failed(error.why)
            with contextlib.suppress(OSError, asyncio.TimeoutError):
                await asyncio.wait_for(_say_and_end(second, error.alert), HANDSHAKE_SECONDS)

    async def _refuse(self, accepted: socket.socket) -> None:
        loop = asyncio.get_running_loop()
        with contextlib.suppress(OSError, asyncio.TimeoutError):
            await asyncio.wait_for(loop.sock_recv(accepted, 65536), HANDSHAKE_SECONDS)
            await loop.sock_sendall(accepted, _ALERT)
        self._failed("refused, as the fault refuse-tls wants it")

    def opened(self, transport: asyncio.Transport) -> asyncio.Protocol:
        """Registers a connection whose handshake is done. @return the protocol object for the protocol that it negotiated"""
        self._number += 1
        idle = self.options["ms"] / 1000 if self.fault == "idle-close" else IDLE_SECONDS
        link = Link(self._number, transport, idle, self._links.discard)
        self._links.add(link)
        return self._speak(link)

    def describe(self) -> dict:
        return {
            "connection": self.fault,
            "connection_options": self.options,
            "connections": {
                "open": len(self._links),
                "silent": sum(link.silent for link in self._links),
                "listening": self._listening.is_set(),
            },
        }

    def unusual(self) -> list[str]:
        """One short text for each way in which connections are not as usual."""
        told = [] if self.fault == "none" else [f"connections: {faults.CONNECTION_FAULTS[self.fault].what}"]
        silent = sum(link.silent for link in self._links)
        if silent:
            told.append(f"connections: {silent} silent")
        return told if self._listening.is_set() else [*told, "connections: the store is down until its restart ends"]

    def _drop(self) -> None:
        for task in list(self._opening):
            task.cancel()
        for link in list(self._links):
            link.drop()

    async def dropped(self) -> None:
        """Waits until the dropped connections and their requests have ended, and the journal has them."""
        for link in [link for link in self._links if link.transport.is_closing()]:
            with contextlib.suppress(asyncio.TimeoutError):
                await asyncio.wait_for(link.done.wait(), HANDSHAKE_SECONDS)
        await asyncio.sleep(0)

    def switch(self, fault: str, **options: int) -> None:
        """Sets a fault of all connections. Each but "silent" drops the open connections and makes a new TLS context, so that
        no earlier session is resumed."""
        name, read = faults.read_connection({"fault": fault, **options})
        if name == "silent":
            for link in list(self._links):
                link.silence()
            return
        self._come_back()
        if not faults.CONNECTION_FAULTS[name].once:
            self.fault, self.options = name, read
        self._context = tls.server_context(self.fault, self._certificates)
        self._drop()
        if name == "restart":
            self._stop_listening(read["ms"] / 1000)

    def _stop_listening(self, seconds: float) -> None:
        self._listening.clear()
        # The socket keeps the port meanwhile, and the kernel refuses new connections.
        self._listener.shutdown(socket.SHUT_RD)
        self._return = asyncio.get_running_loop().call_later(seconds, self._come_back)

    def _come_back(self) -> None:
        if self._return is None:
            return
        self._return.cancel()
        self._return = None
        self._listener.listen(_BACKLOG)
        self._listening.set()
        self.changed()


class _Opening(asyncio.Protocol):
    """The protocol object of a connection until the handshake has negotiated its protocol."""

    def __init__(self, connections: Connections):
        self._connections = connections

    def connection_made(self, transport: asyncio.BaseTransport) -> None:
        chosen = self._connections.opened(transport)
        transport.set_protocol(chosen)
        chosen.connection_made(transport)


async def _say_and_end(connection: socket.socket, alert: bytes) -> None:
    """Sends the alert, and reads what the client still sends: unread data would end the connection by a reset, after which
    a client may not see the alert."""
    loop = asyncio.get_running_loop()
    await loop.sock_sendall(connection, alert)
    connection.shutdown(socket.SHUT_WR)
    while await loop.sock_recv(connection, 65536):
        pass
