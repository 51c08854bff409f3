"""A system call fails during a call: the caller is answered, or the process ends and its manager starts it again. Each
kind fails in its first two uses by each thread, and in more uses in the long form.
"""
import collections
import signal
import subprocess
import time

import pytest
from gi.repository import GLib
from harness.methods import NO_NETWORK, TRY_LATER
from harness.store.server import Reply

CALL = ("confirm_purchase", "app-1", "custom-1", "invoice-1", "1")
GOOD = (0, "{}")
ANSWERS = (GOOD, (-1, ""), (-1, "{}"), NO_NETWORK, TRY_LATER)
# Errors of each system call that descriptors, network, memory or a signal can cause; writing to the process's own pipe
# or event counter has no other errors. "?" is for machines whose kernel lacks the call.
FAILURES = {
    "openat": "EMFILE EIO",
    "read": "EIO EINTR",
    "close": "EIO EINTR",
    "?newfstatat,?fstatat64,?fstat,?fstat64,?statx": "EIO ENOMEM",
    "write": "EINTR",
    "?poll": "EINTR ENOMEM",
    "ppoll": "EINTR ENOMEM",
    "recvfrom": "ECONNRESET EINTR",
    "recvmsg": "ECONNRESET EINTR",
    "sendto": "EPIPE ENOBUFS",
    "sendmsg": "EPIPE ENOBUFS",
    "socket": "EMFILE ENFILE",
    "connect": "ENETUNREACH EADDRNOTAVAIL",
    "setsockopt": "ENOBUFS ENOMEM",
    "getsockopt": "ENOBUFS ENOMEM",
    "getsockname": "ENOBUFS ENOMEM",
    "getpeername": "ENOTCONN ENOBUFS",
    "?fcntl,?fcntl64": "EBADF EINTR",
    "?epoll_wait,epoll_pwait": "EINTR ENOMEM",
    "mprotect": "ENOMEM EACCES",
    "futex": "EINTR EAGAIN",
}
# Only the first call of a daemon makes these.
FIRST = ("mprotect",)
# Seconds from a call to the time-out of its transfer.
LONGEST_SECONDS = 120
# Texts with which a library ends the process.
SAID = ("GLib-ERROR", "GLib-GIO-ERROR", "failed to allocate")


class Tracer:
    """strace, attached to a running process to inject one failure."""

    def __init__(self, process, calls, error, when, file):
        self._file = file
        self._strace = subprocess.Popen(
            [
                "strace",
                "-f",
                "-p",
                str(process.pid),
                "-o",
                str(file),
                f"--trace={calls}",
                f"--inject={calls}:error={error}:when={when}",
            ],
            stderr=subprocess.PIPE,
            text=True,
            start_new_session=True,
        )
        self.why_not = None
        line = self._strace.stderr.readline()
        if "attached" not in line:
            self.why_not = line.strip()
            self.leave()

    def leave(self):
        if self._strace.poll() is None:
            self._strace.send_signal(signal.SIGINT)
        try:
            self._strace.communicate(timeout=3)
        except subprocess.TimeoutExpired:
            # strace may wait for ever for the last thread of a process that has just ended.
            self._strace.kill()
            self._strace.communicate()

    def has_struck(self):
        return "(INJECTED)" in self._file.read_text(encoding="utf-8", errors="replace")


@pytest.fixture
def tracer(tmp_path):
    """A function that attaches a tracer; all tracers are detached at the end of the test."""
    made = []

    def make(*arguments):
        made.append(Tracer(*arguments, tmp_path / "trace"))
        if made[-1].why_not is not None:
            pytest.skip(f"strace may not look at the daemon here: {made[-1].why_not}")
        return made[-1]

    yield make
    for one in made:
        one.leave()


def wait(call, seconds):
    end = time.monotonic() + seconds
    while not call.done and time.monotonic() < end:
        GLib.MainContext.default().iteration(False)
        time.sleep(0.0005)


def is_good(caller):
    """Checks that the service answers. The first of two calls may use a broken connection, and is not sent twice."""
    calls = [caller.start(*CALL, timeout=20)]
    caller.finish(calls)
    if calls[0].result != GOOD:
        calls = [caller.start(*CALL, timeout=20)]
        caller.finish(calls)
    return calls[0].result == GOOD


def ending(service):
    """Describes an end of the process that is a fault; None for an allowed one."""
    status = service.wait(30)
    if status == 0 or (status in (-signal.SIGABRT, -signal.SIGTRAP) and any(text in service.log_text() for text in SAID)):
        return None
    return f"it ended with {status}: {service.log_text()[-300:]!r}"


def outcome(service, caller, call):
    """@return outcome of the call, and whether it is a fault"""
    wait(call, 5)
    if not call.done:
        return "waiting", not is_good(caller)
    if call.result is not None:
        if call.result not in ANSWERS:
            return f"{call.result}", True
        if caller.owner() is not None:
            return "answered", not is_good(caller)
    elif caller.owner() is not None:
        return f"{call.error.message}", True
    fault = ending(service)
    return fault or "ended", fault is not None


@pytest.mark.parametrize("calls", FAILURES, ids=lambda calls: calls.strip("?").split(",")[0])
def test_a_system_call_that_fails_costs_at_most_its_own_call(
    needs_view, start_daemon, caller, store, tracer, calls, size, figure
):
    store.answer = Reply(b"{}", keep=False)
    counts, faults, service = collections.Counter(), [], None
    cases = [(error, when) for error in FAILURES[calls].split()[: size(1, 2)] for when in range(1, size(2, 12) + 1)]
    # Whether a call waits for a lock is chance: one that was not reached is tried again.
    for number, (error, when) in enumerate(cases + cases[:1] * 30):
        if number >= len(cases) and set(counts) != {"not reached"}:
            break
        if calls in FIRST and service is not None and service.is_running():
            assert service.stop() == 0
        if service is None or not service.is_running():
            service = start_daemon(level="error")
            service.wait_for_name(caller)
            assert calls in FIRST or caller.call(*CALL) == GOOD
        strace = tracer(service, calls, error, when)
        call = caller.start(*CALL, timeout=LONGEST_SECONDS)
        wait(call, 5)
        strace.leave()
        what, is_fault = outcome(service, caller, call)
        counts[what if strace.has_struck() else "not reached"] += 1
        if is_fault:
            faults.append(f"{error}, {when}.: {what}")
    figure(", ".join(f"{number} {what}" for what, number in counts.most_common()))
    assert faults == []
    # A kind of call that is never made would leave its failures untested.
    assert set(counts) != {"not reached"}
