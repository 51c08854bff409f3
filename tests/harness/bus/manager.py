"""A service manager on a bus in the place of systemd. A test sets the unit's properties."""
import threading

from gi.repository import Gio, GLib

from billing_lab.device import bus as message_bus

NAME, PATH = "org.freedesktop.systemd1", "/org/freedesktop/systemd1"
UNIT_PATH = PATH + "/unit/billing_2dservice_2eservice"
MANAGER, PROPERTIES = Gio.DBusNodeInfo.new_for_xml(
    """
<node>
  <interface name="org.freedesktop.systemd1.Manager">
    <method name="LoadUnit"><arg type="s" direction="in"/><arg type="o" direction="out"/></method>
  </interface>
  <interface name="org.freedesktop.DBus.Properties">
    <method name="GetAll"><arg type="s" direction="in"/><arg type="a{sv}" direction="out"/></method>
  </interface>
</node>"""
).interfaces

TYPES = {"ExecMainCode": "i", "ExecMainStatus": "i", "NRestarts": "u", "SupplementaryGroups": "as", "Environment": "as"}
RUNNING = {"LoadState": "loaded", "ActiveState": "active", "SubState": "running", "Result": "success"}


class Manager:
    """Answers in a thread of its own until stop().

    @param unit  the unit's properties by name; ExecStart is the program only
    """

    def __init__(self, address, **unit):
        self._address = address
        program = unit.pop("ExecStart", None)
        self._values = {name: GLib.Variant(TYPES.get(name, "s"), value) for name, value in {**RUNNING, **unit}.items()}
        if program is not None:
            self._values["ExecStart"] = GLib.Variant(
                "a(sasbttttuii)", [(str(program), [str(program)], False, 0, 0, 0, 0, 0, 0, 0)]
            )
        self._ready = threading.Event()
        self._context = GLib.MainContext.new()
        self._loop = GLib.MainLoop.new(self._context, False)
        self._thread = threading.Thread(target=self._serve, daemon=True)
        self._thread.start()
        assert self._ready.wait(10), "no service manager"

    def stop(self):
        self._loop.quit()
        self._thread.join(10)

    def _serve(self):
        self._context.push_thread_default()
        caller = message_bus.Caller(self._address)
        for interface, path in ((MANAGER, PATH), (PROPERTIES, UNIT_PATH)):
            caller.connection.register_object(path, interface, self._answer, None, None)
        caller.connection.call_sync(
            "org.freedesktop.DBus",
            "/org/freedesktop/DBus",
            "org.freedesktop.DBus",
            "RequestName",
            GLib.Variant("(su)", (NAME, 4)),
            None,
            Gio.DBusCallFlags.NONE,
            10000,
            None,
        )
        self._ready.set()
        self._loop.run()
        caller.close()
        self._context.pop_thread_default()

    def _answer(self, _connection, _sender, _path, _interface, method, _arguments, invocation):
        invocation.return_value(
            GLib.Variant("(o)", (UNIT_PATH,)) if method == "LoadUnit" else GLib.Variant("(a{sv})", (self._values,))
        )
