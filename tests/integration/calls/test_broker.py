"""The main scenarios on dbus-broker. The service, its limits and its end are the same as on dbus-daemon."""
import os
import threading

import pytest
from gi.repository import GLib
from harness import shutdown
from harness.bus import broker
from harness.bus.deaf import DeafCaller
from harness.methods import ARGUMENT_BYTES, EVERY_CALL, LIMITS_EXCEEDED, answers, filled
from harness.store.server import Hang, Reply

MIB = 1 << 20
PING = '<allow send_type="method_call" send_interface="org.freedesktop.DBus.Peer" send_member="Ping"/>'


@pytest.fixture
def bus(tmp_path, needs_view):
    reason = broker.why_not()
    if reason is not None:
        pytest.skip(reason)
    # dbus-broker's GetConnectionStats differs from dbus-daemon's, so the service pings the callers.
    running = broker.Broker(tmp_path, policy=(PING,))
    yield running
    running.stop()


def test_every_method_is_answered(service, caller):
    assert answers(caller) == {method: (0, "{}") for method in EVERY_CALL}
    assert service.stop() == 0
    assert caller.owner() is None


def test_calls_of_several_callers_get_their_own_answers(service, callers, store):
    gate = threading.Event()
    store.answer = lambda request: Reply(request.line.encode(), gate=gate)
    several = [callers() for _ in range(5)]
    calls = [several[i % 5].start("get_product_list", f"app-{i}", "", "") for i in range(50)]
    store.wait_for_requests(50)
    gate.set()
    several[0].finish(calls)
    for i, call in enumerate(calls):
        assert call.result[0] == 0
        assert f"appid=app-{i}&" in call.result[1]


def test_what_is_refused_is_refused_by_name(service, caller, store):
    with pytest.raises(GLib.Error, match=LIMITS_EXCEEDED):
        caller.call("get_product_list", *filled(("a", "", ""), 0, most=ARGUMENT_BYTES + 1))
    with pytest.raises(GLib.Error, match="UnknownMethod"):
        caller.call("no_such_method")
    with pytest.raises(GLib.Error, match="InvalidArgs"):
        caller.call("get_product_list", "one text too few", "x")
    assert store.connections == []
    assert caller.call("check_server_availability") == (0, "{}")


def test_a_large_answer_arrives_whole(service, caller, store):
    store.answer = Reply(b"0123456789abcdef" * (8 * MIB // 16))
    result, text = caller.call("get_product_list", "a", "", "")
    assert (result, text.encode()) == (0, store.answer.body)


def test_a_caller_that_reads_nothing_holds_nobody_up(service, bus, caller, store):
    store.answer = lambda request: Reply(b"p" * MIB) if "products" in request.line else Reply(b"{}")
    deaf = DeafCaller(bus.address)
    for _ in range(20):
        deaf.call("get_product_list", "a", "", "")
    store.wait_for_requests(20, timeout=60)
    for i in range(5):
        assert caller.call("confirm_purchase", "by", "c", f"invoice-{i}", "0") == (0, "{}")
    service.wait_for_log("the bus does not tell what its clients have not read")
    service.wait_for_log(f"caller {deaf.name} (user {os.getuid()}) is held back")
    deaf.close()
    assert caller.call("check_server_availability") == (0, "{}")


def test_a_second_instance_takes_the_name_when_the_first_ends(start_daemon, caller):
    first = start_daemon(view=False)
    first.wait_for_name(caller)
    owner = caller.owner()
    second = start_daemon(view=False)
    second.wait_for_log("Could not acquire the 'org.plevo.billingservice' service name")
    assert first.stop() == 0
    second.wait_for_log("Service name 'org.plevo.billingservice' was acquired")
    assert caller.owner() not in (None, owner)


def test_a_bus_that_dies_under_calls_ends_the_daemon_cleanly(service, caller, bus, store):
    store.answer = Hang()
    for _ in range(20):
        caller.start("check_server_availability")
    store.wait_for_requests(20)
    bus.kill()
    assert service.wait(30) == 0
    assert shutdown.fault(service, 1) is None
