"""An HTTPS server that keeps every byte it is sent, and answers as a test says.

It reads HTTP/1.1 no further than it must: requests are compared as bytes.
"""
import contextlib
import dataclasses
import socket
import struct
import threading

from cryptography import x509

CHUNK = 1 << 20


@dataclasses.dataclass
class Request:
    """One request, taken apart. `raw` is all of it; `client` the subject of the client's
    certificate, None without one; `resumed` says that no key signed for its connection."""

    raw: bytes
    connection: int
    client: str = None
    resumed: bool = False

    @property
    def head(self):
        return self.raw.split(b"\r\n\r\n", 1)[0]

    @property
    def line(self):
        return self.head.split(b"\r\n")[0].decode("latin-1")

    @property
    def headers(self):
        """The header lines, in their order."""
        return [line.decode("latin-1") for line in self.head.split(b"\r\n")[1:]]

    @property
    def path(self):
        return self.line.split(" ")[1].split("?")[0]

    @property
    def body(self):
        return self.raw.split(b"\r\n\r\n", 1)[1]


class Connection:
    """One connection of the server, with what came in on it."""

    def __init__(self, number, tls, log):
        self.number = number
        self.tls = tls
        self.log = log
        self._client = client_of(tls)
        self._unread = b""

    def _receive(self):
        data = self.tls.recv(65536)
        self.log.append(data)
        self._unread += data
        return bool(data)

    def next_request(self):
        """The next request, or None when the client is gone."""
        while b"\r\n\r\n" not in self._unread:
            if not self._receive():
                return None
        head = self._unread.split(b"\r\n\r\n", 1)[0]
        size = len(head) + 4 + content_length(head)
        while len(self._unread) < size:
            if not self._receive():
                return None
        raw, self._unread = self._unread[:size], self._unread[size:]
        return Request(raw, self.number, self._client, self.tls.session_reused)

    def send(self, data):
        self.tls.sendall(data)

    def finish(self):
        """Says that nothing more will come. Without it the end of a body cannot be told from a cut."""
        self.tls.settimeout(1)
        with contextlib.suppress(OSError):
            self.tls.unwrap()


def client_of(tls):
    """The subject of the certificate that the client has presented, or None."""
    der = tls.getpeercert(binary_form=True)
    return None if der is None else x509.load_der_x509_certificate(der).subject.rfc4514_string()


def content_length(head):
    for line in head.split(b"\r\n")[1:]:
        name, _, value = line.partition(b":")
        if name.lower() == b"content-length":
            return int(value)
    return 0


# What a server may do with a request. Each returns True when the connection is kept.


@dataclasses.dataclass
class Reply:
    """A whole answer, at once or when `gate` opens."""

    body: bytes = b""
    status: str = "200 OK"
    headers: tuple = ()
    keep: bool = True
    gate: threading.Event = None

    def perform(self, connection, server):
        if self.gate is not None:
            server.wait_for(self.gate)
        lines = [
            f"HTTP/1.1 {self.status}",
            "Content-Type: application/json",
            f"Content-Length: {len(self.body)}",
            *self.headers,
        ]
        if not self.keep:
            lines.append("Connection: close")
        connection.send("\r\n".join(lines).encode() + b"\r\n\r\n" + self.body)
        if not self.keep:
            connection.finish()
        return self.keep


@dataclasses.dataclass
class Raw:
    """These bytes and no others; then the connection ends in an orderly way."""

    data: bytes = b""

    def perform(self, connection, _server):
        connection.send(self.data)
        connection.finish()
        return False


@dataclasses.dataclass
class Truncate:
    """The beginning of an answer that promises more; the connection ends there."""

    body: bytes
    missing: int

    def perform(self, connection, _server):
        size = len(self.body) + self.missing
        connection.send(b"HTTP/1.1 200 OK\r\nContent-Length: %d\r\n\r\n" % size + self.body)
        return False


@dataclasses.dataclass
class Reset:
    """The connection is reset, after `data`."""

    data: bytes = b""

    def perform(self, connection, _server):
        if self.data:
            connection.send(self.data)
        # Closing then drops what is unsent and sends a reset.
        connection.tls.setsockopt(socket.SOL_SOCKET, socket.SO_LINGER, struct.pack("ii", 1, 0))
        return False


class Hang:
    """No answer, for as long as the server lives or the client stays."""

    def perform(self, connection, server):
        server.wait_for(server.stopping)
        return False


class Endless:
    """A chunked body without an end, until the client has enough."""

    def perform(self, connection, server):
        connection.send(b"HTTP/1.1 200 OK\r\nTransfer-Encoding: chunked\r\n\r\n")
        chunk = b"%x\r\n" % CHUNK + b"x" * CHUNK + b"\r\n"
        while not server.stopping.is_set():
            connection.send(chunk)
        return False


class StoreServer:
    """The server. Bound to a free port of 127.0.0.1; answers `{}` until told otherwise.

    `answer` is what is done with a request: an action, or a function from a Request to an action.
    """

    def __init__(self, context, listener=None):
        self._context = context
        self._listener = listener or listen()
        self.port = self._listener.getsockname()[1]
        self.answer = Reply(b"{}")
        self.stopping = threading.Event()
        self.handshake_failures = []
        self._requests = []
        self._bytes = []
        self._changed = threading.Condition()
        self._sockets = set()
        self._threads = [threading.Thread(target=self._accept, daemon=True)]
        self._threads[0].start()

    @property
    def requests(self):
        """Every request so far, in the order in which they were complete."""
        with self._changed:
            return list(self._requests)

    @property
    def connections(self):
        """All bytes that came in, by connection."""
        with self._changed:
            return [b"".join(parts) for parts in self._bytes]

    def take_requests(self):
        """The requests since the last time."""
        with self._changed:
            requests, self._requests = self._requests, []
            return requests

    def wait_for_requests(self, count, timeout=30):
        """Returns when so many requests are there."""
        with self._changed:
            if not self._changed.wait_for(lambda: len(self._requests) >= count, timeout):
                raise AssertionError(f"{len(self._requests)} requests came, not {count}")
            return list(self._requests)

    def wait_for(self, event):
        """Waits for the event or the end of the server."""
        while not event.wait(0.05) and not self.stopping.is_set():
            pass

    def stop(self):
        self.stopping.set()
        with contextlib.suppress(OSError):
            self._listener.shutdown(socket.SHUT_RDWR)
        self._listener.close()
        with self._changed:
            for raw in self._sockets:
                with contextlib.suppress(OSError):
                    # Below TLS, whose objects belong to their threads.
                    socket.socket.shutdown(raw, socket.SHUT_RDWR)
        for thread in self._threads:
            thread.join(10)

    def _accept(self):
        while not self.stopping.is_set():
            try:
                raw, _ = self._listener.accept()
            except OSError:
                return
            with self._changed:
                self._sockets.add(raw)
                number = len(self._bytes)
                self._bytes.append([])
            thread = threading.Thread(target=self._serve, args=(raw, number), daemon=True)
            self._threads.append(thread)
            thread.start()

    def _serve(self, raw, number):
        # A client that goes at any moment is ordinary here.
        with contextlib.suppress(OSError, ValueError):
            tls = self._context.wrap_socket(raw, server_side=True, do_handshake_on_connect=False)
            with contextlib.closing(tls):
                with self._changed:
                    self._sockets.add(tls)
                if self._shake_hands(tls):
                    self._talk(Connection(number, tls, self._bytes[number]))

    def _shake_hands(self, tls):
        try:
            tls.do_handshake()
        except OSError as error:
            with self._changed:
                self.handshake_failures.append(str(error))
            return False
        return True

    def _talk(self, connection):
        while (request := connection.next_request()) is not None:
            with self._changed:
                self._requests.append(request)
                self._changed.notify_all()
            answer = self.answer(request) if callable(self.answer) else self.answer
            if not answer.perform(connection, self):
                return
        # Without a goodbye of its own OpenSSL forgets the session, with which other connections began.
        connection.finish()


def listen():
    """A listening socket on a free port."""
    return socket.create_server(("127.0.0.1", 0), backlog=512)
