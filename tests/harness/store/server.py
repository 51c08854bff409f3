"""An HTTPS server that keeps all received bytes. A test sets its answers.

It parses only the necessary part of HTTP/1.1: tests compare requests as bytes.
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
    """One parsed request. `raw` has all its bytes; `client` is the subject of the client's certificate,
    None without one; `resumed` is true for a connection with a resumed session (no signature)."""

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
    """One connection of the server, with its received bytes."""

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
        """The next request, or None after the client has closed the connection."""
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
        """Sends the close alert of TLS. Without it the client cannot tell the end of a body from a cut."""
        self.tls.settimeout(1)
        with contextlib.suppress(OSError):
            self.tls.unwrap()


def client_of(tls):
    """The subject of the client's certificate, or None."""
    der = tls.getpeercert(binary_form=True)
    return None if der is None else x509.load_der_x509_certificate(der).subject.rfc4514_string()


def content_length(head):
    for line in head.split(b"\r\n")[1:]:
        name, _, value = line.partition(b":")
        if name.lower() == b"content-length":
            return int(value)
    return 0


# Actions of a server on a request. Each returns True to keep the connection.


@dataclasses.dataclass
class Reply:
    """Sends a whole answer, at once or after `gate` has opened."""

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
    """Sends these bytes only and closes the connection in order."""

    data: bytes = b""

    def perform(self, connection, _server):
        connection.send(self.data)
        connection.finish()
        return False


@dataclasses.dataclass
class Truncate:
    """Sends a part of an answer and closes the connection, with or without the close alert of TLS."""

    body: bytes
    missing: int
    alert: bool = True

    def perform(self, connection, _server):
        size = len(self.body) + self.missing
        connection.send(b"HTTP/1.1 200 OK\r\nContent-Length: %d\r\n\r\n" % size + self.body)
        if self.alert:
            connection.finish()
        return False


@dataclasses.dataclass
class Reset:
    """Resets the connection after `data`."""

    data: bytes = b""

    def perform(self, connection, _server):
        if self.data:
            connection.send(self.data)
        # With this option closing drops unsent bytes and sends a reset.
        connection.tls.setsockopt(socket.SOL_SOCKET, socket.SO_LINGER, struct.pack("ii", 1, 0))
        return False


class Hang:
    """Sends no answer until the server stops."""

    def perform(self, connection, server):
        # Without a limit: thousands of threads that looked again and again would hold up the tests in this process.
        server.stopping.wait()
        return False


class Endless:
    """Sends an endless chunked body until the client closes the connection."""

    def perform(self, connection, server):
        connection.send(b"HTTP/1.1 200 OK\r\nTransfer-Encoding: chunked\r\n\r\n")
        chunk = b"%x\r\n" % CHUNK + b"x" * CHUNK + b"\r\n"
        while not server.stopping.is_set():
            connection.send(chunk)
        return False


class StoreServer:
    """The server. Bound to a free port of 127.0.0.1; answers `{}` until told otherwise.

    `answer` is the action on a request, or a function from a Request to an action.
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
        """All requests so far, in the order of their completion."""
        with self._changed:
            return list(self._requests)

    @property
    def connections(self):
        """All received bytes, by connection."""
        with self._changed:
            return [b"".join(parts) for parts in self._bytes]

    def take_requests(self):
        """The requests since the last call of this method."""
        with self._changed:
            requests, self._requests = self._requests, []
            return requests

    def wait_for_requests(self, count, timeout=30):
        """Waits for so many requests."""
        with self._changed:
            if not self._changed.wait_for(lambda: len(self._requests) >= count, timeout):
                raise AssertionError(f"{len(self._requests)} requests came, not {count}")
            return list(self._requests)

    def wait_for(self, event):
        """Waits for the event or the stop of the server."""
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
                    # Shuts the TCP socket down: TLS objects may be used by their own thread only.
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
        # A client may close the connection at any moment.
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
        # Without a close alert OpenSSL would drop the session, which other connections resume.
        connection.finish()


def listen():
    """A listening socket on a free port."""
    return socket.create_server(("127.0.0.1", 0), backlog=512)
