"""billingctl doctor on callers that the service holds back or refuses, and on a bus policy that prevents this."""
import pytest
from billing_lab.device import bus as message_bus
from gi.repository import Gio
from harness.bus.deaf import DeafCaller
from harness.methods import LIMITS_EXCEEDED
from harness.store.server import Reply
from harness.tools.doctor import outcomes

MIB = 1 << 20
NO_STATS = (
    '<deny send_destination="org.freedesktop.DBus" send_interface="org.freedesktop.DBus.Debug.Stats"'
    ' send_member="GetConnectionStats"/>'
)


@pytest.fixture
def bus(tmp_path, request):
    """A bus with the policy rules that the test is parametrized with."""
    running = message_bus.Bus(tmp_path, policy=getattr(request, "param", ()))
    yield running
    running.stop()


@pytest.fixture
def journal(service, tmp_path):
    """The variable that makes the doctor read the daemon's log instead of the journal."""
    program = tmp_path / "bin" / "journalctl"
    program.parent.mkdir()
    program.write_text(f"#!/bin/sh\nsed -n 's,^[IWE]/[A-Z_]*: ,,p' {service.log_file}\n")
    program.chmod(0o755)
    return {"PATH": f"{program.parent}:/usr/bin:/bin"}


def test_a_caller_that_reads_nothing_is_named_until_it_has_left(service, doctor, journal, bus, store, request):
    store.answer = lambda asked: Reply(b"p" * MIB if "products" in asked.line else b"{}")
    deaf = DeafCaller(bus.address)
    request.addfinalizer(deaf.close)
    for _ in range(4):
        deaf.call("get_product_list", "a", "", "")
    service.wait_for_log("is held back: ")
    found, failed = doctor(**journal)
    assert (failed, outcomes(found, "warning")) == ([], {"callers"})
    assert found["callers"]["id"] == "callers.held-back"
    assert f"caller {deaf.name} (user " in found["callers"]["finding"]
    assert "is held back: it has not read" in found["callers"]["finding"]
    assert found["callers"]["cure"].startswith(f"busctl status {deaf.name} names its process")
    deaf.close()
    service.wait_for_log("has left: ")
    found, _ = doctor(**journal)
    assert found["callers"]["id"] == "callers.ok"
    assert "; lately: caller " in found["callers"]["finding"]


def test_a_caller_whose_calls_are_refused_is_named(service, doctor, journal, caller):
    call = caller.start("get_product_list", "a" * 9000, "", "")
    caller.finish([call])
    assert Gio.DBusError.get_remote_error(call.error) == LIMITS_EXCEEDED
    service.wait_for_log("is refused: ")
    found, failed = doctor(**journal)
    assert (failed, outcomes(found, "warning")) == ([], {"callers"})
    assert found["callers"]["id"] == "callers.refused"
    assert "a call has 9" in found["callers"]["finding"]
    assert "shorter arguments" in found["callers"]["cure"]


@pytest.mark.parametrize("bus", [(NO_STATS,)], indirect=True, ids=[""])
def test_a_policy_without_the_rule_is_named(service, doctor, journal, caller):
    assert caller.call("check_server_availability")[0] == 0
    service.wait_for_log("GetConnectionStats")
    found, failed = doctor(**journal)
    assert (failed, outcomes(found, "warning")) == ([], {"callers"})
    assert found["callers"]["id"] == "callers.no-rules"
    assert "GetConnectionStats" in found["callers"]["finding"]
    assert "ReloadConfig" in found["callers"]["cure"]
    # Without the journal the doctor asks the bus itself.
    found, _ = doctor()
    assert found["callers"]["id"] == "callers.no-rules"
    assert found["callers"]["finding"].startswith("the bus's policy does not let the service ask")
