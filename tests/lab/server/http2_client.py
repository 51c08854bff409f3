"""A client that speaks HTTP/2 to the store, frame by frame."""
import contextlib
import dataclasses
import socket
import ssl

import h2.config
import h2.connection
import h2.events
import h2.settings
from hyperframe.frame import GoAwayFrame

from conftest import HOST, request


def request_headers(endpoint, device, **values):
    """The daemon's request in HTTP/2 form.
    @return its headers and its body
    """
    head, _, body = request(endpoint, device, **values).partition(b"\r\n\r\n")
    line, *others = head.decode().split("\r\n")
    method, path, _ = line.split(" ")
    pairs = [other.split(": ", 1) for other in others]
    named = [(name.lower(), value) for name, value in pairs if name != "Host"]
    return [(":method", method), (":path", path), (":scheme", "https"), (":authority", device["host"]), *named], body


@dataclasses.dataclass
class Answer:
    """The answer received on one stream."""

    status: int | None = None
    headers: dict = dataclasses.field(default_factory=dict)
    body: bytes = b""
    whole: bool = False
    # True if the last frame of the body carried the end of the stream.
    end_in_body: bool = False
    reset: int | None = None


class Http2Client:
    """One connection.

    @param window size for each stream and for the connection, in bytes; `allow` acknowledges received data
    """

    def __init__(self, store, context, window=None, session=None):
        context.set_alpn_protocols(["h2", "http/1.1"])
        raw = socket.create_connection(("127.0.0.1", store.port), timeout=20)
        self.tls = context.wrap_socket(raw, server_hostname=HOST, session=session, suppress_ragged_eofs=False)
        assert self.tls.selected_alpn_protocol() == "h2"
        self._store = store
        self._manual = window is not None
        self.h2 = h2.connection.H2Connection(h2.config.H2Configuration(header_encoding="utf-8"))
        self.answers, self.away, self.end = {}, None, None
        # hyper-h2 would refuse every frame after a GOAWAY.
        self.h2._frame_dispatch_table[GoAwayFrame] = self._gone_away
        self.h2.initiate_connection()
        if window is not None:
            self.h2.update_settings({h2.settings.SettingCodes.INITIAL_WINDOW_SIZE: window})
        self.flush()

    def _gone_away(self, frame):
        self.away = frame.last_stream_id
        return [], []

    def flush(self):
        # The next read reports a connection that the store has closed.
        with contextlib.suppress(OSError):
            self.tls.sendall(self.h2.data_to_send())

    def start(self, endpoint, **values):
        """Begins a correct request.
        @return the number of its stream
        """
        headers, body = request_headers(endpoint, self._store.device, **values)
        return self.send(headers, body)

    def send(self, headers, body=b""):
        number = self.h2.get_next_available_stream_id()
        self.answers[number] = Answer()
        self.h2.send_headers(number, headers, end_stream=not body)
        for start in range(0, len(body), 16_000):
            self.h2.send_data(number, body[start : start + 16_000], end_stream=start + 16_000 >= len(body))
        self.flush()
        return number

    def ask(self, endpoint, **values):
        """Sends a request and waits for its end.
        @return the answer
        """
        return self.finish(self.start(endpoint, **values))

    def finish(self, number):
        """Reads until a stream is finished or the connection has ended."""
        answer = self.answers[number]
        while not answer.whole and answer.reset is None and self.end is None:
            self.read()
        return answer

    def until_end(self):
        """Reads until the connection ends.
        @return the error; "" for an end with TLS's close alert
        """
        while self.end is None:
            self.read()
        return self.end

    def read(self):
        try:
            data = self.tls.recv(65536)
        except socket.timeout:
            raise AssertionError("the store sends nothing and keeps the connection") from None
        except (ssl.SSLError, ConnectionError) as error:
            self.end = str(error)
            return
        if not data:
            self.end = ""
            return
        for event in self.h2.receive_data(data):
            self._take(event)
        self.flush()

    def _take(self, event):
        answer = self.answers.get(getattr(event, "stream_id", None))
        match event:
            case h2.events.ResponseReceived():
                answer.headers = dict(event.headers)
                answer.status = int(answer.headers[":status"])
            case h2.events.DataReceived():
                answer.body += event.data
                answer.end_in_body = bool(event.data) and event.stream_ended is not None
                if not self._manual:
                    self.h2.acknowledge_received_data(event.flow_controlled_length, event.stream_id)
            case h2.events.StreamEnded():
                answer.whole = True
            case h2.events.StreamReset():
                answer.reset = event.error_code

    def allow(self, number, count):
        """Enlarges the windows of a stream and of the connection by that many bytes."""
        self.h2.increment_flow_control_window(count, number)
        self.h2.increment_flow_control_window(count)
        self.flush()

    def close(self):
        self.tls.close()
