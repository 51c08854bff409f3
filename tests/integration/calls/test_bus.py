"""The service's name, and a bus that is missing or ends."""
import os

import pytest
from gi.repository import GLib
from harness import shutdown
from harness.store.server import Hang

NAME = "org.plevo.billingservice"


def test_the_name_is_owned_and_said_to_be(start_daemon, caller):
    process = start_daemon(view=False)
    process.wait_for_name(caller)
    process.wait_for_log(f"Service name '{NAME}' was acquired")
    assert "Bus acquired, creating manager..." in process.texts("I")


def test_a_second_instance_waits_and_takes_the_name_when_the_first_ends(start_daemon, caller):
    first = start_daemon(view=False)
    first.wait_for_name(caller)
    owner = caller.owner()

    second = start_daemon(view=False)
    second.wait_for_log(f"Could not acquire the '{NAME}' service name")
    assert caller.owner() == owner
    assert second.is_running()

    assert first.stop() == 0
    second.wait_for_log(f"Service name '{NAME}' was acquired")
    assert caller.owner() not in (None, owner)
    assert second.stop() == 0


def test_without_a_bus_the_daemon_runs_says_so_and_stops_cleanly(start_daemon, bus):
    bus.kill()
    process = start_daemon(view=False)

    # GIO calls the name-lost callback with the name and without a connection.
    process.wait_for_log(f"Could not acquire the '{NAME}' service name")
    assert not any("Make sure the message bus daemon" in text for text in process.texts())
    assert process.is_running()

    assert process.stop() == 0
    assert shutdown.fault(process, 1) is None


@pytest.mark.parametrize("round_", range(5))
def test_a_bus_that_dies_ends_the_daemon_cleanly(start_daemon, caller, bus, round_):
    process = start_daemon(view=False)
    process.wait_for_name(caller)

    bus.kill()

    assert process.wait(30) == 0
    assert shutdown.fault(process, 1) is None


def test_a_bus_that_dies_under_calls_ends_the_daemon_cleanly(service, caller, bus, store):
    store.answer = Hang()
    for _ in range(20):
        caller.start("check_server_availability")
    store.wait_for_requests(20)

    bus.kill()

    assert service.wait(30) == 0
    assert shutdown.fault(service, 1) is None


def test_a_call_of_no_method_or_with_other_arguments_is_refused_by_the_bus_library(service, caller, store):
    with pytest.raises(GLib.Error, match="UnknownMethod"):
        caller.call("no_such_method")
    with pytest.raises(GLib.Error, match="InvalidArgs"):
        caller.call("get_product_list", "one text too few", "x")

    assert caller.call("check_server_availability") == (0, "{}")
    assert not any("no_such_method" in text for text in service.texts())


def test_the_working_directory_is_the_root(start_daemon, caller):
    process = start_daemon(view=False)
    process.wait_for_name(caller)
    try:
        folder = os.readlink(f"/proc/{process.pid}/cwd")
    except PermissionError:
        pytest.skip("only root may look at the working directory of a process that hides itself")
    assert folder == "/"
