"""Network lines that lose packets, drop everything, reset connections or are slow, and name servers that do not answer."""
import os
import signal
import statistics
import threading
import time

import pytest
from harness import daemon
from harness.store import server
from harness.store.server import Reply

# Seconds for the daemon's own work on a busy machine. A call that had to wait for a lost line or for a mute name server
# would take at least the 5 s of one question to a name server.
SOON = 3
# Seconds until an unanswered call is given up.
GIVEN_UP = 90
# Sum of the pauses before a refused connection is given up, in seconds.
REFUSED = 3.75
# Number of names that are looked up at a time, each by a thread.
RESOLVING = 16
# Seconds until a call is answered after names are back: the resolver repeats a question after 5 s, twice.
NAMED = 12
RESOLVER = "/etc/resolv.conf"


class Line:
    """The daemon's network, with rules for its packets."""

    def __init__(self, namespace, stores):
        self._namespace = namespace
        self.production, self.sandbox = stores
        self.run("nft add table inet line")
        self.run("nft add chain inet line in { type filter hook input priority 0 ; }")

    def run(self, command):
        self._namespace.arrange(command)

    def rule(self, text):
        self.run(f"nft add rule inet line in {text}")

    def is_whole_again(self):
        self.run("nft flush chain inet line in")


@pytest.fixture
def names(tmp_path):
    """Replaces the machine's resolver settings in the daemon's view: the name server is the local machine.
    A machine without the file needs none, because the resolver then asks the local machine by itself.
    """
    file = tmp_path / "resolv.conf"
    file.write_text("nameserver 127.0.0.1\n")
    return {RESOLVER: file} if os.path.exists(RESOLVER) else {}


@pytest.fixture
def service(needs_view, start_daemon, caller, server_context, a_device, names, request):
    """A daemon in a network namespace, with a store for each of the two server types."""
    namespace = daemon.Namespace()
    request.addfinalizer(namespace.close)
    process = start_daemon(namespace=namespace, files=names)
    stores = [server.StoreServer(server_context, listener) for listener in namespace.listeners()]
    for kind, running in zip(("production", "sandbox"), stores):
        request.addfinalizer(running.stop)
        a_device.set("deployment", f"{kind}_host", f"{kind}.localhost:{running.port}")
    process.wait_for_name(caller)
    process.line = Line(namespace, stores)
    return process


@pytest.fixture
def line(service):
    return service.line


@pytest.fixture
def bystander(caller, a_device):
    """A function that calls the other server and returns how long that took."""

    def call():
        a_device.set("system", "vantor_server_type", "2")
        began = time.monotonic()
        assert caller.call("check_server_availability") == (0, "{}")
        a_device.set("system", "vantor_server_type", "0")
        return time.monotonic() - began

    return call


def pending(service, caller, count):
    """Starts calls whose answers take long, and waits until the daemon has begun each."""

    def begun():
        return sum("start Url" in text for text in service.texts())

    before = begun()
    calls = [caller.start("get_product_list", str(i), "", "", timeout=200) for i in range(count)]
    service.wait_until(lambda: begun() == before + count, "it has begun every call")
    return calls


def wait_for_lookups(service):
    """Waits until the names of several calls are looked up. These wait a second for the first look-up."""
    service.wait_until(lambda: service.status_field("Threads") > RESOLVING, "it looks names up")


def ends_at_once(service, calls, caller):
    """Sends SIGTERM and checks the time until the daemon's end.
    @return that time in seconds
    """
    began = time.monotonic()
    service.send(signal.SIGTERM)
    assert service.wait(30) == 0
    took = time.monotonic() - began
    caller.finish(calls)
    assert took < 2
    return took


def test_a_line_that_loses_every_tenth_packet_delays_and_loses_no_answer(service, line, caller, size, figure):
    port, count = line.production.port, size(40, 400)
    line.production.answer = Reply(b"x" * 5000, keep=False)
    for direction in ("dport", "sport"):
        line.rule(f"tcp {direction} {port} numgen random mod 10 == 0 drop")
    took, wave = [], 40
    for _ in range(0, count, wave):
        began = time.monotonic()
        calls = [caller.start("get_product_list", str(i), "", "", timeout=120) for i in range(wave)]
        caller.finish(calls)
        took.append(time.monotonic() - began)
        assert {call.result for call in calls} == {(0, "x" * 5000)}
    figure(
        f"{count} calls over a line that loses 10 % of its packets each way, a connection each: all "
        f"answered; {wave} at once took {statistics.median(took):.1f} s, {max(took):.1f} s at most"
    )


def test_a_line_that_swallows_everything_holds_only_its_own_calls(service, line, caller, bystander, size, figure):
    assert caller.call("check_server_availability") == (0, "{}")
    bystander()
    line.rule(f"tcp dport {line.production.port} drop")
    calls = pending(service, caller, 20)

    beside = max(bystander() for _ in range(10))

    assert beside < SOON
    assert not any(call.done for call in calls)
    if size(False, True):
        began = time.monotonic()
        caller.finish(calls)
        given_up = time.monotonic() - began
        assert {call.result for call in calls} == {(-1, "")}
        assert given_up < GIVEN_UP + 10
        figure(f"20 calls that nobody answers are given up together after {given_up:.0f} s")
        calls = pending(service, caller, 20)
    took = ends_at_once(service, calls, caller)
    figure(f"a call beside 20 swallowed ones took {beside * 1000:.0f} ms at most; SIGTERM to the end {took * 1000:.0f} ms")


def test_a_line_that_comes_back_brings_the_answers(service, line, caller):
    assert caller.call("check_server_availability") == (0, "{}")
    line.rule(f"tcp dport {line.production.port} drop")
    calls = pending(service, caller, 5)
    time.sleep(1)
    assert not any(call.done for call in calls)

    line.is_whole_again()

    caller.finish(calls)
    assert {call.result for call in calls} == {(0, "{}")}


def test_a_line_that_cuts_connections_off_fails_their_calls_soon(service, line, caller, bystander):
    assert caller.call("check_server_availability") == (0, "{}")
    line.rule(f"tcp dport {line.production.port} reject with tcp reset")
    began = time.monotonic()

    assert caller.call("check_server_availability") == (-1, "")
    assert caller.call("confirm_purchase", "a", "c", "i", "0") == (-1, "")

    # The daemon repeats each connection four times, because a store that restarts refuses connections as well.
    assert time.monotonic() - began < 2 * REFUSED + SOON
    assert bystander() < SOON
    line.is_whole_again()
    assert caller.call("confirm_purchase", "a", "c", "i", "0") == (0, "{}")
    # The failed payment was not sent again.
    assert [request.line.split()[0] for request in line.production.requests] == ["GET", "POST"]


class Half:
    """An answer of which half is sent when the gate opens, and the rest never."""

    def __init__(self):
        self.gate = threading.Event()

    def perform(self, connection, running):
        running.wait_for(self.gate)
        connection.send(b"HTTP/1.1 200 OK\r\nContent-Length: 10\r\n\r\nfirst")
        running.wait_for(running.stopping)
        return False


def test_an_answer_that_is_cut_off_by_the_line_fails_with_what_came(service, line, caller):
    line.production.answer = Half()
    call = caller.start("confirm_purchase", "a", "c", "i", "0")
    line.production.wait_for_requests(1)

    # The line resets the connection as soon as the daemon acknowledges the first half.
    line.rule(f"tcp dport {line.production.port} reject with tcp reset")
    line.production.answer.gate.set()

    caller.finish([call])
    assert call.result == (-1, "first")


def test_a_line_of_64_kbit_carries_whole_answers(service, line, caller, size, figure):
    body = (b"0123456789abcdef" * 2048)[: size(16_384, 32_768)]
    assert caller.call("check_server_availability") == (0, "{}")
    line.run("ip link set lo mtu 1500")
    line.run("tc qdisc add dev lo root tbf rate 64kbit burst 4kb limit 200kb")
    line.production.answer = lambda request: Reply(body if "product" in request.line else b"{}")
    began = time.monotonic()
    large = caller.start("get_product_list", "a", "", "", timeout=120)
    small = caller.start("check_server_availability", timeout=120)

    caller.finish([large, small])

    assert large.result == (0, body.decode())
    assert small.result == (0, "{}")
    took = time.monotonic() - began
    assert took > len(body) * 8 / 64_000 * 0.8
    figure(f"{len(body)} bytes over 64 kbit/s in {took:.1f} s, whole, and another call beside it")


def test_name_servers_that_do_not_answer_hold_only_their_own_calls(
    service, line, caller, callers, a_device, bystander, size, figure
):
    line.rule("udp dport 53 drop")
    line.rule("tcp dport 53 drop")
    a_device.set("deployment", "production_host", "store.example")
    bystander()
    calls = [call for one in [callers() for _ in range(size(1, 4))] for call in pending(service, one, 125)]
    wait_for_lookups(service)

    beside = max(bystander() for _ in range(10))

    assert beside < SOON
    assert not any(call.done for call in calls)
    threads, memory = service.status_field("Threads"), service.status_field("VmHWM") // 1024
    # Sixteen threads of the resolver, and the service's own.
    assert threads <= 32
    assert daemon.is_sanitized() or memory < 96
    took = ends_at_once(service, calls, caller)
    figure(
        f"a call beside {len(calls)} without a name took {beside * 1000:.0f} ms at most; {threads} threads, "
        f"{memory} MiB; SIGTERM to the end {took * 1000:.0f} ms"
    )


def test_names_that_come_back_are_found_soon(service, line, caller, callers, a_device, figure):
    line.rule("udp dport 53 drop")
    line.rule("tcp dport 53 drop")
    a_device.set("deployment", "production_host", "store.example")
    calls = pending(service, callers(), 100)
    wait_for_lookups(service)
    line.is_whole_again()
    began = time.monotonic()

    # No name server runs on this machine, so the resolver reports at once that the name does not exist.
    assert caller.call("check_server_availability", timeout=60) == (-1, "")

    took = time.monotonic() - began
    assert took < NAMED
    figure(f"a call beside {len(calls)} whose names did not come had its answer {took:.1f} s after the name servers were back")


def test_a_call_without_a_name_server_is_answered_in_the_end(service, line, caller, a_device, size, figure):
    # No name server runs on this machine, so the resolver reports at once that the name does not exist.
    a_device.set("deployment", "production_host", "store.example")
    assert caller.call("check_server_availability", timeout=120) == (-1, "")
    if size(False, True):
        line.rule("udp dport 53 drop")
        began = time.monotonic()
        assert caller.call("check_server_availability", timeout=200) == (-1, "")
        figure(f"a call whose name nobody tells is given up after {time.monotonic() - began:.0f} s")
