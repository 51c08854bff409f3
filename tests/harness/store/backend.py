"""The shop behind an ordinary web server: plain HTTP, and a count of its sales."""
import collections
import json
import socketserver
import threading
import time
from urllib.parse import parse_qs, urlsplit

from . import server


def sold(invoice):
    """Body of the answer to a purchase."""
    return f"sold {invoice}"


def listed(application):
    """Body of the answer to a list of products."""
    return f"listed {application}"


class _Server(socketserver.ThreadingTCPServer):
    allow_reuse_address = daemon_threads = True
    request_queue_size = 512


class _Handler(socketserver.StreamRequestHandler):
    """Handles one request and closes the connection, since a kept connection could be lost as well."""

    def handle(self):
        head = b"".join(iter(self.rfile.readline, b"\r\n"))
        if not head:
            return
        body = self.rfile.read(server.content_length(head))
        answer = self.server.shop.take(head.split(b" ", 2)[1].decode(), body).encode()
        self.wfile.write(
            b"HTTP/1.1 200 OK\r\nContent-Type: application/json\r\n"
            b"Connection: close\r\nContent-Length: %d\r\n\r\n" % len(answer) + answer
        )


class Backend:
    """The shop. Bound to a free port of 127.0.0.1; answers after `delay` seconds."""

    def __init__(self, delay=0.0):
        self._server = _Server(("127.0.0.1", 0), _Handler)
        self._server.shop = self
        self._lock = threading.Lock()
        self._purchases = collections.Counter()
        self.delay = delay
        self.port = self._server.server_address[1]
        threading.Thread(target=self._server.serve_forever, args=(0.05,), daemon=True).start()

    @property
    def purchases(self):
        """Number of requests for each invoice."""
        with self._lock:
            return dict(self._purchases)

    def take(self, target, body):
        """Handles one request.

        @return its answer
        """
        time.sleep(self.delay)
        if not body:
            return listed(*parse_qs(urlsplit(target).query)["appid"])
        invoice = json.loads(body)["invoiceId"]
        with self._lock:
            self._purchases[invoice] += 1
        return sold(invoice)

    def stop(self):
        self._server.shutdown()
        self._server.server_close()
