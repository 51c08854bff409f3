"""The services that are measured by turns: the daemon, both floors in one, and the peers: what somebody would write instead.

A peer has the daemon's interface, device, certificate and token. It does without the daemon's settings and limits: its
environment names everything.
"""
import contextlib
import pathlib
import re
import signal
import subprocess
import time

from harness.device import device

from billing_lab.device import bus

from . import stage

DAEMON = "daemon"
BOTH = "both floors in one"
WORKER = "both floors and a worker"
PEERS = dict(zip(("sdbus-c++ with 8 workers", "GDBus with libsoup"), stage.PEERS))

STOP_SECONDS = 60  # what has not ended by then is killed


def processor_seconds(pid):
    """@return the processor time of a process so far, threads that have ended included"""
    # The kernel's name of another process's processor clock.
    return time.clock_gettime(~pid << 3 | 2)


def memory(pid):
    """@return {kind: KiB}: resident, and for who may know it private, and of that written"""
    found = {"resident": status(pid, "VmRSS")}
    with contextlib.suppress(PermissionError):
        text = pathlib.Path(f"/proc/{pid}/smaps_rollup").read_text(encoding="utf-8")
        private = {kind: int(size) for kind, size in re.findall(r"^Private_(\w+):\s*(\d+)", text, re.MULTILINE)}
        found |= {"private": sum(private.values()), "written": private["Dirty"]}
    return found


def status(pid, field):
    """@return a number of /proc/<pid>/status, in the unit that stands there"""
    text = pathlib.Path(f"/proc/{pid}/status").read_text(encoding="utf-8")
    return int(re.search(rf"^{field}:\s*(\d+)", text, re.MULTILINE)[1])


class Daemon:
    """The daemon of a stage."""

    label, bus_name = DAEMON, bus.SERVICE

    def __init__(self, on):
        self._on = on

    @property
    def pid(self):
        return self._on.daemon.pid

    def start(self, tool=(), view=True):
        """@return the seconds from exec to the name"""
        return self._on.start_daemon(view=view, tool=tool)

    def stop(self):
        """@return the seconds from SIGTERM to the end"""
        return self._on.stop_daemon()

    def is_running(self):
        return self._on.daemon is not None and self._on.daemon.is_running()


class Program:
    """Another service on the stage's bus."""

    def __init__(self, on, label, bus_name, command, environment):
        """@param command, environment  functions without arguments: the server may change between two starts"""
        self.label, self.bus_name = label, bus_name
        self._on, self._command, self._environment, self._process = on, command, environment, None

    @property
    def pid(self):
        return self._process.pid

    def start(self, tool=(), view=True):
        """`view` is the daemon's: this one sees the machine's files. @return the seconds from exec to the name"""
        began = time.monotonic()
        with open(self._on.folder / "services.log", "ab") as log:
            self._process = subprocess.Popen([*tool, *self._command()], env=self._environment(), stderr=log)
        self._on.processes.append(self._process)
        try:
            return self._on.arrivals.wait(self.bus_name, self.is_running) - began
        except TimeoutError as error:
            raise RuntimeError(f"{error}. Is all of scripts/setup bench here? {self.log_text()}") from error

    def stop(self):
        """@return the seconds from SIGTERM to the end"""
        began = time.monotonic()
        self._process.send_signal(signal.SIGTERM)
        try:
            self._process.wait(STOP_SECONDS)
        except subprocess.TimeoutExpired:
            self._process.kill()
            self._process.wait()
        return time.monotonic() - began

    def is_running(self):
        return self._process.poll() is None

    def log_text(self):
        """@return what it and the others have complained of"""
        return (self._on.folder / "services.log").read_text(encoding="utf-8", errors="replace")


def both(on):
    """Both floors in one: small answers from the server in use, a key in a file."""
    return Program(on, BOTH, stage.BOTH, lambda: on.floor_command("both_floor", stage.BOTH), lambda: on.environment)


def both_and_worker(on):
    """The same with the daemon's threads: the main thread has the calls, a worker the transfers."""
    return Program(on, WORKER, stage.WORKER, lambda: on.floor_command("worker_floor", stage.WORKER), lambda: on.environment)


def peer_environment(on, bus_name):
    """What a peer is told of device, store and token."""
    return {
        **on.token_environment(),
        "BILLING_NAME": bus_name,
        "BILLING_HOST": on.host,
        "BILLING_CA": str(on.device.ca_file),
        "BILLING_CERT": str(on.device.credentials.certificate),
        "BILLING_KEY": on.key_uri(),
        "BILLING_DUID": device.DUID,
        "BILLING_TOKEN": device.TOKEN,
        "BILLING_GUID": device.GUID,
        "BILLING_UID": device.UID,
        "BILLING_COUNTRY": "DE",
        "BILLING_LANGUAGE": "de",
    }


def peers(on):
    """@return those that are there"""
    found = []
    for label, program in PEERS.items():
        if stage.is_there(program):
            file, name = stage.programs() / program, stage.peer_name(program)
            found.append(Program(on, label, name, lambda file=file: [file], lambda name=name: peer_environment(on, name)))
    return found


def ours_and_peers(on):
    """@return the daemon and the peers: what an app could call"""
    return [Daemon(on), *peers(on)]


def everyone(on):
    """@return those, and both floors in one"""
    return [both(on), *ours_and_peers(on)]
