"""Sees every call of the service on the lab's bus, and its answer."""
import contextlib
from collections.abc import Callable

from gi.repository import Gio, GLib

from ..bus import OBJECT, SERVICE

_RULES = [f"type='method_call',interface='{SERVICE}'", "type='method_return'", "type='error'"]


class Monitor:
    """Sees them in a thread of GIO's own.

    @param called told of a call: sender, serial, member, arguments
    @param answered told of an answer: destination, serial of the call, (resp_result, resp_info) or None, error's name
    """

    def __init__(self, address: str, called: Callable, answered: Callable):
        self._called, self._answered = called, answered
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
        body = message.get_body()
        values = body.unpack() if body is not None else ()
        if kind == Gio.DBusMessageType.METHOD_CALL:
            if message.get_path() == OBJECT:
                self._called(message.get_sender(), message.get_serial(), message.get_member(), values)
        elif kind == Gio.DBusMessageType.METHOD_RETURN:
            good = body is not None and body.get_type_string() == "(is)"
            self._answered(message.get_destination(), message.get_reply_serial(), values if good else None, None)
        else:
            self._answered(message.get_destination(), message.get_reply_serial(), None, message.get_error_name())
        # A monitor must not answer what it sees.
        return None

    def close(self) -> None:
        # The bus may have ended before.
        with contextlib.suppress(GLib.Error):
            self._connection.close_sync(None)
