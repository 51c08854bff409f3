"""A TCP relay between daemon and server. It loses connections as lines and middleboxes do."""
import contextlib
import enum
import socket
import struct
import threading

from . import server


class State(enum.Enum):
    """Treatment of the bytes of a connection."""

    FORWARDED = enum.auto()
    SILENT = enum.auto()
    FORGOTTEN = enum.auto()


class _Link:
    """A connection of the daemon with its connection to the server."""

    def __init__(self, client, target):
        self.client = client
        self.server = socket.create_connection(("127.0.0.1", target))
        self.state = State.FORWARDED

    def start(self):
        for ends in ((self.client, self.server), (self.server, self.client)):
            threading.Thread(target=self._pump, args=ends, daemon=True).start()

    def _pump(self, source, other):
        with contextlib.suppress(OSError):
            while data := source.recv(65536):
                if self.state is State.FORGOTTEN and source is self.client:
                    self._reset()
                    return
                if self.state is State.FORWARDED:
                    other.sendall(data)
            if self.state is State.FORWARDED:
                other.shutdown(socket.SHUT_WR)

    def _reset(self):
        self.client.setsockopt(socket.SOL_SOCKET, socket.SO_LINGER, struct.pack("ii", 1, 0))
        self.client.close()
        self.server.shutdown(socket.SHUT_RDWR)

    def close(self):
        for end in (self.client, self.server):
            with contextlib.suppress(OSError):
                end.shutdown(socket.SHUT_RDWR)
            end.close()


class Proxy:
    """Forwards to a port of 127.0.0.1. silence() and forget() apply to the connections of that moment."""

    def __init__(self, target, listener=None):
        self._target = target
        self._listener = listener or server.listen()
        self._lock = threading.Lock()
        self._links = []
        self.port = self._listener.getsockname()[1]
        threading.Thread(target=self._accept, daemon=True).start()

    def _accept(self):
        with contextlib.suppress(OSError):
            while True:
                client, _ = self._listener.accept()
                link = _Link(client, self._target)
                with self._lock:
                    self._links.append(link)
                # Only now: an answer that arrives shows a connection that is counted.
                link.start()

    @property
    def connections(self):
        """Number of connections so far."""
        with self._lock:
            return len(self._links)

    def ports(self):
        """The daemon's ports of all connections so far, without those that the daemon has reset."""
        with self._lock:
            return [link.client.getpeername()[1] for link in self._links]

    def silence(self):
        """Drops everything from now on, also the end of a connection."""
        self._all_become(State.SILENT)

    def forget(self):
        """Forwards nothing and answers the daemon's next bytes with a reset."""
        self._all_become(State.FORGOTTEN)

    def _all_become(self, state):
        with self._lock:
            for link in self._links:
                link.state = state

    def stop(self):
        with contextlib.suppress(OSError):
            self._listener.shutdown(socket.SHUT_RDWR)
        self._listener.close()
        with self._lock:
            for link in self._links:
                link.close()
