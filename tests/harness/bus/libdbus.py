"""A caller with only blocking calls of libdbus: it answers no message by itself."""
import ctypes

from billing_lab.device import bus as message_bus

METHOD_RETURN = 2
_STRING, _END = ord("s"), 0


def _library():
    found = ctypes.CDLL("libdbus-1.so.3")
    for name in (
        "dbus_connection_open_private",
        "dbus_message_new_method_call",
        "dbus_pending_call_steal_reply",
        "dbus_message_get_error_name",
    ):
        getattr(found, name).restype = ctypes.c_void_p
    return found


class BlockingCaller:
    def __init__(self, address):
        self._dbus = _library()
        error = ctypes.create_string_buffer(64)
        self._dbus.dbus_error_init(error)
        self._connection = ctypes.c_void_p(self._dbus.dbus_connection_open_private(address.encode(), error))
        assert self._connection.value and self._dbus.dbus_bus_register(self._connection, error)
        self._dbus.dbus_connection_set_exit_on_disconnect(self._connection, 0)

    def start(self, method, *arguments, timeout=60):
        """@return a pending call, for result()"""
        service = message_bus.SERVICE.encode()
        message = ctypes.c_void_p(
            self._dbus.dbus_message_new_method_call(service, message_bus.OBJECT.encode(), service, method.encode())
        )
        for text in arguments:
            value = ctypes.c_char_p(text.encode())
            assert self._dbus.dbus_message_append_args(message, _STRING, ctypes.byref(value), _END)
        pending = ctypes.c_void_p()
        assert self._dbus.dbus_connection_send_with_reply(self._connection, message, ctypes.byref(pending), int(timeout * 1000))
        self._dbus.dbus_message_unref(message)
        return pending

    def result(self, pending):
        """Waits for a reply.

        @return (resp_result, length of resp_info), or the name of an error
        """
        self._dbus.dbus_pending_call_block(pending)
        reply = ctypes.c_void_p(self._dbus.dbus_pending_call_steal_reply(pending))
        number, text = ctypes.c_int32(), ctypes.c_char_p()
        if self._dbus.dbus_message_get_type(reply) != METHOD_RETURN:
            answer = ctypes.c_char_p(self._dbus.dbus_message_get_error_name(reply)).value.decode()
        else:
            assert self._dbus.dbus_message_get_args(
                reply, None, ord("i"), ctypes.byref(number), _STRING, ctypes.byref(text), _END
            )
            answer = (number.value, len(text.value))
        self._dbus.dbus_message_unref(reply)
        self._dbus.dbus_pending_call_unref(pending)
        return answer

    def close(self):
        self._dbus.dbus_connection_close(self._connection)
        self._dbus.dbus_connection_unref(self._connection)
