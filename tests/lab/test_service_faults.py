"""The service as a part of the device that fails."""
import threading
import time

import pytest
from billing_lab.folder import LabError


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


def test_a_reset_brings_the_service_back_and_switches_come_one_after_the_other(lab):
    threads = [threading.Thread(target=lab.device, args=("service", state)) for state in ("absent", "restart", "hanging")]
    for thread in threads:
        thread.start()
    for thread in threads:
        thread.join(60)
    lab.reset()
    assert lab.call("check_server_availability")[0] == 0


def test_a_state_that_is_none_is_refused(lab):
    with pytest.raises(LabError, match="service 'gone' is not known; write one of up, hanging, absent, restart"):
        lab.device("service", "gone")
