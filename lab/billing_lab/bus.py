"""A private message bus of the system kind, and callers on it."""
import contextlib
import itertools
import os
import pathlib
import re
import subprocess
from urllib.parse import quote

from gi.repository import Gio, GLib

from .folder import LabError

SERVICE = "org.plevo.billingservice"
OBJECT = "/org/plevo/billingservice"

# The rules of the system bus: nothing may be owned or called but what is named here. Where no limit
# is set the built-in ones hold, which are those of the system bus.
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
    """@return the name, which another service than ours may own. @throw LabError"""
    if not isinstance(name, str) or len(name) > 255 or not _NAME.fullmatch(name):
        raise LabError(f"{name!r} is no name of a service; write one such as org.example.Downloads")
    if name == SERVICE or name.startswith("org.freedesktop.DBus"):
        raise LabError(f"{name} is on this bus already")
    return name


class Bus:
    """The bus, with its socket and its configuration in a folder of the caller's.

    @param limits by their names in the bus's configuration, for tests beyond those of the system bus
    @param policy  further rules, which count more than those before them
    """

    def __init__(self, folder, names=(SERVICE,), limits=None, policy=()):
        folder = pathlib.Path(folder)
        self.socket = folder / "bus"
        # What may stand in an address as it is.
        self.address = "unix:path=" + quote(str(self.socket), safe="/-_.").replace("~", "%7E")
        self._configuration = folder / "bus.conf"
        self._names, self._limits, self._policy = tuple(names), limits or {}, policy
        self._write(())
        # It ends with us, however we end and be it at this moment, and knows nothing of our terminal's
        # Ctrl-C.
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
        """Lets programs own these names too, and call them, from when this returns; others than these no more."""
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
        """Without any notice, as a crash would."""
        self.process.kill()
        self.process.wait()

    def stop(self):
        self.process.terminate()
        self.process.wait()
        self.process.stdout.close()


class Call:
    """One method call, under way or answered."""

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
    """A connection to the bus that calls the service, or another one with its interface."""

    def __init__(self, address, service=SERVICE):
        self._service = service
        self.connection = Gio.DBusConnection.new_for_address_sync(
            address, Gio.DBusConnectionFlags.AUTHENTICATION_CLIENT | Gio.DBusConnectionFlags.MESSAGE_BUS_CONNECTION, None, None
        )

    def start(self, method, *arguments, timeout=60):
        return Call(self.connection, method, arguments, timeout, self._service)

    def call(self, method, *arguments, timeout=60):
        """@return what came back as (resp_result, resp_info)"""
        call = self.start(method, *arguments, timeout=timeout)
        self.finish([call])
        if call.error is not None:
            raise call.error
        return call.result

    @staticmethod
    def finish(calls):
        """Waits until all of them are answered. Each has a time-out of its own."""
        while not all(call.done for call in calls):
            GLib.MainContext.default().iteration(True)

    def ask_bus(self, method, *arguments):
        """One question to the bus itself, with texts for arguments."""
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
        """The unique name that owns the service's, or None."""
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
