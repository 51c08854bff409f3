"""A store that speaks HTTP/2 with clients that offer it. A test decides what happens to its streams."""
import collections
import contextlib

import h2.config
import h2.connection
import h2.errors
import h2.events
import h2.exceptions
from hyperframe.frame import GoAwayFrame

from . import server

BODY = b"{}"


class Http2:
    """The HTTP/2 side of one connection. `open` is true until either side ends it."""

    def __init__(self, tls):
        self.tls = tls
        self.open = True
        self.answered = set()
        self.state = h2.connection.H2Connection(h2.config.H2Configuration(client_side=False, header_encoding="utf-8"))
        self.state.initiate_connection()
        self.flush()

    def flush(self, more=b""):
        self.tls.sendall(self.state.data_to_send() + more)

    def reply(self, stream):
        self.state.send_headers(stream, [(":status", "200"), ("content-length", str(len(BODY)))])
        self.state.send_data(stream, BODY, end_stream=True)
        self.flush()

    def refuse(self, stream, code):
        self.state.reset_stream(stream, code)
        self.flush()

    def go_away(self, last):
        """Refuses streams after this one (GOAWAY)."""
        frame = GoAwayFrame(0)
        frame.last_stream_id = last
        self.flush(frame.serialize())


# Actions of a store on a stream with a complete request.


def answers(connection, stream):
    connection.reply(stream)


def refuses(connection, stream):
    connection.refuse(stream, h2.errors.ErrorCodes.REFUSED_STREAM)


def wants_http_1_1(connection, stream):
    connection.refuse(stream, h2.errors.ErrorCodes.HTTP_1_1_REQUIRED)


def goes_away_before(connection, stream):
    """Reports the stream as not processed (GOAWAY) and closes the connection."""
    connection.go_away(stream - 2)
    connection.open = False


def goes_away_after(connection, stream):
    """Announces this stream as the last one (GOAWAY), answers it and closes the connection."""
    connection.go_away(stream)
    connection.reply(stream)
    connection.open = False


def is_silent(_connection, _stream):
    pass


def answers_early(connection, stream):
    """Answers after the head of the request and refuses its body."""
    connection.reply(stream)
    # The body may have arrived already.
    with contextlib.suppress(h2.exceptions.StreamClosedError):
        connection.refuse(stream, h2.errors.ErrorCodes.NO_ERROR)


class Http2Store(server.StoreServer):
    """`then` has one action for each of the next streams; `always` is the action for all others."""

    def __init__(self, context):
        context.set_alpn_protocols(["h2", "http/1.1"])
        self.always = answers
        self.then = []
        self._streams = collections.Counter()
        super().__init__(context)

    def take_seen(self):
        """Requests since the last call of this method: {(protocol, method, path): count}."""
        seen, self._streams = self._streams, collections.Counter()
        seen.update(("HTTP/1.1", request.line.split()[0], request.path) for request in self.take_requests())
        return seen

    def _talk(self, connection):
        if connection.tls.selected_alpn_protocol() != "h2":
            super()._talk(connection)
            return
        speaker = Http2(connection.tls)
        while speaker.open and (data := connection.tls.recv(65536)):
            for event in speaker.state.receive_data(data):
                self._meet(speaker, event)
            speaker.flush()
        connection.finish()

    def _meet(self, speaker, event):
        if isinstance(event, h2.events.RequestReceived):
            head = dict(event.headers)
            self._streams["HTTP/2", head[":method"], head[":path"].split("?")[0]] += 1
            if (self.then or [self.always])[0] is answers_early:
                self._behave(speaker, event.stream_id)
        elif isinstance(event, h2.events.DataReceived):
            speaker.state.acknowledge_received_data(event.flow_controlled_length, event.stream_id)
        elif isinstance(event, h2.events.StreamEnded) and event.stream_id not in speaker.answered:
            self._behave(speaker, event.stream_id)

    def _behave(self, speaker, stream):
        speaker.answered.add(stream)
        (self.then.pop(0) if self.then else self.always)(speaker, stream)
