"""Starts the daemon, and puts it into the states that an app may meet: up, hanging, absent, or killed during a call."""
import asyncio
import contextlib
import os
import signal
import subprocess
import time
from collections.abc import Callable

from ..folder import Folder, LabError, last_line
from . import bus, tools, view
from .device import SERVICE_STATES, DeviceError

START_SECONDS = 30
STOP_SECONDS = 10


class Daemon:
    """The daemon's process, run by bubblewrap and a guard (view.py).

    @param again True if the daemon was started before: its log is then appended to
    """

    def __init__(self, folder: Folder, bus_address: str, level: str, again: bool = False):
        self._address = bus_address
        self._log = folder.logs / "daemon.log"
        self._more = folder.command("logs daemon")
        with open(self._log, "ab" if again else "wb") as log:
            self.process, self.pid = view.start(
                [*view.GUARD, *view.bubblewrap(folder.ca_view, folder.certificate_view)],
                [str(tools.service())],
                env=tools.environment(folder, bus_address, level),
                stdin=subprocess.PIPE,
                stdout=log,
                stderr=log,
            )

    def wait_for_name(self) -> None:
        caller = bus.Caller(self._address)
        end = time.monotonic() + START_SECONDS
        while caller.owner() is None:
            if self.process.poll() is not None:
                raise LabError(
                    f"the daemon ended with status {self.process.returncode} while it "
                    f"started: {last_line(self._log)}; more in {self._more}"
                )
            if time.monotonic() > end:
                raise LabError(
                    f"the daemon runs but does not take its name; it says: {last_line(self._log)}; more in {self._more}"
                )
            time.sleep(0.01)
        caller.close()

    def send(self, number: int) -> None:
        with contextlib.suppress(ProcessLookupError):
            if self.process.poll() is None:
                os.kill(self.pid or self.process.pid, number)

    def stop(self, number: int = signal.SIGTERM) -> None:
        """Ends the process and waits for its end. SIGCONT lets a stopped process take the signal."""
        self.send(number)
        self.send(signal.SIGCONT)
        try:
            self.process.wait(STOP_SECONDS)
        except subprocess.TimeoutExpired:
            self.process.kill()
            self.process.wait()


class Service:
    """The present daemon and its state, which a switch of the device changes.

    @param start starts a new daemon
    """

    def __init__(self, start: Callable[[], Daemon], daemon: Daemon):
        self.state = "up"
        self.daemon = daemon
        # Called with the process of each daemon that is started later.
        self.watch: Callable[[subprocess.Popen], None] = lambda process: None
        self._start = start
        self._turn = asyncio.Lock()

    async def switch(self, wanted: str) -> None:
        """@param wanted one of SERVICE_STATES, or "restart": kills the daemon, as a crash does, and starts it again"""
        if wanted not in (*SERVICE_STATES, "restart"):
            raise DeviceError(f"service {wanted!r} is not known; write one of {', '.join(SERVICE_STATES)}, restart")
        async with self._turn:
            if wanted in ("absent", "restart") and self.state != "absent":
                self.state = "absent"
                await asyncio.to_thread(self.daemon.stop, signal.SIGKILL if wanted == "restart" else signal.SIGTERM)
            if wanted != "absent":
                await self._have(wanted)

    async def _have(self, wanted: str) -> None:
        if self.state == "absent":
            # Not in a thread: PR_SET_PDEATHSIG acts when the thread that started the process ends.
            self.daemon = self._start()
            await asyncio.to_thread(self.daemon.wait_for_name)
            self.state = "up"
            self.watch(self.daemon.process)
        if wanted == "restart":
            return
        self.daemon.send(signal.SIGSTOP if wanted == "hanging" else signal.SIGCONT)
        self.state = wanted

    def is_wanted(self, process: subprocess.Popen) -> bool:
        """@return whether this process is the present daemon, and should run: its end then ends the lab"""
        return self.state != "absent" and process is self.daemon.process

    def stop(self) -> None:
        self.daemon.stop()
