"""The log: no private values, levels, one line for each record, and the order of the records."""
import json
import os
import pathlib
import subprocess
import sys

import pytest
from harness.device.device import SECRETS
from harness.journal import Journal
from harness.methods import answers
from harness.store.server import Truncate

ARGUMENTS = {
    "get_product_list": ("canary-app", "0", "canary-check"),
    "get_purchase_history": ("canary-app", "canary-custom", "canary-type", "canary-page", "canary-check", "0"),
    "confirm_purchase": ("canary-app", "canary-custom", "canary-invoice", "0"),
    "get_applied_time": ("canary-app", "canary-custom", "canary-invoice", "0"),
    "check_server_availability": (),
}
ANSWER = b'{"body": "canary-body"}'

# Private values of device, caller and server.
CANARIES = [
    *SECRETS,
    "canary-app",
    "canary-custom",
    "canary-type",
    "canary-page",
    "canary-check",
    "canary-invoice",
    "canary-body",
    "account-token",
]


def call_everything(caller, store):
    """Makes calls that succeed, that fail during the transfer, and that libcurl refuses."""
    store.answer.body = ANSWER
    for method, arguments in ARGUMENTS.items():
        assert caller.call(method, *arguments) == (0, ANSWER.decode())
    store.answer = Truncate(ANSWER, missing=1)
    for method, arguments in ARGUMENTS.items():
        assert caller.call(method, *arguments) == (-1, ANSWER.decode())
    assert caller.call("get_product_list", "canary-app with blanks", "", "canary-check")[0] == -1


@pytest.mark.parametrize("level", ["debug", "info", "warning", "error"])
def test_no_private_value_is_in_the_log_at_any_level(needs_view, start_daemon, caller, store, level):
    process = start_daemon(level=level)
    process.wait_for_name(caller)

    call_everything(caller, store)
    assert process.stop() == 0

    text = process.log_text()
    assert [canary for canary in CANARIES if canary in text] == []
    assert all(record.whole for record in process.log())


def test_private_values_are_shown_when_that_is_asked_for(needs_view, start_daemon, caller, store):
    process = start_daemon(environment={"PLEVO_LOG_PRIVATE": "show"})
    process.wait_for_name(caller)

    call_everything(caller, store)

    text = process.log_text()
    # The account's token is the only canary that no request uses.
    assert [canary for canary in CANARIES if canary not in text] == ["account-token"]
    assert "<private:" not in text


@pytest.mark.parametrize("level, letters", [("debug", "DIWE"), ("info", "IWE"), ("warning", "WE"), ("error", "E")])
def test_a_level_lets_itself_and_what_is_graver_through(needs_view, start_daemon, caller, store, level, letters):
    process = start_daemon(level=level)
    process.wait_for_name(caller)
    call_everything(caller, store)
    assert process.stop() == 0
    assert {record.priority for record in process.log()} == set(letters)


def test_without_a_level_it_is_info(needs_view, start_daemon, caller, store):
    process = start_daemon(level="")
    process.wait_for_name(caller)
    answers(caller)
    assert {record.priority for record in process.log()} == {"I", "E"}


def test_one_call_says_what_it_did_in_this_order(service, caller, store):
    # The bus shows the name's owner a moment before the daemon knows of its name.
    service.wait_for_log("was acquired")
    before = len(service.log())
    caller.call("get_product_list", "a", "0", "c")
    service.wait_until(lambda: service.texts().count("g_dbus_method_invocation_return_value") == 2, "it has answered")
    main_thread = ("DBusManager.cpp", "BillingEngine.cpp", "BillingHttpRequest.cpp")
    said = [
        record.text
        for record in service.log()[before:]
        if record.priority != "D" and record.file in main_thread
        # Leaves out records of the worker and records with pointers.
        and record.function not in ("m_GetProductsCB", "m_WriteRequestResultToPipe")
    ]
    url = f"https://production.localhost:{store.port}/billing/product/v2/products?"
    assert said[:5] == [
        "method name = get_product_list",
        "parameters = <private:15 bytes>",
        "handle get_product_list",
        "Get Network status: 1",
        said[4],
    ]
    assert said[4].startswith(f"RequestGetProducts start Url[{url}<private:")
    assert said[5].startswith("RequestGetProducts start Header: <private:")
    assert sorted(said[6:]) == sorted(
        [
            "GetProducts return 1",
            "START",
            "m_PipeCallback >>> iRespResult:[0],strRespInfo[<private:2 bytes>]==",
            "g_dbus_method_invocation_return_value",
            "g_dbus_method_invocation_return_value",
        ]
    )
    assert said[-1] == "g_dbus_method_invocation_return_value"


def test_the_journal_says_who_called_what_and_what_came_of_it(start_daemon, callers):
    receiver = pathlib.Path(__file__).parents[1] / "platform" / "journal_receiver.py"
    namespace = ["unshare", "--mount"] + ([] if os.geteuid() == 0 else ["--map-root-user"])
    if subprocess.run([*namespace, "true"], capture_output=True, check=False).returncode != 0:
        pytest.skip("no mount namespace can be had here (needs root or user namespaces)")
    process = start_daemon(view=False, level="info", tool=[*namespace, sys.executable, str(receiver)])
    first, second = callers(), callers()
    process.wait_for_name(first)
    for caller, method in ((first, "get_product_list"), (second, "get_applied_time")):
        caller.call(method, *ARGUMENTS[method])
    assert process.stop() == 0

    entries = json.loads(process.log_text())
    for caller, method in ((first, "get_product_list"), (second, "get_applied_time")):
        name = caller.connection.get_unique_name()
        said = [entry for entry in entries if entry.get("BILLING_SENDER") == name]
        # The bus library may log the caller's user before the main loop handles its call, so other entries may come
        # first.
        assert [entry["BILLING_METHOD"] for entry in said if "BILLING_METHOD" in entry] == [method]
        assert [entry["BILLING_RESULT"] for entry in said if "BILLING_RESULT" in entry] == ["-1"]
    assert any("BILLING_SENDER" not in entry for entry in entries)


@pytest.fixture
def journal(tmp_path):
    made = Journal(tmp_path)
    yield made
    made.close()


def told(journal):
    """The texts of the journal's records without file, function and line, and the size of the records in bytes."""
    records = journal.records()
    texts = [fields["MESSAGE"].partition(" > ")[2] or fields["MESSAGE"] for fields, _ in records]
    return texts, sum(size for _, size in records)


@pytest.mark.parametrize("method", ARGUMENTS)
def test_a_call_takes_three_records_of_the_journal(needs_view, start_daemon, caller, journal, method):
    process = start_daemon(level="", **journal.options)
    process.wait_for_name(caller)
    caller.call("check_server_availability")
    journal.records()

    assert caller.call(method, *ARGUMENTS[method])[0] == 0

    texts, size = told(journal)
    print(f"{method}: {len(texts)} records, {size} bytes")
    assert texts == [
        f"method name = {method}",
        "Setup SSL options",
        "m_PipeCallback >>> iRespResult:[0],strRespInfo[<private:2 bytes>]==",
    ]
    assert size < 1000


def test_a_call_that_fails_says_why_in_the_journal(needs_view, start_daemon, caller, store, journal):
    process = start_daemon(level="call", **journal.options)
    process.wait_for_name(caller)
    store.answer = Truncate(ANSWER, missing=1)
    journal.records()

    assert caller.call("get_product_list", "a", "0", "c")[0] == -1

    texts, _ = told(journal)
    assert [text for text in texts if text.startswith("MZCurl multiResult ErrorCode = 18")]
    assert [text for text in texts if text.startswith("transfer ")]
    assert "m_PipeCallback >>> iRespResult:[-1]" in texts[-1]


def test_the_level_info_keeps_each_step_in_the_journal(needs_view, start_daemon, caller, journal):
    process = start_daemon(level="info", **journal.options)
    process.wait_for_name(caller)
    caller.call("check_server_availability")
    journal.records()

    caller.call("get_product_list", "a", "0", "c")

    texts, size = told(journal)
    print(f"{len(texts)} records, {size} bytes")
    assert len(texts) >= 18
    assert "handle get_product_list" in texts


def test_the_journal_says_whose_a_caller_is_once(needs_view, start_daemon, callers, journal):
    process = start_daemon(level="", **journal.options)
    first, second = callers(), callers()
    process.wait_for_name(first)
    for caller in (first, second, first, second):
        caller.call("check_server_availability")

    said = [fields for fields, _ in journal.records() if "BILLING_UID" in fields]
    names = [caller.connection.get_unique_name() for caller in (first, second)]
    assert [fields["BILLING_SENDER"] for fields in said] == names
    assert {fields["BILLING_UID"] for fields in said} == {str(os.geteuid())}
    assert [fields["MESSAGE"].partition(" > ")[2] for fields in said] == [
        f"caller {name} is of user {os.geteuid()}" for name in names
    ]
