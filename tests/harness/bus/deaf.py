"""Bus callers that do not read their messages, on a socket of their own."""
import contextlib
import os
import socket

from billing_lab.device import bus as message_bus
from gi.repository import Gio, GLib

BUS = ("org.freedesktop.DBus", "/org/freedesktop/DBus", "org.freedesktop.DBus")
SERVICE = (message_bus.SERVICE, message_bus.OBJECT)


class DeafCaller:
    """A connection that sends, and reads only on demand."""

    def __init__(self, address):
        self.socket = socket.socket(socket.AF_UNIX)
        self.socket.connect(address.removeprefix("unix:path="))
        self._serial = 0
        self._unread = b""
        user = str(os.getuid()).encode().hex().encode()
        self.socket.sendall(b"\0AUTH EXTERNAL " + user + b"\r\n")
        assert self.socket.recv(1000).startswith(b"OK ")
        self.socket.sendall(b"BEGIN\r\n")
        hello = self._send(*BUS, "Hello")
        self.name = next(m for m in self.messages() if m.get_reply_serial() == hello).get_body().unpack()[0]

    def _send(self, destination, path, interface, member, body=None):
        message = Gio.DBusMessage.new_method_call(destination, path, interface, member)
        if body is not None:
            message.set_body(body)
        return self.put(message)

    def put(self, message):
        """Sends a message.

        @return its serial
        """
        self._serial += 1
        message.set_serial(self._serial)
        self.socket.sendall(bytes(message.to_blob(Gio.DBusCapabilityFlags.NONE)))
        return self._serial

    def call(self, method, *arguments):
        """@return the call's serial"""
        body = GLib.Variant("(" + "s" * len(arguments) + ")", arguments) if arguments else None
        return self._send(*SERVICE, message_bus.SERVICE, method, body)

    def introspect(self):
        return self._send(*SERVICE, "org.freedesktop.DBus.Introspectable", "Introspect")

    def pretend_to_answer(self, name, serial):
        """Sends a reply without a call."""
        message = Gio.DBusMessage()
        message.set_message_type(Gio.DBusMessageType.METHOD_RETURN)
        message.set_flags(Gio.DBusMessageFlags.NO_REPLY_EXPECTED)
        message.set_destination(name)
        message.set_reply_serial(serial)
        self.put(message)

    def messages_until_silent(self, silence=1):
        """Reads messages until none has come for so many seconds."""
        found = []
        with contextlib.suppress(TimeoutError):
            for message in self.messages(silence):
                found.append(message)
        return found

    def messages(self, timeout=60):
        """Yields messages until the caller stops, or none has come for so many seconds."""
        self.socket.settimeout(timeout)
        while True:
            while len(self._unread) < 16 or len(self._unread) < self._needed():
                data = self.socket.recv(1 << 20)
                if not data:
                    return
                self._unread += data
            size = self._needed()
            blob, self._unread = self._unread[:size], self._unread[size:]
            yield Gio.DBusMessage.new_from_blob(blob, Gio.DBusCapabilityFlags.NONE)

    def _needed(self):
        return Gio.DBusMessage.bytes_needed(self._unread[:16])

    def answers(self, serials, timeout=60):
        """Waits for the answers to all of these calls.

        @return the answer to each call
        """
        missing, found = set(serials), {}
        for message in self.messages(timeout):
            if message.get_reply_serial() in missing:
                missing.remove(message.get_reply_serial())
                found[message.get_reply_serial()] = message
            if not missing:
                break
        return [found[serial] for serial in serials]

    def close(self):
        self.socket.close()
