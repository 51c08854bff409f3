"""Changes in the daemon's environment while it works."""
import os
import pathlib
import random
import signal
import subprocess
import threading
import time

import pytest
from billing_lab.device import bus as message_bus
from gi.repository import Gio, GLib
from harness import daemon
from harness.device import certificates
from harness.methods import EVERY_CALL, LIMITS_EXCEEDED, NO_NETWORK, TRY_LATER

SERVICE, OBJECT = message_bus.SERVICE, message_bus.OBJECT
END_SECONDS = 20 if daemon.is_sanitized() else 5


def test_the_end_of_the_bus_ends_the_daemon_cleanly(needs_view, tmp_path, a_device, size, figure, request):
    rounds, longest = size(10, 100), 0.0
    request.node.daemons = []
    for number in range(rounds):
        folder = tmp_path / str(number)
        folder.mkdir()
        bus = message_bus.Bus(folder)
        process = daemon.Daemon(folder, bus.address, a_device)
        request.node.daemons = [process]
        caller = message_bus.Caller(bus.address)
        # The end of the bus must not end the test's own process.
        caller.connection.set_exit_on_close(False)
        process.wait_for_name(caller)
        calls = [caller.start("check_server_availability") for _ in range(number % 5)]
        began = time.monotonic()
        bus.kill()
        assert process.wait(30) == 0
        longest = max(longest, time.monotonic() - began)
        caller.finish(calls)
    figure(f"{rounds} buses killed: every daemon ended with 0, after {longest * 1000:.0f} ms at most")
    assert longest < END_SECONDS


def test_settings_that_change_under_calls_give_only_described_answers(service, caller, store, a_device, size, figure):
    end, stop = time.monotonic() + size(4, 60), threading.Event()
    whole = a_device.file.read_bytes()

    def disturb():
        draw = random.Random(7)
        while not stop.is_set():
            kind = draw.randrange(4)
            if kind == 0:
                a_device.file.unlink(missing_ok=True)
            elif kind == 1:
                a_device.write_file(whole[: draw.randrange(len(whole))])
            elif kind == 2:
                with open(a_device.file, "wb") as file:
                    file.write(whole)
            else:
                a_device.write_file(whole)
            time.sleep(0.002)

    thread = threading.Thread(target=disturb)
    thread.start()
    seen = {}
    try:
        while time.monotonic() < end:
            for method, arguments in EVERY_CALL.items():
                result = caller.call(method, *arguments)
                assert result in ((0, "{}"), NO_NETWORK, TRY_LATER, (-1, "")), result
                seen[result] = seen.get(result, 0) + 1
    finally:
        stop.set()
        thread.join()
    # The settings reached the calls, and each answer of the store has its own request.
    assert seen.keys() > {(0, "{}")}
    assert len(store.requests) == seen[(0, "{}")]
    a_device.write_file(whole)
    assert caller.call("check_server_availability") == (0, "{}")
    figure(
        f"{sum(seen.values())} calls while the settings changed: {seen.get((0, '{}'), 0)} answered "
        "by the store, the rest refused as described"
    )


def test_a_new_ca_bundle_counts_for_new_connections(service, caller, store, a_device, authority):
    assert caller.call("check_server_availability") == (0, "{}")
    a_device.ca_file.write_bytes(certificates.Authority().pem)
    store.answer.keep = False
    # The kept connection was opened with the old bundle; this call closes it.
    caller.call("check_server_availability")
    store.answer.keep = True
    assert caller.call("check_server_availability") == (-1, "")
    a_device.ca_file.write_bytes(authority.pem)
    assert caller.call("check_server_availability") == (0, "{}")


# In front of a process: it may write a core, and root has no capability that lets it look at every process.
ORDINARY = (
    ["prlimit", "--core=unlimited:unlimited", "setpriv", "--bounding-set=-all", "--inh-caps=-all"] if os.geteuid() == 0 else []
)


def is_seen(pid):
    """Whether another process of the same user sees the memory of a process."""
    return subprocess.run([*ORDINARY, "cat", f"/proc/{pid}/environ"], capture_output=True, check=False).returncode == 0


def has_dumped(pid):
    """Waits for the end of a child by SIGSEGV.
    @return whether the kernel has written a core of it
    """
    ending = os.waitid(os.P_PID, pid, os.WEXITED | os.WNOWAIT)
    assert ending.si_status == signal.SIGSEGV
    return ending.si_code == os.CLD_DUMPED


def test_no_core_and_no_neighbour_sees_its_memory(start_daemon, caller, tmp_path):
    # An ordinary process beside it shows that this machine allows both.
    with subprocess.Popen([*ORDINARY, "sleep", "60"], cwd=tmp_path) as other:
        # The process starts as a copy of this one, and becomes sleep a little later.
        while pathlib.Path(f"/proc/{other.pid}/comm").read_text() != "sleep\n":
            time.sleep(0.01)
        other_is_seen = is_seen(other.pid)
        other.send_signal(signal.SIGSEGV)
        other_has_dumped = has_dumped(other.pid)
    service = start_daemon(view=False, tool=ORDINARY)
    service.wait_for_name(caller)
    assert not is_seen(service.pid)
    service.send(signal.SIGSEGV)
    assert not has_dumped(service.pid)
    assert service.wait(30) == -signal.SIGSEGV
    if not (other_is_seen and other_has_dumped):
        pytest.skip(f"no process here is seen ({other_is_seen}) or writes a core ({other_has_dumped}): nothing to compare with")


class Fuzz:
    """Messages that no regular client sends. The same seed makes the same messages."""

    TYPES = ["s", "i", "u", "b", "d", "as", "a{sv}", "(ss)", "v", "ay", "o"]
    VALUES = {
        "s": "text",
        "i": -1,
        "u": 4294967295,
        "b": True,
        "d": 1.5,
        "as": ["a"] * 3,
        "a{sv}": {"k": GLib.Variant("s", "v")},
        "(ss)": ("a", "b"),
        "v": GLib.Variant("i", 1),
        "ay": [0, 255],
        "o": "/",
    }

    def __init__(self, seed):
        self.draw = random.Random(seed)

    def body(self):
        if self.draw.random() < 0.2:
            return None
        kinds = [self.draw.choice(self.TYPES) for _ in range(self.draw.randrange(8))]
        values = tuple(self.text() if kind == "s" else self.VALUES[kind] for kind in kinds)
        return GLib.Variant("(" + "".join(kinds) + ")", values)

    def text(self):
        return self.draw.choice(
            [
                "",
                "a",
                "\x01\x7f",
                "€" * 50,
                "%s%n%d",
                "a\r\nX-Evil: 1",
                "&?#=",
                "x" * self.draw.randrange(1 << self.draw.randrange(18)),
            ]
        )

    def send(self, connection):
        message = Gio.DBusMessage.new_method_call(
            SERVICE,
            self.draw.choice([OBJECT, OBJECT, OBJECT, "/", "/org", OBJECT + "/x"]),
            self.draw.choice(
                [SERVICE, SERVICE, SERVICE, None, "org.evil", "org.freedesktop.DBus.Properties", "org.freedesktop.DBus.Peer"]
            ),
            self.draw.choice([*EVERY_CALL, "Get", "Ping", "GetAll", "nothing"]),
        )
        body = self.body()
        if body is not None:
            message.set_body(body)
        if self.draw.random() < 0.3:
            message.set_flags(Gio.DBusMessageFlags.NO_REPLY_EXPECTED)
        connection.send_message(message, Gio.DBusSendMessageFlags.NONE)


def test_messages_that_no_client_sends_harm_nobody(service, callers, store, size, figure):
    seed = 20261121
    fuzz, count, gone = Fuzz(seed), size(3_000, 60_000), 0
    watcher = callers()
    connection = callers().connection
    for number in range(count):
        fuzz.send(connection)
        if number % 100 == 99:
            # Half of the connections close without a flush.
            if fuzz.draw.random() < 0.5:
                connection.flush_sync(None)
            connection.close_sync(None)
            gone += 1
            connection = callers().connection
        if number % 500 == 499:
            assert watcher.call("check_server_availability", timeout=60) == (0, "{}")
    assert watcher.call("confirm_purchase", "a", "c", "i", "0", timeout=60) == (0, "{}")
    assert all(record.whole for record in service.log())
    figure(f"{count} odd messages (seed {seed}) from {gone} callers that vanished: the next call is answered as ever")


def test_an_argument_as_large_as_the_bus_carries_is_refused(service, caller, store):
    huge = "x" * (31 << 20)
    for method, arguments in EVERY_CALL.items():
        if arguments:
            refused = caller.start(method, huge, *arguments[1:], timeout=120)
            caller.finish([refused])
            assert Gio.DBusError.get_remote_error(refused.error) == LIMITS_EXCEEDED
    assert store.requests == []
    assert caller.call("check_server_availability") == (0, "{}")
