"""When programs have their names on the bus, told by the bus: a program that asks again and again would know it late, and take
processor time from the one that starts."""
import time

from gi.repository import Gio, GLib

SECONDS = 60  # under valgrind a start takes 20 on a busy machine
LOOK_MS = 100  # whether the program still runs


class Arrivals:
    """Names that have got an owner since the last wait for them."""

    def __init__(self, caller):
        self._came = {}
        bus = "org.freedesktop.DBus"
        caller.connection.signal_subscribe(
            bus, bus, "NameOwnerChanged", "/org/freedesktop/DBus", None, Gio.DBusSignalFlags.NONE, self._note
        )
        caller.owner(bus)  # The bus answers in order: from now on it tells of each name.

    def _note(self, *signal):
        now = time.monotonic()
        name, _, owner = signal[-1].unpack()
        if owner:
            self._came[name] = now

    def wait(self, name, is_running):
        """@return the time at which the name got its owner

        Precondition: it had none when the program was started.
        """
        end = time.monotonic() + SECONDS
        look = GLib.timeout_add(LOOK_MS, lambda: GLib.SOURCE_CONTINUE)
        try:
            while name not in self._came:
                if not is_running() or time.monotonic() > end:
                    raise TimeoutError(f"{name} does not come")
                GLib.MainContext.default().iteration(True)
        finally:
            GLib.source_remove(look)
        return self._came.pop(name)
