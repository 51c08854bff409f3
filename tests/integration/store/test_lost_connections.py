"""Connections that fall silent, connections that a middlebox drops, and sessions that a server refuses."""
import collections
import time

import pytest
from gi.repository import GLib
from harness.methods import EVERY_CALL
from harness.store import contextless, nginx, proxy
from harness.store.server import Reply

GOOD = (0, "nginx")
LIST = ("get_product_list", "app", "0", "check")
PAYMENTS = ("confirm_purchase", "get_applied_time")
PROTOCOLS = {"HTTP/1.1": "", "HTTP/2.0": "http2"}
# Server types by which the device chooses one of its two servers.
KINDS = {"production": "0", "sandbox": "2"}

# Seconds between the loss of the network and the next use of the device.
AWAY = 30
# Seconds that a call to a server that answers at once may take on a busy machine.
SOON = 3


@pytest.fixture
def start_behind_proxy(tmp_path, authority, provisioned, a_device, request):
    """A function that runs nginx behind a proxy, as one of the device's two servers."""
    if nginx.PROGRAM is None:
        pytest.skip("nginx is not installed (scripts/setup)")

    def make(protocol, kind="production"):
        running = nginx.Nginx(
            tmp_path / kind, authority.server_pem("localhost"), provisioned.authority, listen=PROTOCOLS[protocol]
        )
        request.addfinalizer(running.stop)
        between = proxy.Proxy(running.port)
        request.addfinalizer(between.stop)
        a_device.set("deployment", f"{kind}_host", f"localhost:{between.port}")
        return running, between

    return make


def seen_by(server):
    """Stops the server.
    @return number of requests for each path
    """
    return collections.Counter(entry.target.split("?")[0] for entry in server.stop())


@pytest.mark.parametrize("protocol", PROTOCOLS)
def test_a_connection_that_a_middlebox_has_forgotten_costs_no_call(service, caller, start_behind_proxy, protocol):
    server, between = start_behind_proxy(protocol)

    for method, arguments in EVERY_CALL.items():
        assert caller.call(*LIST) == GOOD
        between.forget()
        assert caller.call(method, *arguments) == GOOD, method

    assert between.connections >= len(EVERY_CALL)
    seen = seen_by(server)
    assert seen["/billing/payment/v2/confirm"] == seen["/billing/payment/v2/apply"] == 1
    assert seen["/billing/product/v2/products"] == len(EVERY_CALL) + 1


def run_for(seconds):
    """Runs the main loop for that time, so that answers can arrive."""
    end = time.monotonic() + seconds
    tick = GLib.timeout_add(50, lambda: True)
    while time.monotonic() < end:
        GLib.MainContext.default().iteration(True)
    GLib.source_remove(tick)


def test_half_a_minute_after_a_silent_loss_every_call_is_answered_at_once(service, caller, a_device, start_behind_proxy):
    # One test runs both protocols at once, because it takes long.
    servers = {kind: start_behind_proxy(protocol, kind) for kind, protocol in zip(KINDS, PROTOCOLS)}

    def with_each(action):
        for kind, (_, between) in servers.items():
            a_device.set("system", "vantor_server_type", KINDS[kind])
            action(between)

    def warm(between):
        assert caller.call(*LIST) == GOOD
        assert between.connections == 1

    with_each(warm)

    under_way = []

    def lose(between):
        between.silence()
        under_way.append(caller.start(*LIST))

    with_each(lose)
    run_for(AWAY)
    assert [call.result for call in under_way] == [GOOD, GOOD]

    def at_once(_):
        for method, arguments in EVERY_CALL.items():
            began = time.monotonic()
            assert caller.call(method, *arguments, timeout=SOON) == GOOD
            assert time.monotonic() - began < SOON, method

    with_each(at_once)


@pytest.mark.parametrize("protocol", PROTOCOLS)
def test_a_purchase_right_after_a_silent_loss_is_answered_at_once(service, caller, start_behind_proxy, protocol):
    server, between = start_behind_proxy(protocol)
    assert caller.call(*LIST) == GOOD
    between.silence()

    for method in PAYMENTS:
        assert caller.call(method, *EVERY_CALL[method], timeout=SOON) == GOOD

    assert {path for path in seen_by(server) if "payment" in path} == {
        "/billing/payment/v2/confirm",
        "/billing/payment/v2/apply",
    }


def test_a_server_that_refuses_every_session_is_reached(
    service, caller, other_store, authority, provisioned, a_device, tmp_path
):
    pem = tmp_path / "server.pem"
    pem.write_bytes(authority.server_pem("localhost"))
    store = other_store(contextless.Context(pem, provisioned.authority))
    store.answer = Reply(b"{}", keep=False)
    a_device.set("deployment", "production_host", f"localhost:{store.port}")

    answers = [caller.call(method, *arguments) for method, arguments in list(EVERY_CALL.items()) * 2]

    assert answers == [(0, "{}")] * len(answers)
    assert len(store.requests) == len(answers)
    assert {request.client for request in store.requests} == {"CN=Billing lab device"}
    # Counter-check: the daemon did offer sessions.
    assert any("session id context" in text for text in store.handshake_failures)


@pytest.mark.parametrize("listen", ["", "http2"])
def test_a_connection_that_the_store_closed_leaves_its_session(service, caller, start_nginx, listen):
    running = start_nginx(listen=listen, extra="keepalive_timeout 1;")
    for method, arguments in (
        ("get_product_list", ("app", "0", "check")),
        ("confirm_purchase", ("app", "custom", "invoice", "0")),
        ("get_product_list", ("app", "0", "check")),
    ):
        assert caller.call(method, *arguments) == (0, "nginx")
        time.sleep(1.5)

    # Only the first handshake was signed.
    assert [entry.resumed for entry in running.stop()] == [".", "r", "r"]
