"""The journal of calls on the lab's bus."""
import pytest
from billing_lab.device.bus import Caller


def calls(lab, count):
    """The calls in the journal. They include each call whose answer this process has."""
    found = lab.calls()
    assert len(found) == count and all("milliseconds" in call for call in found), found
    return found


def test_a_call_is_listed_as_soon_as_its_caller_has_the_answer(lab):
    late = []
    for number in range(1, 101):
        lab.call("check_server_availability")
        found = lab.calls()
        if len(found) != number or "milliseconds" not in found[-1]:
            late.append(number)
    assert late == []


def test_a_call_stands_with_its_answer_and_its_request(lab):
    result, text = lab.call("get_product_list", appid="app-1")
    (call,) = calls(lab, 1)
    assert (call["method"], call["arguments"]["appid"], call["resp_result"], call["resp_info"]) == (
        "get_product_list",
        "app-1",
        result,
        text,
    )
    assert call["requests"] == [lab.journal()[0]["seq"]] and call["fault"] is None
    assert call["bytes"] == len(text.encode()) and 0 < call["milliseconds"] < 20_000


def test_a_call_that_sent_nothing_stands_too(lab):
    lab.device("gateway", "down")
    lab.call("check_server_availability")
    (call,) = calls(lab, 1)
    assert (call["resp_result"], call["resp_info"], call["requests"]) == (1160003, "Network error, please check!", [])


def test_a_call_names_the_fault_that_struck_it_and_its_second_try(lab):
    lab.fault("reset", endpoint="country", count=1)
    assert lab.call("check_server_availability")[0] == 0
    (call,) = calls(lab, 1)
    assert (len(call["requests"]), call["fault"]) == (2, "reset")


def test_what_cannot_be_told_apart_is_not_told_apart(lab):
    lab.fault("delay", ms=300)
    same = [lab.start_call("get_product_list") for _ in "12"]
    other = lab.start_call("get_product_list", appid="app-2", CheckValue="check-2")
    for call in (*same, other):
        lab.finish_call(call)
    told = {call["number"]: call for call in calls(lab, 3)}
    assert [told[number]["requests"] for number in (1, 2)] == [None, None]
    assert len(told[3]["requests"]) == 1 and told[3]["fault"] == "delay"


def test_a_call_that_is_none_stands_with_its_error(lab):
    caller = Caller(lab.bus)
    with pytest.raises(Exception, match="no_such_method|UnknownMethod|does not exist"):
        caller.call("no_such_method", "a")
    caller.close()
    (call,) = calls(lab, 1)
    assert (call["arguments"], call["requests"]) == (["a"], [])
    assert call["error"].startswith("org.freedesktop.DBus.Error.")


def test_the_command_line_shows_them_and_a_reset_forgets_them(lab, cli):
    lab.call("confirm_purchase", invoiceid="INV-SEED-2")
    calls(lab, 1)
    told = cli("calls", folder=lab.folder.path)
    assert "confirm_purchase appid=app-1 customId= invoiceid=INV-SEED-2" in told.stdout
    assert f"journal {lab.journal()[0]['seq']}" in told.stdout
    lab.reset()
    assert lab.calls() == []
