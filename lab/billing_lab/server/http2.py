"""The store's HTTP/2, with hyper-h2."""
import asyncio
import contextlib
import logging
from collections.abc import Awaitable, Callable

import h2.config
import h2.connection
import h2.events
import h2.exceptions
from h2.errors import ErrorCodes
from h2.settings import SettingCodes
from hyperframe.frame import GoAwayFrame

from ..shop import check
from .connection import Exchange, Link, is_set_within

LARGEST_BODY = 64 << 20
# Streams of a connection: nginx's default. Headers may be longer than nginx's, since an id may be long.
_STREAMS = 128
_HEADER_BYTES = 1 << 20


class Stream(Exchange):
    """A request over HTTP/2."""

    def __init__(self, connection: "Http2", number: int, headers: list[tuple[bytes, bytes]]):
        texts = [[name.decode("latin-1"), value.decode("latin-1")] for name, value in headers]
        pseudo = dict(texts)
        super().__init__(
            connection.link, pseudo.get(":method", ""), pseudo.get(":authority", ""), pseudo.get(":path", ""), texts
        )
        self.sent = check.Sent.of_http2(headers)
        self.number = number
        self.received = bytearray()
        # The highest stream number that was served before this one.
        self.before = 0
        self.gone = asyncio.Event()
        self._connection = connection

    async def head(self, status: int, type: str, length: int) -> None:
        self.check_way()
        self._connection.send_headers(
            self.number, [(":status", str(status)), ("content-type", type), ("content-length", str(length))]
        )

    async def write(self, data: bytes) -> None:
        await self._send(data, end=False)

    async def end(self, data: bytes = b"") -> None:
        # END_STREAM is set in the last frame of the body, as usual servers do: a client that counts the bytes does not wait
        # for another frame.
        if data:
            await self._send(data, end=True)
        else:
            self.check_way()
            self._connection.send_data(self.number, b"", end=True)

    async def _send(self, data: bytes, end: bool) -> None:
        view = memoryview(data)
        while view:
            self.check_way()
            room = self._connection.room_of(self.number)
            if room <= 0:
                await self._connection.more_room()
                continue
            part = view[:room].tobytes()
            self._connection.send_data(self.number, part, end and room >= len(view))
            self.sent_bytes += len(part)
            view = view[room:]

    def check_way(self) -> None:
        super().check_way()
        if self.gone.is_set():
            raise ConnectionResetError

    async def left_within(self, seconds: float) -> bool:
        return await is_set_within(self.gone, seconds)

    def refuse(self) -> None:
        self._connection.reset_stream(self.number, ErrorCodes.REFUSED_STREAM)

    def go_away(self) -> None:
        # GOAWAY must name the highest stream that is served. If that is above this one, this stream is refused as well.
        if self._connection.go_away(self.before, self.number):
            self.refuse()


class Http2(asyncio.Protocol):
    """One connection. Each stream is handled by its own task.

    @param handle answers a request
    @param refused called with bytes that are not valid HTTP/2
    """

    def __init__(
        self,
        link: Link,
        handle: Callable[[Exchange], Awaitable[None]],
        refused: Callable[[Link, bytes, BaseException | None], None],
    ):
        self.link = link
        link.farewell = lambda: self._tell_away(self._taken)
        self._handle, self._refused = handle, refused
        self._h2 = h2.connection.H2Connection(h2.config.H2Configuration(client_side=False, header_encoding=None))
        self._streams: dict[int, Stream] = {}
        self._tasks: set[asyncio.Task] = set()
        self._taken = 0
        # The highest stream that is still served after GOAWAY; None before.
        self._last: int | None = None
        self._room = asyncio.Event()
        self._paused = False

    # From the client

    def connection_made(self, transport: asyncio.BaseTransport) -> None:
        self._h2.local_settings = h2.settings.Settings(
            client=False,
            initial_values={SettingCodes.MAX_CONCURRENT_STREAMS: _STREAMS, SettingCodes.MAX_HEADER_LIST_SIZE: _HEADER_BYTES},
        )
        self._h2.decoder.max_header_list_size = _HEADER_BYTES
        self._h2.initiate_connection()
        self._flush()

    def data_received(self, data: bytes) -> None:
        if self.link.silent:
            return
        try:
            events = self._h2.receive_data(data)
        except h2.exceptions.ProtocolError as error:
            self._refused(self.link, data, error)
            self._flush()
            self.link.transport.close()
            return
        for event in events:
            self._take(event)
        self._flush()

    def _take(self, event: h2.events.Event) -> None:
        stream = self._streams.get(getattr(event, "stream_id", 0))
        match event:
            case h2.events.RequestReceived():
                self.link.asked()
                self._streams[event.stream_id] = Stream(self, event.stream_id, event.headers)
            case h2.events.DataReceived():
                self.link.asked()
                with contextlib.suppress(h2.exceptions.ProtocolError):
                    self._h2.acknowledge_received_data(event.flow_controlled_length, event.stream_id)
                if stream is not None:
                    self._add(stream, event.data)
            case h2.events.StreamEnded() if stream is not None:
                stream.body = stream.sent.body = bytes(stream.received)
                task = asyncio.get_running_loop().create_task(self._serve(stream))
                self._tasks.add(task)
                task.add_done_callback(self._tasks.discard)
            case h2.events.StreamReset() if stream is not None:
                self._forget(stream)
            case h2.events.WindowUpdated() | h2.events.RemoteSettingsChanged():
                self._room.set()

    def _add(self, stream: Stream, data: bytes) -> None:
        stream.received += data
        if len(stream.received) > LARGEST_BODY:
            self._forget(stream)
            self.reset_stream(stream.number, ErrorCodes.ENHANCE_YOUR_CALM)

    async def _serve(self, stream: Stream) -> None:
        if self._last is not None and stream.number > self._last:
            return
        stream.before, self._taken = self._taken, max(self._taken, stream.number)
        try:
            with self.link.busy():
                await self._handle(stream)
        except Exception:
            logging.exception("a request over HTTP/2 failed")
            self.reset_stream(stream.number, ErrorCodes.INTERNAL_ERROR)
        finally:
            self._forget(stream)
            if self._last is not None and not any(number <= self._last for number in self._streams):
                self.link.transport.close()

    def _forget(self, stream: Stream) -> None:
        stream.gone.set()
        self._room.set()
        self._streams.pop(stream.number, None)

    def connection_lost(self, exc: BaseException | None) -> None:
        self.link.lost()
        for stream in list(self._streams.values()):
            self._forget(stream)

    # To the client

    def pause_writing(self) -> None:
        self._paused = True

    def resume_writing(self) -> None:
        self._paused = False
        self._room.set()

    def room_of(self, number: int) -> int:
        """@return how many bytes of a body flow control lets be sent now"""
        if self._paused:
            return 0
        window = self._try(self._h2.local_flow_control_window, number)
        return min(window, self._h2.max_outbound_frame_size)

    async def more_room(self) -> None:
        """Waits until there may be room again, or a stream has ended."""
        self._room.clear()
        await self._room.wait()

    def send_headers(self, number: int, headers: list[tuple[str, str]]) -> None:
        self._try(self._h2.send_headers, number, headers)

    def send_data(self, number: int, data: bytes, end: bool = False) -> None:
        self._try(self._h2.send_data, number, data, end_stream=end)

    def reset_stream(self, number: int, code: ErrorCodes) -> None:
        with contextlib.suppress(ConnectionError):
            self._try(self._h2.reset_stream, number, code)

    def _try(self, function: Callable, *arguments, **options):
        """Calls a function of hyper-h2 and sends what it makes. ProtocolError means that the client has ended the stream or
        the connection: it is raised as ConnectionResetError, which senders expect."""
        try:
            done = function(*arguments, **options)
        except h2.exceptions.ProtocolError as error:
            raise ConnectionResetError from error
        self._flush()
        return done

    def _flush(self) -> None:
        data = self._h2.data_to_send()
        if data and not self.link.silent:
            self.link.transport.write(data)

    def go_away(self, last: int, number: int) -> bool:
        """Sends GOAWAY once; streams above `last` are not served. @return whether the stream `number` is still served"""
        if self._last is None:
            self._last = last
            self._tell_away(last)
        return number <= self._last

    def _tell_away(self, last: int) -> None:
        # Written by hand: after a GOAWAY that hyper-h2 itself sends, it refuses to send on the streams that are still open.
        self._flush()
        if not self.link.silent:
            self.link.transport.write(GoAwayFrame(0, last_stream_id=last).serialize())
