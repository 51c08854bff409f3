"""Starts a private message bus with the rules of a system bus, and calls the service on a bus."""
import contextlib
import itertools
import os
import pathlib
import re
import subprocess
from urllib.parse import quote

from gi.repository import Gio, GLib

from ..folder import LabError

SERVICE = "org.plevo.billingservice"
OBJECT = "/org/plevo/billingservice"

# The rules of the system bus: only the names listed here may be owned or called. A limit that is not set has
# dbus-daemon's built-in value, as on the system bus.
CONFIGURATION = """<!DOCTYPE busconfig PUBLIC "-//freedesktop//DTD D-Bus Bus Configuration 1.0//EN"
 "http://www.freedesktop.org/standards/dbus/1.0/busconfig.dtd">
<busconfig>
  <type>system</type>
  <auth>EXTERNAL</auth>
  <listen>{address}</listen>
  <policy context="default">
    <allow user="*"/>
    <deny own="*"/>
    <deny send_type="method_call"/>
    <allow send_type="signal"/>
    <allow send_requested_reply="true" send_type="method_return"/>
    <allow send_requested_reply="true" send_type="error"/>
    <allow receive_type="method_call"/>
    <allow receive_type="method_return"/>
    <allow receive_type="error"/>
    <allow receive_type="signal"/>
    <allow send_destination="org.freedesktop.DBus"/>
{names}{rules}  </policy>
{limits}</busconfig>
"""


_NAME = re.compile(r"[A-Za-z_-][A-Za-z0-9_-]*(\.[A-Za-z_-][A-Za-z0-9_-]*)+")


def check_name(name):
    """Checks a name that a mock of another service wants to own. @return the name. @throw LabError"""
    if not isinstance(name, str) or len(name) > 255 or not _NAME.fullmatch(name):
        raise LabError(f"{name!r} is no name of a service; write one such as org.example.Downloads")
    if name == SERVICE or name.startswith("org.freedesktop.DBus"):
        raise LabError(f"{name} is on this bus already")
    return name


class Bus:
    """A running bus, with its socket and its configuration in a folder.

    @param limits limits other than those of the system bus, by their names in the bus's configuration
    @param policy further rules; they override the earlier ones
    """

    def __init__(self, folder, names=(SERVICE,), limits=None, policy=()):
        folder = pathlib.Path(folder)
        self.socket = folder / "bus"
        # A D-Bus address may contain these characters unescaped, but no "~".
        self.address = "unix:path=" + quote(str(self.socket), safe="/-_.").replace("~", "%7E")
        self._configuration = folder / "bus.conf"
        self._names, self._limits, self._policy = tuple(names), limits or {}, policy
        self._write(())
        # The kernel ends the bus with this process; the shell covers an end before setpriv has run. A session of its own
        # keeps the terminal's Ctrl-C away from the bus.
        self.process = subprocess.Popen(
            [
                "setpriv",
                "--pdeathsig",
                "TERM",
                "sh",
                "-c",
                '[ "$PPID" = "$0" ] && exec "$@"',
                str(os.getpid()),
                "dbus-daemon",
                f"--config-file={self._configuration}",
                "--nofork",
                "--nopidfile",
                "--print-address",
            ],
            stdout=subprocess.PIPE,
            text=True,
            start_new_session=True,
        )
        if not self.process.stdout.readline():
            raise RuntimeError("dbus-daemon did not start")
        self.socket.chmod(0o600)

    def _write(self, further):
        names = (*self._names, *further)
        rules = "".join(f'    <allow own="{name}"/>\n    <allow send_destination="{name}"/>\n' for name in names)
        self._configuration.write_text(
            CONFIGURATION.format(
                address=self.address,
                names=rules,
                rules="".join(f"    {rule}\n" for rule in self._policy),
                limits="".join(f'  <limit name="{name}">{value}</limit>\n' for name, value in self._limits.items()),
            )
        )

    def allow(self, further):
        """Sets the names that programs may own and call besides those of the constructor. In effect on return."""
        self._write(further)
        caller = Caller(self.address)
        caller.connection.call_sync(
            "org.freedesktop.DBus",
            "/org/freedesktop/DBus",
            "org.freedesktop.DBus",
            "ReloadConfig",
            None,
            None,
            Gio.DBusCallFlags.NONE,
            10000,
            None,
        )
        caller.close()

    def kill(self):
        """Ends the bus with SIGKILL, as a crash would."""
        self.process.kill()
        self.process.wait()

    def stop(self):
        self.process.terminate()
        self.process.wait()
        self.process.stdout.close()


class Call:
    """One method call. `place` is its number in the order of answers, 0 while it is under way."""

    _answers = itertools.count(1)

    def __init__(self, connection, method, arguments, timeout, service=SERVICE):
        signature = "(" + "s" * len(arguments) + ")"
        self.result = None
        self.error = None
        self.place = 0
        connection.call(
            service,
            OBJECT,
            SERVICE,
            method,
            GLib.Variant(signature, arguments),
            None,
            Gio.DBusCallFlags.NONE,
            int(timeout * 1000),
            None,
            self._answered,
        )

    def _answered(self, connection, outcome):
        self.place = next(Call._answers)
        try:
            reply = connection.call_finish(outcome)
        except GLib.Error as error:
            self.error = error
            return
        if reply.get_type_string() != "(is)":
            self.error = TypeError(f"a reply of type {reply.get_type_string()}")
            return
        self.result = reply.unpack()

    @property
    def done(self):
        return self.place > 0


class Caller:
    """A connection to the bus that calls the service, or another program with the same interface."""

    def __init__(self, address, service=SERVICE):
        self._service = service
        self.connection = Gio.DBusConnection.new_for_address_sync(
            address, Gio.DBusConnectionFlags.AUTHENTICATION_CLIENT | Gio.DBusConnectionFlags.MESSAGE_BUS_CONNECTION, None, None
        )

    def start(self, method, *arguments, timeout=60):
        return Call(self.connection, method, arguments, timeout, self._service)

    def call(self, method, *arguments, timeout=60):
        """Calls a method and waits for its answer. @return (resp_result, resp_info)"""
        call = self.start(method, *arguments, timeout=timeout)
        self.finish([call])
        if call.error is not None:
            raise call.error
        return call.result

    @staticmethod
    def finish(calls):
        """Waits until all calls are answered. Each call has its own time-out."""
        while not all(call.done for call in calls):
            GLib.MainContext.default().iteration(True)

    def ask_bus(self, method, *arguments):
        """Calls a method of the bus itself; the arguments are texts."""
        signature = "(" + "s" * len(arguments) + ")"
        reply = self.connection.call_sync(
            "org.freedesktop.DBus",
            "/org/freedesktop/DBus",
            "org.freedesktop.DBus",
            method,
            GLib.Variant(signature, arguments),
            None,
            Gio.DBusCallFlags.NONE,
            10000,
            None,
        )
        return reply.unpack()[0]

    def owner(self, name=SERVICE):
        """The unique name of the owner of a name, or None."""
        with contextlib.suppress(GLib.Error):
            return self.ask_bus("GetNameOwner", name)
        return None

    def introspect(self):
        reply = self.connection.call_sync(
            SERVICE,
            OBJECT,
            "org.freedesktop.DBus.Introspectable",
            "Introspect",
            None,
            GLib.VariantType("(s)"),
            Gio.DBusCallFlags.NONE,
            10000,
            None,
        )
        return Gio.DBusNodeInfo.new_for_xml(reply.unpack()[0])

    def close(self):
        self.connection.close_sync(None)
