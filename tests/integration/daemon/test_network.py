"""Without a default route each method is refused and no request is sent."""
import pytest
from harness import daemon
from harness.methods import EVERY_CALL, NO_NETWORK, all_alike, answers
from harness.store import server


@pytest.mark.parametrize("gateway, said", [("down", "Get Network status: 0"), ("error:5", "Get Network status failed: 5")])
def test_every_method_answers_that_there_is_no_network(service, caller, store, a_device, gateway, said):
    a_device.set("network", "default_gateway", gateway)

    assert answers(caller) == all_alike(NO_NETWORK)

    assert store.connections == []
    assert service.texts().count(said) == len(EVERY_CALL)
    # The refusal is not logged as a failed transfer, and no transfer begins.
    assert not any("start Url" in text or "Http error" in text for text in service.texts())


@pytest.fixture
def isolated(needs_view, start_daemon, caller, server_context, a_device):
    """A daemon and a store server in a network namespace without a route."""
    namespace = daemon.Namespace()
    process = start_daemon(namespace=namespace)
    running = server.StoreServer(server_context, namespace.listeners()[0])
    a_device.set("deployment", "production_host", f"production.localhost:{running.port}")
    a_device.set("network", "default_gateway", "auto")
    process.wait_for_name(caller)
    yield namespace, running
    running.stop()
    namespace.close()


def test_without_a_default_route_no_request_is_made(isolated, caller):
    _, store = isolated

    assert answers(caller) == all_alike(NO_NETWORK)

    assert store.connections == []


def test_without_a_default_route_the_server_would_have_been_reached(isolated, caller, a_device):
    # Counter-check of the test above: the same server in the same network can be reached.
    _, store = isolated
    a_device.set("network", "default_gateway", "up")

    assert answers(caller) == all_alike((0, "{}"))

    assert len(store.requests) == len(EVERY_CALL)


@pytest.fixture
def cable(isolated):
    """A veth pair: a default route over it exists but leads to no network."""
    namespace, _ = isolated
    for command in ("ip link add cable type veth peer name wall", "ip link set wall up", "ip link set cable up"):
        namespace.arrange(command)
    return namespace


@pytest.mark.parametrize("family", ["-4", "-6"])
def test_a_cable_that_comes_and_goes_is_seen_by_the_next_call(cable, isolated, caller, family):
    _, store = isolated
    assert caller.call("check_server_availability") == NO_NETWORK

    assert cable.run(f"ip {family} route add default dev cable") == 0
    assert caller.call("check_server_availability") == (0, "{}")

    assert cable.run(f"ip {family} route del default dev cable") == 0
    assert caller.call("check_server_availability") == NO_NETWORK
    assert len(store.requests) == 1
