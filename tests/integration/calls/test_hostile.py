"""Values that contain text of a header, a request or a log line."""
import json

import pytest
from gi.repository import GLib
from harness.device.device import DUID, GUID, TOKEN, UID
from harness.methods import EVERY_CALL, answers, filled

BYTES = {"CR": "\r", "LF": "\n", "CRLF": "\r\n", "0x01": "\x01", "0x7f": "\x7f", "tab": "\t", "escape": "\x1b[31m"}
MEGABYTE = "m" * (1 << 20)

SETTINGS = [
    ("config", "db/comss/atoken"),
    ("config", "db/comss/hwduid"),
    ("config", "db/comss/countrycode"),
    ("account", "guid"),
    ("account", "login_id"),
    ("runtime", "language"),
    ("system", "vantor_server_type"),
    ("network", "default_gateway"),
    ("deployment", "production_host"),
]

HEADERS = ["Host", "Content-Type", "Accept", "DUID", "Atoken", "TvYear", "TvVersion", "Content-Length"]


def evil(text):
    return f"before{text}Host: evil{text}X-Evil: 1"


def every_record_is_one_line(process):
    return [record.text for record in process.log() if not record.whole] == []


def nothing_got_in(store):
    """The server has received whole requests only, with known headers, each header once, and no other bytes."""
    requests = store.requests
    by_connection = {}
    for request in requests:
        by_connection.setdefault(request.connection, []).append(request.raw)
        names = [line.split(":")[0] for line in request.headers]
        assert [name for name in names if name not in HEADERS] == []
        assert len(names) == len(set(names))
        assert request.headers[0].endswith(f".localhost:{store.port}")
    assert {number: b"".join(raw) for number, raw in by_connection.items()} == {
        number: received for number, received in enumerate(store.connections) if received
    }


@pytest.mark.parametrize("group, key", SETTINGS)
@pytest.mark.parametrize("byte", [name for name in BYTES if name not in ("LF", "CRLF")])
def test_a_control_byte_in_a_setting_reaches_nobody(service, caller, store, a_device, group, key, byte):
    # A line feed ends a setting, so the file cannot hold a value with one.
    a_device.set(group, key, evil(BYTES[byte]))

    answers(caller)

    nothing_got_in(store)
    assert b"evil" not in b"".join(store.connections)
    refusals = [text for text in service.texts("E") if "holds a control character" in text]
    assert len(refusals) == 1
    assert f"[{group}] {key}" in refusals[0]
    assert "evil" not in service.log_text()
    assert every_record_is_one_line(service)


@pytest.mark.parametrize("group, key", SETTINGS)
def test_a_line_break_in_a_setting_makes_another_line_of_the_file_and_no_header(service, caller, store, a_device, group, key):
    a_device.set(group, key, evil("\n"))

    answers(caller)

    nothing_got_in(store)
    assert b"evil" not in b"".join(store.connections)
    assert len([text for text in service.texts("E") if "settings: " in text]) == 1
    assert "evil" not in service.log_text()
    assert every_record_is_one_line(service)


@pytest.mark.parametrize("group, key", SETTINGS)
def test_a_megabyte_in_a_setting_is_refused_with_the_file(service, caller, store, a_device, group, key):
    a_device.set(group, key, MEGABYTE)

    answers(caller)

    nothing_got_in(store)
    assert store.requests == []
    assert len([text for text in service.texts("E") if "larger than 64 KiB" in text]) == 1
    assert every_record_is_one_line(service)


@pytest.mark.parametrize("group, key", [("config", "db/comss/atoken"), ("config", "db/comss/hwduid"), ("account", "guid")])
def test_a_long_setting_that_is_no_more_than_long_arrives_whole(service, caller, store, a_device, group, key):
    a_device.set(group, key, "m" * 50_000)

    assert caller.call("confirm_purchase", "a", "c", "i", "0") == (0, "{}")

    nothing_got_in(store)
    assert b"m" * 50_000 in store.connections[0]


def test_header_like_values_stay_values(service, caller, store, a_device):
    a_device.set("config", "db/comss/atoken", "Host: evil")
    a_device.set("config", "db/comss/hwduid", ": x : y")

    caller.call("check_server_availability")

    nothing_got_in(store)
    assert store.requests[0].headers[-2:] == ["DUID: : x : y", "Atoken: Host: evil"]


# Arguments that are part of a query. The others stand in a body or are not sent.
IN_QUERY = [("get_product_list", 0), ("get_product_list", 2)]
IN_BODY = [
    (method, i, member)
    for method in ("get_applied_time", "confirm_purchase")
    for i, member in enumerate(("appId", "customId", "invoiceId"))
]
UNSENT = [
    ("get_product_list", 1),
    ("get_applied_time", 3),
    ("confirm_purchase", 3),
    *(("get_purchase_history", i) for i in range(6)),
]


def call_with(caller, method, place, value):
    arguments = list(EVERY_CALL[method])
    arguments[place] = value
    return caller.call(method, *arguments)


@pytest.mark.parametrize("method, place", IN_QUERY)
@pytest.mark.parametrize("byte", [*BYTES, "blank"])
def test_a_byte_that_no_query_may_hold_fails_the_call_and_sends_nothing(service, caller, store, method, place, byte):
    assert call_with(caller, method, place, evil(BYTES.get(byte, " "))) == (-1, "")

    assert store.connections == []
    assert len([text for text in service.texts() if text.startswith("parameters = ")]) == 1
    assert every_record_is_one_line(service)


@pytest.mark.parametrize("method, place, member", IN_BODY)
@pytest.mark.parametrize("byte", [*BYTES, "blank"])
def test_a_byte_in_a_body_is_escaped_as_json_has_it(service, caller, store, method, place, member, byte):
    value = evil(BYTES.get(byte, " "))

    assert call_with(caller, method, place, value) == (0, "{}")

    nothing_got_in(store)
    assert json.loads(store.requests[0].body)[member] == value
    assert len([text for text in service.texts() if text.startswith("parameters = ")]) == 1
    assert every_record_is_one_line(service)


@pytest.mark.parametrize("method, place", UNSENT)
@pytest.mark.parametrize("value", ["bytes", "longest"])
def test_an_argument_that_is_not_sent_changes_nothing(service, caller, store, method, place, value):
    hostile = evil("\r\n") if value == "bytes" else filled(EVERY_CALL[method], place)[place]
    caller.call(method, *EVERY_CALL[method])

    assert call_with(caller, method, place, hostile) == (0, "{}")

    nothing_got_in(store)
    plain, attacked = store.requests
    assert plain.raw == attacked.raw
    assert every_record_is_one_line(service)


@pytest.mark.parametrize("method, place", IN_QUERY)
def test_a_long_value_in_a_query_is_sent_as_it_is(service, caller, store, method, place):
    value = filled(EVERY_CALL[method], place)[place]
    assert call_with(caller, method, place, value) == (0, "{}")

    nothing_got_in(store)
    assert value in store.requests[0].line
    assert every_record_is_one_line(service)


@pytest.mark.parametrize("method, place", IN_QUERY)
@pytest.mark.parametrize("size", [200_000, 1 << 20])
def test_a_query_that_libcurl_could_not_get_rid_of_is_refused(service, caller, store, method, place, size):
    # With more than 128 KiB of head libcurl would send the beginning and wait for the time-out.
    with pytest.raises(GLib.Error, match="at most 8192 are taken"):
        call_with(caller, method, place, "m" * size)

    assert store.requests == []
    assert every_record_is_one_line(service)
    assert caller.call("check_server_availability") == (0, "{}")


def test_shown_private_values_still_cannot_break_a_line_of_the_log(needs_view, start_daemon, caller, store):
    process = start_daemon(environment={"PLEVO_LOG_PRIVATE": "show"})
    process.wait_for_name(caller)
    forged = "\nE/BILLING_SERVICE: main.cpp: main(1) > forged"
    store.answer.body = ("body" + forged).encode()

    caller.call("confirm_purchase", "app" + forged, "c", "i", "0")

    assert every_record_is_one_line(process)
    assert not any(record.text == "forged" for record in process.log())
    assert any("body\\nE/BILLING_SERVICE" in text for text in process.texts())


def test_the_canaries_are_what_the_server_normally_sees(service, caller, store):
    # Counter-check: a normal request contains these values, so their absence in other tests proves something.
    answers(caller)
    received = b"".join(store.connections).decode()
    assert all(value in received for value in (TOKEN, DUID, GUID, UID))
