"""Reports each call of the service on the lab's bus and its answer, as a D-Bus monitor."""
import asyncio
import collections
import contextlib

from gi.repository import Gio, GLib

from ..device.bus import OBJECT, SERVICE, Caller
from .book import Book

# The bus answers in milliseconds. Without an answer the list of calls may lack the last ones.
_CAUGHT_UP_SECONDS = 2
_RULES = [f"type='method_call',interface='{SERVICE}'", "type='method_return'", "type='error'"]


class Monitor:
    """A monitor connection, made in the event loop that calls the book.

    GIO's worker thread sees the messages and hands them to the loop, in the order in which the bus delivered them.
    """

    def __init__(self, address: str, book: Book):
        self._book = book
        self._loop = asyncio.get_running_loop()
        self._waiting: collections.deque[asyncio.Future] = collections.deque()
        self._asker = Caller(address).connection
        self._asks = self._asker.get_unique_name()
        self._connection = Gio.DBusConnection.new_for_address_sync(
            address, Gio.DBusConnectionFlags.AUTHENTICATION_CLIENT | Gio.DBusConnectionFlags.MESSAGE_BUS_CONNECTION, None, None
        )
        self._own = self._connection.get_unique_name()
        self._connection.add_filter(self._seen)
        self._connection.call_sync(
            "org.freedesktop.DBus",
            "/org/freedesktop/DBus",
            "org.freedesktop.DBus.Monitoring",
            "BecomeMonitor",
            GLib.Variant("(asu)", (_RULES, 0)),
            None,
            Gio.DBusCallFlags.NONE,
            10_000,
            None,
        )

    def _seen(self, _connection, message: Gio.DBusMessage, incoming: bool):
        kind = message.get_message_type()
        if not incoming or message.get_destination() == self._own:
            # The answer to BecomeMonitor itself.
            return message
        if message.get_destination() == self._asks:
            self._hand(self._caught_up)
            return None
        body = message.get_body()
        values = body.unpack() if body is not None else ()
        if kind == Gio.DBusMessageType.METHOD_CALL:
            if message.get_path() == OBJECT:
                self._hand(self._book.called, message.get_sender(), message.get_serial(), message.get_member(), values)
        elif kind == Gio.DBusMessageType.METHOD_RETURN:
            good = body is not None and body.get_type_string() == "(is)"
            self._hand(
                self._book.answered, message.get_destination(), message.get_reply_serial(), values if good else None, None
            )
        else:
            self._hand(
                self._book.answered, message.get_destination(), message.get_reply_serial(), None, message.get_error_name()
            )
        # None drops the message: GIO would answer a method call with an error, and the bus would disconnect the monitor.
        return None

    def _hand(self, function, *arguments) -> None:
        with contextlib.suppress(RuntimeError):  # the loop has ended
            self._loop.call_soon_threadsafe(function, *arguments)

    def _caught_up(self) -> None:
        waiter = self._waiting.popleft()
        if not waiter.done():
            waiter.set_result(None)

    async def catch_up(self) -> None:
        """Waits until the book has every answer that its caller has.

        The bus delivers a message to the caller and to the monitor at once, but the monitor may read it later. So a question
        is sent to the bus: its answer comes to the monitor after all earlier messages.
        """
        waiter = self._loop.create_future()
        self._waiting.append(waiter)
        bus = "org.freedesktop.DBus"
        self._asker.call(bus, "/", bus, "GetId", None, None, Gio.DBusCallFlags.NONE, -1, None, None)
        with contextlib.suppress(asyncio.TimeoutError):
            await asyncio.wait_for(waiter, _CAUGHT_UP_SECONDS)

    def close(self) -> None:
        # The bus may have ended already.
        for connection in (self._connection, self._asker):
            with contextlib.suppress(GLib.Error):
                connection.close_sync(None)
