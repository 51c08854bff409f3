"""Several calls at the same time."""
import threading

from harness.methods import EVERY_CALL
from harness.store.server import Hang, Reply


def test_two_calls_are_answered_in_the_order_of_their_results(service, caller, store):
    gate = threading.Event()
    store.answer = lambda request: (Reply(b"late", gate=gate) if "products" in request.line else Reply(b"soon"))

    late = caller.start("get_product_list", "a", "", "")
    store.wait_for_requests(1)
    soon = caller.start("check_server_availability")
    caller.finish([soon])
    assert soon.result == (0, "soon")
    assert not late.done

    gate.set()
    caller.finish([late])
    assert late.result == (0, "late")


def test_calls_of_different_callers_get_their_own_answers(service, callers, store):
    gate = threading.Event()
    store.answer = lambda request: Reply(request.line.encode(), gate=gate)
    both = [callers(), callers()]

    calls = [both[i % 2].start("get_product_list", f"app-{i}", "", "") for i in range(10)]
    store.wait_for_requests(10)
    gate.set()
    both[0].finish(calls)

    for i, call in enumerate(calls):
        assert call.result[0] == 0
        assert f"appid=app-{i}&" in call.result[1]


def test_fifty_calls_at_once_each_get_their_own_answer(service, caller, store):
    gate = threading.Event()
    store.answer = lambda request: Reply(request.body or request.line.encode(), gate=gate)

    calls = [caller.start("confirm_purchase", "a", "c", f"invoice-{i}-", "0") for i in range(50)]
    store.wait_for_requests(50)
    assert not any(call.done for call in calls)
    gate.set()
    caller.finish(calls)

    for i, call in enumerate(calls):
        assert call.result[0] == 0
        assert f'"invoiceId" : "invoice-{i}-"' in call.result[1]
    assert len(store.requests) == 50


def test_a_hanging_server_holds_nobody_else_up(service, caller, store):
    store.answer = lambda request: Hang() if "products" in request.line else Reply(b"at once")
    hanging = [caller.start("get_product_list", "a", "", "") for _ in range(20)]
    store.wait_for_requests(20)

    for method in ("check_server_availability", "get_purchase_history", "confirm_purchase"):
        assert caller.call(method, *EVERY_CALL[method], timeout=10) == (0, "at once")
    assert not any(call.done for call in hanging)


def test_a_caller_that_leaves_before_its_answer_harms_nobody(service, callers, store):
    gate = threading.Event()
    store.answer = Reply(b"for nobody", gate=gate)
    leaving, staying = callers(), callers()
    leaving.start("check_server_availability")
    store.wait_for_requests(1)
    other = staying.start("check_server_availability")
    store.wait_for_requests(2)

    leaving.close()
    gate.set()
    staying.finish([other])

    assert other.result == (0, "for nobody")
    service.wait_until(lambda: service.texts().count("g_dbus_method_invocation_return_value") == 4, "both calls are answered")
    assert staying.call("check_server_availability") == (0, "for nobody")
