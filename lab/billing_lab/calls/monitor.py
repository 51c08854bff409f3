"""Reports each call of the service on the lab's bus and its answer, as a D-Bus monitor."""
import contextlib
from collections.abc import Callable

from gi.repository import Gio, GLib

from ..bus import OBJECT, SERVICE

_RULES = [f"type='method_call',interface='{SERVICE}'", "type='method_return'", "type='error'"]


class Monitor:
    """A monitor connection. Its callbacks are called in GIO's worker thread.

    @param called called for a call with sender, serial, member, arguments
    @param answered called for an answer with destination, serial of the call, (resp_result, resp_info) or None, name of
    the error or None
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
        # None drops the message: GIO would answer a method call with an error, and the bus would disconnect the monitor.
        return None

    def close(self) -> None:
        # The bus may have ended already.
        with contextlib.suppress(GLib.Error):
            self._connection.close_sync(None)
