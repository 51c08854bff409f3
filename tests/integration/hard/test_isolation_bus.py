"""What one caller does to its own connection costs the others nothing that they notice.

Each test asserts what a bystander meets, another app's confirm_purchase: it is answered by the store,
reaches it once, and takes no longer than its figure.
"""
import os
import pathlib
import re
import signal
import subprocess
import sys
import time

import pytest
from billing_lab import bus as message_bus
from gi.repository import Gio, GLib
from harness import daemon
from harness.deaf import DeafCaller
from harness.server import Reply

MIB = 1 << 20
# What a noisy machine with two processors adds.
NOISE = 10 if daemon.is_sanitized() else 1


HELD_BACK = "is held back"

STATS = ('    <allow send_destination="org.freedesktop.DBus" send_interface="org.freedesktop.DBus.Debug.Stats"'
         ' send_member="GetConnectionStats"/>\n')
NO_STATS = STATS.replace("allow", "deny")
PING = ('    <allow send_type="method_call" send_interface="org.freedesktop.DBus.Peer"'
        ' send_member="Ping"/>\n')


class Bystander:
    """Another app, whose purchase is confirmed beside all that."""

    def __init__(self, caller, store):
        self._caller, self._store = caller, store
        self.took = []

    def confirms(self, times=1, most=None, pause=0.0):
        """Confirms purchases. @param most  seconds that the slowest may take"""
        for _ in range(times):
            invoice = f"invoice-{time.monotonic_ns()}"
            began = time.monotonic()
            assert self._caller.call("confirm_purchase", "by", "c", invoice, "0", timeout=25) == (0, "{}")
            self.took.append(time.monotonic() - began)
            mine = [r for r in self._store.requests if invoice.encode() in r.body]
            assert len(mine) == 1
            time.sleep(pause)
        if most is not None:
            assert max(self.took) < most * NOISE, self.took

    @property
    def worst(self):
        return f"bystander at most {max(self.took) * 1000:.0f} ms"


@pytest.fixture
def bystander(service, callers, store):
    made = Bystander(callers(), store)
    made.confirms(3)
    made.took.clear()
    return made


@pytest.fixture
def deaf(bus):
    """A function that makes callers that read nothing."""
    made = []

    def make(count=1):
        made.extend(DeafCaller(bus.address) for _ in range(count))
        return made[-count:]

    yield make
    for caller in made:
        caller.close()


def product_list(size):
    """A store whose product lists have that size."""
    body = b"p" * size
    return lambda request: Reply(body) if "products" in request.line else Reply(b"{}")


def resident(pid, field="VmRSS"):
    """MiB."""
    status = pathlib.Path(f"/proc/{pid}/status").read_text(encoding="utf-8")
    return int(re.search(rf"{field}:\s*(\d+)", status)[1]) / 1024


def memory_is_below(service, most):
    """MiB at most so far, which a sanitizer's runtime has more of."""
    seen = resident(service.pid, "VmHWM")
    assert daemon.is_sanitized() or seen < most, f"{seen:.0f} MiB"
    return f"daemon at most {seen:.0f} MiB"


def ask_in_steps(callers, calls, store, step=2):
    """Each caller asks for so many product lists; no further step before the store has seen all of one."""
    asked = 0
    for done in range(0, calls, step):
        for _ in range(min(step, calls - done)):
            for caller in callers:
                caller.call("get_product_list", "a", "", "")
                asked += 1
        end = time.monotonic() + 60
        while sum("products" in r.line for r in store.requests) < asked and time.monotonic() < end:
            time.sleep(0.02)
    return asked


def test_three_callers_that_read_nothing_hold_nobody_up(service, bystander, deaf, store, bus, size, figure):
    store.answer = product_list(MIB)
    before = resident(service.pid)
    callers = deaf(3)
    asked = ask_in_steps(callers, size(47, 120), store)
    bystander.confirms(size(5, 50), most=0.5)
    daemon_memory = memory_is_below(service, 96)
    on_the_bus = resident(bus.process.pid)
    assert on_the_bus < 64
    service.wait_for_log(HELD_BACK)
    for caller in callers:
        caller.close()
    service.wait_for_log("has left")
    bystander.confirms(5, most=0.5)
    end = time.monotonic() + 10
    while resident(service.pid) > before + 32 and time.monotonic() < end:
        bystander.confirms(1)
        time.sleep(0.5)
    after = resident(service.pid)
    assert daemon.is_sanitized() or after <= before + 32
    figure(f"{asked} answers of 1 MiB unread: {bystander.worst}, {daemon_memory}, bus {on_the_bus:.0f} MiB; "
           f"daemon {before:.0f} MiB before, {after:.0f} after")


def test_a_hundred_and_twenty_callers_that_read_nothing(service, bystander, deaf, store, size, figure):
    store.answer = product_list(4 * MIB)
    callers = deaf(120)
    for _ in range(2):
        for number, caller in enumerate(callers):
            caller.call("get_product_list", "a", "", "")
            if number % 2 == 1:
                bystander.confirms(1)
    bystander.took.clear()
    bystander.confirms(size(20, 200), pause=0.02)
    figure(f"240 answers of 4 MiB to 120 callers: {bystander.worst}, {memory_is_below(service, 160)}")
    assert sorted(bystander.took)[len(bystander.took) // 2] < 0.1 * NOISE
    assert max(bystander.took) < 1 * NOISE
