"""The service itself fails: faults of the part of the device."""
import threading
import time

import pytest
from billing_lab.folder import LabError
from gi.repository import Gio, GLib

from conftest import owned


def failed(lab, **options):
    with pytest.raises(Exception) as caught:
        lab.call("check_server_availability", **options)
    return str(caught.value)


def test_a_service_that_hangs_answers_when_it_is_up_again(lab):
    assert lab.device("service", "hanging")["service"] == "hanging"
    assert "Timeout" in failed(lab, timeout=1)
    call = lab.start_call("check_server_availability")
    assert "device: service hanging, usually up" in lab.status()["unusual"]
    lab.device("service", "up")
    assert lab.finish_call(call)[0] == 0


def test_an_absent_service_is_unknown_until_it_is_up_again(lab):
    lab.device("service", "absent")
    assert "ServiceUnknown" in failed(lab)
    lab.usual()
    assert lab.call("check_server_availability")[0] == 0
    assert lab.status()["device"]["service"] == "up"


def test_a_call_that_is_under_way_at_a_restart_has_no_reply(lab):
    lab.fault("hang", endpoint="confirm", done=True)
    call = lab.start_call("confirm_purchase", invoiceid="INV-SEED-2")
    end = time.monotonic() + 20
    while not lab.journal():
        assert time.monotonic() < end
        time.sleep(0.02)
    before = lab.status()["daemon_pid"]
    lab.device("service", "restart")
    with pytest.raises(Exception, match="NoReply"):
        lab.finish_call(call)
    lab.clear_faults()
    assert lab.status()["daemon_pid"] != before
    assert lab.invoices()[0]["status"] == "confirmed"
    assert lab.call("confirm_purchase", invoiceid="INV-SEED-2")[0] == 0


def test_a_service_that_cannot_submit_a_request_says_so(lab, cli):
    told = cli("device", "service", "refusing", folder=lab.folder.path)
    assert "service refusing" in told.stdout
    assert lab.call("confirm_purchase", invoiceid="INV-SEED-2") == (1160003, "Try again later.")
    assert (lab.journal(), lab.calls()[0]["requests"]) == ([], [])
    assert lab.status()["unusual"] == ["device: service refusing, usually up"]
    lab.device("service", "hanging")
    assert lab.device()["service"] == "hanging"
    lab.device("service", "refusing")
    written = lab.export()
    lab.usual()
    assert lab.call("check_server_availability")[0] == 0
    lab.import_(written)
    assert lab.call("check_server_availability") == (1160003, "Try again later.")
    lab.device("service", "up")
    assert lab.call("check_server_availability")[0] == 0


def test_a_mock_of_another_service_owns_a_listed_name_and_is_called(lab, cli):
    name = "org.example.Downloads"
    with pytest.raises(GLib.Error, match="AccessDenied"):
        owned(lab.bus, name)
    assert cli("names", name, folder=lab.folder.path).stdout == f"{name}\n"
    assert lab.names() == lab.status()["names"] == [name]
    mock = owned(lab.bus, name)
    caller = Gio.DBusConnection.new_for_address_sync(
        lab.bus, Gio.DBusConnectionFlags.AUTHENTICATION_CLIENT | Gio.DBusConnectionFlags.MESSAGE_BUS_CONNECTION, None, None
    )
    # GIO answers a ping for every connection.
    ping = (name, "/", "org.freedesktop.DBus.Peer", "Ping", None, None, Gio.DBusCallFlags.NONE, 10_000, None)
    caller.call_sync(*ping)
    lab.reset()
    caller.call_sync(*ping)
    assert lab.names(name, remove=True) == []
    with pytest.raises(GLib.Error, match="AccessDenied"):
        caller.call_sync(*ping)
    assert lab.call("check_server_availability")[0] == 0
    mock.close_sync(None)
    caller.close_sync(None)


@pytest.mark.parametrize("name", ["org.plevo.billingservice", "org.freedesktop.DBus", "nodots", 'a.b"/><x', ""])
def test_a_name_that_no_mock_may_own_is_refused(lab, name):
    with pytest.raises(LabError):
        lab.names(name)
    assert lab.names() == []


def test_a_reset_brings_the_service_back_and_switches_come_one_after_the_other(lab):
    threads = [threading.Thread(target=lab.device, args=("service", state)) for state in ("absent", "restart", "hanging")]
    for thread in threads:
        thread.start()
    for thread in threads:
        thread.join(60)
    lab.reset()
    assert lab.call("check_server_availability")[0] == 0


def test_a_state_that_is_none_is_refused(lab):
    with pytest.raises(LabError, match="service 'gone' is not known; write one of up, hanging, absent, refusing, restart"):
        lab.device("service", "gone")
