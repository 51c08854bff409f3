"""One app, one path or one store that uses all it can get, beside purchases of another app."""
import statistics
import time

import pytest
from billing_lab.device import bus as message_bus
from gi.repository import Gio, GLib
from harness import daemon
from harness.store.server import Hang, Reply

# Seconds that a purchase may take beside the load, on a busy machine.
SOON = 1
# Almost the number of outstanding calls that the bus allows one connection.
OF_ONE = 125
# Seconds until a call that waits for a slot is given up, and until the test checks that.
TURN = 20 + 3
PURCHASES = 20


@pytest.fixture
def service(small_service):
    return small_service


def hanging(part):
    """A store that never answers a request with this part in its path."""
    return lambda request: Hang() if part in request.path else Reply(b"ok")


def purchases(service, caller):
    """Another app makes purchases.
    @return seconds that each took
    """
    took = []
    for number in range(PURCHASES):
        began = time.monotonic()
        assert caller.call("confirm_purchase", "bystander", "c", str(number), "0") == (0, "ok")
        took.append(time.monotonic() - began)
    assert service.is_running()
    return took


def memory_at_most(service, most):
    """Checks the peak of the daemon's memory.
    @return the peak as text
    """
    seen = service.status_field("VmHWM") // 1024
    # The runtime of a sanitizer uses memory of its own.
    assert daemon.is_sanitized() or seen < most, f"{seen} MiB"
    return f"{seen} MiB"


def shown(took):
    return f"{statistics.median(took) * 1000:.0f} ms, {max(took) * 1000:.0f} at most"


def test_an_endpoint_that_hangs_costs_the_others_nothing(service, store, callers, caller, size, figure):
    store.answer = hanging("products")
    calls = [
        one.start("get_product_list", "app", "0", "check", timeout=200)
        for one in (callers() for _ in range(9))
        for _ in range(OF_ONE)
    ]
    store.wait_for_requests(150)
    began = time.monotonic()

    took = purchases(service, caller)

    assert max(took) < SOON
    bought = [request for request in store.requests if "confirm" in request.path]
    assert len(bought) == PURCHASES
    figure(f"{len(calls)} calls that hang: a purchase took {shown(took)}; {memory_at_most(service, 128)}")
    if size(False, True):
        while time.monotonic() - began < TURN:
            GLib.MainContext.default().iteration(False)
            time.sleep(0.01)
        asked = sum("products" in request.path for request in store.requests)
        # Calls whose requests are at the store go on. The other calls have ended, and the store never received them.
        ended = [call for call in calls if call.done]
        assert {call.result for call in ended} == {(-1, "")}
        assert len(ended) == len(calls) - asked
        figure(f"{asked} of them were at the store, {len(ended)} ended after {TURN - 3} s")


def test_an_app_that_wants_no_answers_costs_the_others_nothing(service, store, callers, caller, size, figure):
    store.answer = hanging("products")
    greedy, count = callers(), size(1000, 5000)
    for number in range(count):
        message = Gio.DBusMessage.new_method_call(
            message_bus.SERVICE, message_bus.OBJECT, message_bus.SERVICE, "get_product_list"
        )
        message.set_flags(Gio.DBusMessageFlags.NO_REPLY_EXPECTED)
        message.set_body(GLib.Variant("(sss)", ("app", "0", str(number))))
        greedy.connection.send_message(message, Gio.DBusSendMessageFlags.NONE)
    greedy.connection.flush_sync(None)
    store.wait_for_requests(150)

    took = purchases(service, caller)

    assert max(took) < SOON
    refused = [line for line in service.texts("W") if "is refused: 512 of its calls that want no answer wait" in line]
    assert len(refused) <= 1
    figure(f"{count} calls without answers from one app: a purchase took {shown(took)}; {memory_at_most(service, 128)}")
