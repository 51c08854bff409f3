"""SIGTERM stops the daemon cleanly at any moment; SIGINT ends it by its default action."""
import os
import random
import signal
import socket
import subprocess
import threading
import time

import pytest
from harness import daemon, shutdown
from harness.methods import EVERY_CALL
from harness.store.server import Hang, Reply

# Number of rounds of all kinds together. The runtime of a sanitizer makes starts and ends many times slower.
ROUNDS = int(os.environ.get("BILLING_SIGNAL_ROUNDS", "60" if daemon.is_sanitized() else "200"))
# A sanitizer or valgrind looks for leaks at the end, with three other tests beside it.
LIMIT = 30 if daemon.is_sanitized() else 2


def pause(seconds):
    time.sleep(random.uniform(0, seconds))


class Scene:
    """One round: starts a daemon, brings it to a certain point, and sends the signals there."""

    def __init__(self, start_daemon, caller, store):
        self.caller, self.store = caller, store
        self.process = start_daemon()
        self.calls = []

    def call(self, count):
        methods = list(EVERY_CALL.items())
        for i in range(count):
            method, arguments = methods[i % len(methods)]
            self.calls.append(self.caller.start(method, *arguments))

    def starting(self):
        pause(0.06)
        self.process.send(signal.SIGTERM)
        return 1

    def idle(self):
        self.process.wait_for_name(self.caller)
        pause(0.02)
        self.process.send(signal.SIGTERM)
        return 1

    def hanging(self):
        self.store.answer = Hang()
        self.process.wait_for_name(self.caller)
        self.call(50)
        pause(0.1)
        self.process.send(signal.SIGTERM)
        return 1

    def handshaking(self):
        # Each call needs a connection of its own, and the first one a signature of the key store.
        self.store.answer = Reply(b"{}", keep=False)
        self.process.wait_for_name(self.caller)
        self.call(50)
        pause(0.02)
        self.process.send(signal.SIGTERM)
        return 1

    def answering(self):
        self.store.answer = lambda request: Reply(b"x" * random.randrange(20000))
        self.process.wait_for_name(self.caller)
        self.call(50)
        pause(0.1)
        self.process.send(signal.SIGTERM)
        return 1

    def twice(self):
        random.choice([self.starting, self.idle, self.hanging])()
        pause(0.004)
        try:
            self.process.send(signal.SIGTERM)
        except ProcessLookupError:
            return 1
        return 2

    def end(self, signals):
        """@return description of a fault at the end, None for a clean end"""
        began = time.monotonic()
        try:
            status = self.process.wait(30)
        except subprocess.TimeoutExpired:
            return "it hangs"
        took = time.monotonic() - began
        self.caller.finish(self.calls)
        if status != 0:
            return f"it ended with {status}"
        if took > LIMIT:
            return f"it took {took:.1f} s"
        return shutdown.fault(self.process, signals)


@pytest.mark.parametrize(
    "kind, share",
    [("starting", 0.3), ("idle", 0.1), ("hanging", 0.15), ("handshaking", 0.15), ("answering", 0.2), ("twice", 0.1)],
)
def test_sigterm_stops_it_cleanly(needs_view, start_daemon, caller, store, kind, share, request):
    seed = random.randrange(1 << 30)
    random.seed(seed)
    rounds = max(1, round(ROUNDS * share))
    for number in range(rounds):
        scene = Scene(start_daemon, caller, store)
        fault = scene.end(getattr(scene, kind)())
        if fault is not None:
            # A failure shows the log of this daemon only.
            request.node.daemons = [scene.process]
        assert fault is None, f"round {number} of {rounds}, seed {seed}: {fault}"
    print(f"{rounds} clean ends of {rounds}")


def test_sigterm_while_the_server_says_nothing_in_the_handshake(service, caller, a_device):
    with socket.create_server(("127.0.0.1", 0)) as mute:
        a_device.set("deployment", "production_host", f"localhost:{mute.getsockname()[1]}")
        calls = [caller.start("check_server_availability") for _ in range(10)]
        connection, _ = mute.accept()
        # The ClientHello has arrived, so the client waits for the server's answer.
        assert connection.recv(1) == b"\x16"

        began = time.monotonic()
        service.send(signal.SIGTERM)

        assert service.wait(30) == 0
        assert time.monotonic() - began < LIMIT
        assert shutdown.fault(service, 1) is None
        connection.close()
    caller.finish(calls)


def test_callers_of_a_daemon_that_stops_are_told_so_by_the_bus(service, caller, store):
    store.answer = Hang()
    calls = [caller.start("check_server_availability") for _ in range(10)]
    store.wait_for_requests(10)

    assert service.stop() == 0

    caller.finish(calls)
    assert all("NoReply" in call.error.message for call in calls)


@pytest.mark.parametrize("busy", [False, True])
def test_sigint_ends_it_by_the_default_action(needs_view, start_daemon, caller, store, busy):
    store.answer = Hang()
    process = start_daemon()
    process.wait_for_name(caller)
    calls = [caller.start("check_server_availability")] if busy else []
    store.wait_for_requests(len(calls))

    process.send(signal.SIGINT)

    assert process.wait(30) == -signal.SIGINT
    assert process.texts("W") == []
    assert shutdown.LAST not in process.texts()
    caller.finish(calls)


def test_sigint_during_start_up_ends_it_too(start_daemon):
    for _ in range(10):
        process = start_daemon(view=False)
        pause(0.03)
        process.send(signal.SIGINT)
        assert process.wait(30) == -signal.SIGINT


def test_a_result_that_comes_while_it_stops_harms_nothing(service, caller, store):
    gate = threading.Event()
    store.answer = Reply(b"late", gate=gate)
    calls = [caller.start("confirm_purchase", "a", "c", "i", "0") for _ in range(50)]
    store.wait_for_requests(50)

    gate.set()
    service.send(signal.SIGTERM)

    assert service.wait(30) == 0
    assert shutdown.fault(service, 1) is None
    caller.finish(calls)
