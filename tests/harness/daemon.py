"""Runs the daemon in a file system view of its own, for the paths that are fixed in it."""
import contextlib
import os
import pathlib
import re
import select
import shlex
import signal
import socket
import subprocess
import sys
import time

import pytest
from billing_lab.device.view import bubblewrap, start

from .inside import MISSING

TREE = pathlib.Path(__file__).resolve().parents[2]
DEFAULT_BINARY = TREE / "build" / "service" / "billing-service"

# Options of the sanitizers' runtimes, for a daemon that was built with one. Most libraries have no frame pointers, so the
# stack of an allocation is unwound slowly; its 16 innermost frames are enough for each suppression. That and the search for
# leaks are two thirds of a test's processor time: BILLING_LEAKS=no in the environment leaves them out.
KNOWN = TREE / "tests" / "sanitizers"
LEAKS = "fast_unwind_on_malloc=0:malloc_context_size=16"
SANITIZERS = {
    "ASAN_OPTIONS": "detect_leaks=0" if os.environ.get("BILLING_LEAKS") == "no" else LEAKS,
    "LSAN_OPTIONS": f"suppressions={KNOWN / 'lsan-daemon.supp'}:print_suppressions=0",
    "UBSAN_OPTIONS": "halt_on_error=1:print_stacktrace=1",
    "TSAN_OPTIONS": f"suppressions={KNOWN / 'tsan.supp'}:ignore_noninstrumented_modules=1:report_signal_unsafe=0",
}


def binary():
    """Path of the daemon to test: $BILLING_SERVICE, else the one of the build folder."""
    return pathlib.Path(os.environ.get("BILLING_SERVICE", DEFAULT_BINARY)).resolve()


# Seconds. Under valgrind, on a busy machine, a start takes 20.
PATIENCE = 60

# A command line in front of the daemon's, for instance valgrind.
UNDER = shlex.split(os.environ.get("BILLING_UNDER", ""))


def is_sanitized():
    """True if the daemon has a sanitizer or runs under a similar tool: it is slower and larger then."""
    return bool(UNDER) or b"__sanitizer" in binary().read_bytes()


@contextlib.contextmanager
def term_blocked():
    """Blocks SIGTERM in processes that are started meanwhile, so that a signal before the first line of
    their main is not lost."""
    before = signal.pthread_sigmask(signal.SIG_BLOCK, {signal.SIGTERM})
    try:
        yield
    finally:
        signal.pthread_sigmask(signal.SIG_SETMASK, before)


class Record:
    """One line of the log."""

    FORM = re.compile(r"([DIWE])/([A-Z_]+): (?:([A-Za-z]+\.(?:cpp|h)): (~?\w+)\((\d+)\) > )?(.*)")

    def __init__(self, line):
        match = self.FORM.fullmatch(line)
        self.whole = match is not None
        self.priority, self.tag, self.file, self.function, self.number, self.text = (
            match.groups() if match else (None,) * 5 + (line,)
        )

    def __repr__(self):
        return f"{self.priority}/{self.tag} {self.function}: {self.text}"


class Daemon:
    """One daemon process. Its log goes to a file. In its view `files` replace those of the machine."""

    def __init__(
        self, folder, bus_address, device, *, view=True, namespace=None, level="debug", environment=None, files=None, tool=None
    ):
        """@param tool  command in front of the daemon's, instead of $BILLING_UNDER"""
        self.log_file = pathlib.Path(folder) / f"daemon-{time.monotonic_ns()}.log"
        runtime = pathlib.Path(folder) / "run"
        runtime.mkdir(exist_ok=True)
        self._environment = {
            "PATH": "/usr/bin:/bin",
            "DBUS_SYSTEM_BUS_ADDRESS": bus_address,
            "PLEVO_DEVICE_CONF": str(device.file),
            "PLEVO_LOG_LEVEL": level,
            "XDG_RUNTIME_DIR": str(runtime),
            "G_DEBUG": "fatal-criticals",
            **device.credentials.environment,
            **SANITIZERS,
            **(environment or {}),
        }
        self.pid = 0
        with open(self.log_file, "wb") as log, term_blocked():
            self._start([*(UNDER if tool is None else tool), str(binary())], device, view, namespace, log, files or {})

    def _start(self, command, device, view, namespace, log, files):
        handed_on = ()
        if namespace is not None:
            command = [*namespace.command, *command]
            handed_on = (namespace.descriptor,)
        if not view:
            self._process = subprocess.Popen(
                command,
                env=self._environment,
                stdout=log,
                stderr=log,
                stdin=subprocess.DEVNULL,
                pass_fds=handed_on,
                start_new_session=True,
            )
            self.pid = self._process.pid
            return
        prefix = bubblewrap(device.certificates, device.credentials.certificates)
        for path, instead in files.items():
            prefix += ["--ro-bind", str(instead), os.path.realpath(path)]
        if namespace is not None:
            prefix += ["--unshare-net", "--cap-add", "CAP_NET_ADMIN"]
        self._process, self.pid = start(
            prefix, command, handed_on=handed_on, env=self._environment, stdin=subprocess.DEVNULL, stdout=log, stderr=log
        )

    def wait_for_name(self, caller, timeout=PATIENCE):
        """Waits until the daemon owns its bus name."""
        self.wait_until(lambda: caller.owner() is not None, "it owns its name", timeout)

    def wait_until(self, condition, what, timeout=PATIENCE):
        """Polls until the condition holds or the daemon has ended."""
        end = time.monotonic() + timeout
        while not condition():
            if not self.is_running():
                raise AssertionError(f"the daemon ended with {self._process.returncode} before {what}")
            if time.monotonic() > end:
                raise AssertionError(f"the daemon runs, but not so that {what}")
            time.sleep(0.005)

    def wait_for_log(self, text, timeout=PATIENCE):
        self.wait_until(lambda: any(text in record.text for record in self.log()), f"it logs {text!r}", timeout)

    def is_running(self):
        return self._process.poll() is None

    def send(self, number):
        os.kill(self.pid, number)

    def wait(self, timeout):
        """@return the exit status; the negative number of a signal"""
        status = self._process.wait(timeout)
        # bubblewrap reports a signal as 128 and its number, as a shell does.
        return 128 - status if status > 128 and self.pid != self._process.pid else status

    def stop(self, timeout=30):
        """Sends SIGTERM.

        @return the exit status
        """
        if self.is_running():
            self.send(signal.SIGTERM)
        return self.wait(timeout)

    def kill(self):
        """Kills what still runs."""
        if self.is_running():
            with contextlib.suppress(ProcessLookupError):
                self.send(signal.SIGKILL)
            self._process.kill()
        self._process.wait()

    def log_text(self):
        return self.log_file.read_text(encoding="utf-8", errors="backslashreplace")

    def log(self):
        """The complete lines of the log so far, as records."""
        lines = self.log_text().split("\n")
        return [Record(line) for line in lines[:-1]]

    def texts(self, priority=None):
        return [record.text for record in self.log() if priority in (None, record.priority)]

    def failures(self):
        """The log's records about failed transfers."""
        return [text for text in self.texts("E") if text.startswith("MZCurl multiResult")]

    def status_field(self, name):
        """A number of /proc/<pid>/status, in the unit of that file."""
        return int(re.search(rf"^{name}:\s*(\w+)", self._proc("status"), re.MULTILINE)[1])

    def switches(self):
        """Context switches of each of its threads so far."""
        found = {}
        for task in pathlib.Path(f"/proc/{self.pid}/task").iterdir():
            text = (task / "status").read_text()
            found[task.name] = sum(int(n) for n in re.findall(r"ctxt_switches:\s*(\d+)", text))
        return found

    def switches_since(self, before):
        """Number of context switches since then. A thread that has ended meanwhile counts as one."""
        now = self.switches()
        ended = sum(thread not in now for thread in before)
        return sum(count - before.get(thread, 0) for thread, count in now.items()) + ended

    def threads(self):
        """A line for each of its threads: name, state, and the kernel's function and the system call that it waits in."""
        lines = []
        for task in sorted(pathlib.Path(f"/proc/{self.pid}/task").glob("*")):
            with contextlib.suppress(OSError):
                name, state, waits, call = ((task / file).read_text() for file in ("comm", "stat", "wchan", "syscall"))
                lines.append(f"{name.strip()} {state.rpartition(')')[2].split()[0]} {waits} {call.strip()}")
        return lines

    def descriptors(self):
        """Number of open descriptors. Needs root."""
        return len(os.listdir(f"/proc/{self.pid}/fd"))

    def count(self, symbol):
        """Present value of a 32-bit variable of the program. Needs root."""
        table = subprocess.run(["nm", str(binary())], check=True, capture_output=True, text=True).stdout
        address = int(re.search(rf"^(\w+) [bBdD] {symbol}$", table, re.MULTILINE)[1], 16)
        # The first mapping is the program's; symbol addresses are relative to it.
        start = int(self._proc("maps").split("-")[0], 16)
        with open(f"/proc/{self.pid}/mem", "rb") as memory:
            memory.seek(start + address)
            return int.from_bytes(memory.read(4), sys.byteorder)

    def _proc(self, name):
        return pathlib.Path(f"/proc/{self.pid}/{name}").read_text(encoding="utf-8")


# What ip, tc and nft say on a machine whose kernel or whose rights do not allow what they were asked for.
NOT_ALLOWED = ("Operation not permitted", "Permission denied", "not supported", "Unknown device type", "qdisc kind is unknown")


class Namespace:
    """A network namespace of the daemon, with two listening sockets and an agent that changes it.

    It has the loopback interface only, and no route.
    """

    def __init__(self):
        ours, theirs = socket.socketpair(socket.AF_UNIX, socket.SOCK_SEQPACKET)
        self._ours, self._theirs = ours, theirs
        self.descriptor = theirs.fileno()
        self.command = [sys.executable, str(pathlib.Path(__file__).with_name("inside.py")), str(self.descriptor)]

    def listeners(self, timeout=PATIENCE):
        """The two listening sockets of the namespace. Call it once, after the daemon was started."""
        self._theirs.close()
        if not select.select([self._ours], [], [], timeout)[0]:
            raise AssertionError("the namespace gave no sockets")
        _, descriptors, _, _ = socket.recv_fds(self._ours, 16, 2)
        return [socket.socket(fileno=descriptor) for descriptor in descriptors]

    def run(self, command):
        """Runs a command line in the namespace, split at its blanks.

        @return its exit status
        """
        return self._ask(command)[0]

    def arrange(self, command):
        """Runs a command line that has to succeed. A machine that does not allow it skips the test."""
        status, said = self._ask(command)
        if status == MISSING or any(text in said for text in NOT_ALLOWED):
            pytest.skip(f"`{command}` ends with {status} here: {said}")
        assert status == 0, f"`{command}` ends with {status}: {said}"

    def _ask(self, command):
        self._ours.sendall(command.encode())
        status, _, said = self._ours.recv(4096).decode(errors="replace").partition(" ")
        return int(status), said.strip()

    def close(self):
        self._ours.close()
