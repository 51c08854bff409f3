"""Each allocation of a call fails in its turn.

Allowed results are a described answer, the end of the process by a library that aborts when memory is short (GLib,
and SoftHSM as a token), and no answer where the service gives none by design. A TLS library without a buffer may
leave its transfer waiting; that call is answered when the transfer times out. The next calls succeed as before, with
one exception: libcrypto does not repeat a failed set-up of its first use.
"""
import collections
import mmap
import pathlib
import signal
import struct
import time

import pytest
from gi.repository import GLib
from harness import daemon
from harness.methods import NO_NETWORK, TRY_LATER
from harness.store.server import Reply

CALL = ("confirm_purchase", "app-1", "custom-1", "invoice-1", "1")
GOOD = (0, "{}")
# Answers that a service without memory may give; every other one is a fault.
ANSWERS = (GOOD, (-1, ""), (-1, "{}"), NO_NETWORK, TRY_LATER)
NO_MEMORY = "org.freedesktop.DBus.Error.NoMemory"
# Exit status with which SoftHSM ends the process.
SOFTHSM_STATUS = 5
# Texts with which libraries and the C++ runtime end the process when memory is short.
ENDS = ("failed to allocate", "std::bad_alloc")
SOON, TRANSFER_SECONDS = 3, 90


class Refusals:
    """Controls the failing allocator of one daemon from outside."""

    SIZE, ALL = 128, (1 << 64) - 1

    def __init__(self, folder):
        self._file = folder / "refusals"
        self._file.write_bytes(bytes(self.SIZE))
        with open(self._file, "r+b") as file:
            self._page = mmap.mmap(file.fileno(), self.SIZE)
        self.environment = {
            "LD_PRELOAD": str(daemon.binary().parents[1] / "tests" / "support" / "failing-memory.so"),
            "FAILING_MEMORY": str(self._file),
        }

    def refuse(self, number):
        """Makes the allocation of this number fail, counted from now."""
        self._page[8:] = bytes(self.SIZE - 8)
        self._page[:8] = struct.pack("Q", number)

    def stop(self):
        """@return number of allocations since then"""
        self._page[:8] = bytes(8)
        return struct.unpack("Q", self._page[8:16])[0]

    @property
    def culprit(self):
        """The program or library whose allocation failed, and the place in it."""
        (place,) = struct.unpack("Q", self._page[16:24])
        library = self._page[24:].split(b"\0")[0].decode()
        return f"{pathlib.Path(library).name}+{place:#x}"


class Torture:
    """Calls of one kind, each with a different allocation refused."""

    def __init__(self, start, caller, refusals, *, fresh):
        self._start, self._caller, self._refusals, self._fresh = start, caller, refusals, fresh
        self._service = None
        self._waiting = []
        self.outcomes = collections.Counter()
        self.faults = []

    def serve(self):
        """A daemon after one successful call, or a fresh one where its first call is tested."""
        if self._service is not None and self._service.is_running():
            if not self._fresh:
                return
            assert self._service.stop() == 0
        self._service = self._start(environment=self._refusals.environment, level="error")
        self._service.wait_for_name(self._caller)
        if not self._fresh:
            assert self._caller.call(*CALL) == GOOD

    def count(self):
        """Number of allocations of one call."""
        self.serve()
        self._refusals.refuse(Refusals.ALL)
        assert self._caller.call(*CALL) == GOOD
        return self._refusals.stop()

    def refuse(self, number):
        self.serve()
        self._refusals.refuse(number)
        call = self._caller.start(*CALL, timeout=TRANSFER_SECONDS + 30)
        self._wait(call)
        if self._refusals.stop() < number:
            self.outcomes["not reached"] += 1
            return
        outcome = self.outcome(call)
        self.outcomes[outcome or "fault"] += 1
        if outcome is None:
            self.faults.append(f"{number}: {self._refusals.culprit}: {call.result or call.error}; {self.ending() or 'it runs'}")

    def outcome(self, call):
        """The outcome of a call; None for a fault."""
        if not call.done:
            self._waiting.append((call, self._service, self._refusals.culprit))
            return "waiting" if self.is_good_again() else None
        if call.result is not None:
            if call.result not in ANSWERS:
                return None
            return "answered" if self.is_good_again() else self.allowed_ending() or self.lasting()
        if NO_MEMORY in call.error.message:
            return "NoMemory" if self.is_good_again() else None
        # The bus says the second of a service that ends before it gets the call.
        if any(error in call.error.message for error in ("NoReply", "ServiceUnknown")):
            return self.allowed_ending()
        return None

    def lasting(self):
        """libcrypto remembers for the life of the process that an algorithm is missing."""
        at_fault = self._fresh and "libcrypto" in self._refusals.culprit and self._service.is_running()
        return "answered, and libcrypto stays without an algorithm" if at_fault else None

    def allowed_ending(self):
        ending = self.ending()
        return None if ending is None or "fault" in ending else ending

    def is_good_again(self):
        """Checks that the service works after the call. The first of two calls may use a broken connection, and is not
        sent twice.
        """
        for _ in range(2):
            call = self._caller.start(*CALL, timeout=20)
            self._caller.finish([call])
            if call.result == GOOD:
                return True
        return False

    def settle(self):
        """Waits for the calls without an answer, whose transfers time out. There is no answer where the service itself
        had no memory for it.
        """
        self._caller.finish([call for call, _, _ in self._waiting])
        for call, service, culprit in self._waiting:
            if call.result == (-1, ""):
                self.outcomes["answered late"] += 1
            elif not service.is_running():
                self.outcomes["ended before its time was over"] += 1
            elif culprit.startswith("libstdc++"):
                self.outcomes["unanswered"] += 1
            else:
                self.faults.append(f"{culprit}: {call.result or call.error} in the end")

    @staticmethod
    def _wait(call):
        end = time.monotonic() + SOON
        while not call.done and time.monotonic() < end:
            GLib.MainContext.default().iteration(False)
            time.sleep(0.0005)

    def ending(self):
        """The way in which the process has ended; None while it runs."""
        if self._service.is_running() and not self._is_gone():
            return None
        status = self._service.wait(30)
        said = self._service.log_text()
        if status == 0:
            return "ended by itself"
        if status in (-signal.SIGABRT, -signal.SIGTRAP) and any(text in said for text in ENDS):
            return "out-of-memory abort"
        if status == SOFTHSM_STATUS:
            return "SoftHSM's exit"
        if status == -signal.SIGSEGV and "libcrypto" in self._refusals.culprit:
            return "crash in libcrypto's set-up"
        return f"fault: it ended with {status}, {said[-300:]!r}"

    def _is_gone(self):
        return self._caller.owner() is None


# Step between the refused allocations, in the short form and in the long one.
KINDS = {"a kept connection": (3, 1), "a new connection": (9, 1), "the first call": (60, 8)}


@pytest.mark.parametrize("kind", KINDS)
def test_a_call_without_memory_is_answered_or_ends_the_daemon(
    needs_view, start_daemon, caller, store, tmp_path, kind, size, figure
):
    store.answer = Reply(b"{}", keep=kind != "a new connection")
    refusals = Refusals(tmp_path)
    torture = Torture(start_daemon, caller, refusals, fresh=kind == "the first call")
    count = torture.count()
    step = size(*KINDS[kind])

    for number in range(1, count + 1, step):
        torture.refuse(number)
    if size(False, True):
        torture.settle()

    outcomes = ", ".join(f"{number} {what}" for what, number in torture.outcomes.most_common())
    figure(f"{kind}: {count} allocations, every {step}. refused: {outcomes}")
    assert torture.faults == [], "\n".join(torture.faults)
    assert torture.outcomes["answered"] > 0
