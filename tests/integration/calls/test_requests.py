"""The request of each method, byte for byte as the server receives it, and the answer to the caller."""
import json
import os

import pytest
from billing_lab.device.bus import OBJECT, SERVICE
from gi.repository import Gio, GLib
from harness.device.device import DUID, GUID, TOKEN, UID
from harness.methods import ARGUMENT_BYTES, EVERY_CALL, LIMITS_EXCEEDED, argument_bytes, filled

COMMON = ["Content-Type: application/json; charset=utf-8", "Accept: application/json", f"DUID: {DUID}", f"Atoken: {TOKEN}"]

PAYMENT_BODY = f"""{{
   "GUID" : "{GUID}",
   "UID" : "{UID}",
   "appId" : "app-1",
   "countryCode" : "DE",
   "customId" : "custom-1",
   "invoiceId" : "invoice-1",
   "languageCode" : "de",
   "storeId" : "1",
   "storeProdCode" : "1"
}}
"""

# Request line without its version, further header lines, body.
REQUESTS = {
    "check_server_availability": (
        f"GET /billing/service/v2/country?storeid=1&storeprodcode=1&guid={UID}&uid={UID}&lang=de&countrycode=DE",
        [],
        "",
    ),
    "get_product_list": (
        f"GET /billing/product/v2/products?appid=app-1&guid={GUID}&uid={UID}"
        "&storeid=1&storeprodcode=1&countrycode=DE&languagecode=de&checkvalue=check-1",
        [],
        "",
    ),
    "get_purchase_history": (
        f"GET /billing/service/v2/user/invoices?customid={UID}&countrycode=DE&languagecode=de"
        f"&GUID={GUID}&UID={UID}&storeid=1&storeprodcode=1&pagesize=20&startidx=1&reqtype=2",
        ["TvYear: 15", "TvVersion: 1.2"],
        "",
    ),
    "get_applied_time": ("POST /billing/payment/v2/apply", [], PAYMENT_BODY),
    "confirm_purchase": ("POST /billing/payment/v2/confirm", [], PAYMENT_BODY),
}

INTERFACE = {
    "get_product_list": ["appid", "serverType", "CheckValue"],
    "get_purchase_history": ["appid", "customId", "ItemType", "PageNumber", "CheckValue", "serverType"],
    "get_applied_time": ["appid", "customId", "invoiceid", "serverType"],
    "confirm_purchase": ["appid", "customId", "invoiceid", "serverType"],
    "check_server_availability": [],
}


@pytest.mark.parametrize("method", REQUESTS)
def test_a_method_sends_exactly_its_request_and_gives_back_the_body(service, caller, store, method):
    line, more_headers, body = REQUESTS[method]
    answer = json.dumps({"answer to": method, "text": "Grüße, 請求"}, ensure_ascii=False)
    store.answer.body = answer.encode()

    assert caller.call(method, *EVERY_CALL[method]) == (0, answer)

    lines = [f"{line} HTTP/1.1", f"Host: production.localhost:{store.port}", *COMMON, *more_headers]
    if body:
        lines.append(f"Content-Length: {len(body)}")
    expected = "\r\n".join(lines) + "\r\n\r\n" + body
    assert store.connections == [expected.encode()]


def test_the_live_object_has_exactly_the_interface(service, caller):
    node = caller.introspect()
    interface = node.lookup_interface("org.plevo.billingservice")

    described = {
        method.name: ([(a.name, a.signature) for a in method.in_args], [(a.name, a.signature) for a in method.out_args])
        for method in interface.methods
    }
    answers = [("resp_result", "i"), ("resp_info", "s")]
    assert described == {name: ([(argument, "s") for argument in arguments], answers) for name, arguments in INTERFACE.items()}
    assert [len(interface.signals), len(interface.properties)] == [0, 0]


def test_quotes_backslashes_and_other_alphabets_reach_the_server_as_the_json_writer_has_them(service, caller, store):
    application, custom, invoice = 'a"b\\c/d', "Grüße", "𝄞 \t\n\x01"
    store.answer.body = b"ok"

    assert caller.call("confirm_purchase", application, custom, invoice, "0") == (0, "ok")

    (request,) = store.requests
    sent = json.loads(request.body)
    assert (sent["appId"], sent["customId"], sent["invoiceId"]) == (application, custom, invoice)
    assert b'"appId" : "a\\"b\\\\c/d"' in request.body


def test_the_longest_text_reaches_the_server_whole(service, caller, store):
    arguments = filled(("a", "c", "", "0"), 2)
    assert argument_bytes(arguments) == ARGUMENT_BYTES

    assert caller.call("get_applied_time", *arguments) == (0, "{}")

    (request,) = store.requests
    assert json.loads(request.body)["invoiceId"] == arguments[2]
    # The client sends no "Expect: 100-continue".
    assert not any(line.startswith("Expect") for line in request.headers)


@pytest.mark.parametrize("method, place", [("get_applied_time", 2), ("get_product_list", 0), ("get_purchase_history", 3)])
def test_one_byte_more_is_refused_by_name_and_nothing_is_sent(service, caller, store, method, place):
    arguments = filled(EVERY_CALL[method], place, most=ARGUMENT_BYTES + 1)

    with pytest.raises(GLib.Error) as refused:
        caller.call(method, *arguments)

    assert Gio.DBusError.get_remote_error(refused.value) == LIMITS_EXCEEDED
    assert refused.value.message.endswith(
        f": the arguments of this call have {ARGUMENT_BYTES + 1} bytes, at most {ARGUMENT_BYTES} are taken: shorten them"
    )
    assert caller.call("check_server_availability") == (0, "{}")
    assert len(store.requests) == 1
    refusals = [text for text in service.texts("W") if "is refused: a call has" in text]
    assert refusals == [
        f"caller {caller.connection.get_unique_name()} (user {os.getuid()}) is refused: a call has "
        f"{ARGUMENT_BYTES + 1} bytes of arguments, {ARGUMENT_BYTES} are taken"
    ]
    assert not any(text.startswith("method name = " + method) for text in service.texts())


def test_a_long_call_that_wants_no_answer_gets_none(service, caller, store):
    message = Gio.DBusMessage.new_method_call(SERVICE, OBJECT, SERVICE, "confirm_purchase")
    message.set_body(GLib.Variant("(ssss)", ("a", "c", "x" * (1 << 20), "0")))
    message.set_flags(Gio.DBusMessageFlags.NO_REPLY_EXPECTED)
    seen = []
    caller.connection.add_filter(lambda _, m, incoming: (seen.append(m.get_message_type()), m)[1] if incoming else m)
    caller.connection.send_message(message, Gio.DBusSendMessageFlags.NONE)

    assert caller.call("check_server_availability") == (0, "{}")

    assert len(store.requests) == 1
    assert seen == [Gio.DBusMessageType.METHOD_RETURN]


def test_empty_texts_are_sent_as_empty_texts(service, caller, store):
    assert caller.call("get_product_list", "", "", "") == (0, "{}")
    assert caller.call("confirm_purchase", "", "", "", "") == (0, "{}")

    products, confirmation = store.requests
    assert products.line.startswith("GET /billing/product/v2/products?appid=&guid=")
    assert products.line.endswith("&checkvalue= HTTP/1.1")
    sent = json.loads(confirmation.body)
    assert (sent["appId"], sent["customId"], sent["invoiceId"]) == ("", "", "")


def test_values_go_into_a_query_as_they_are(service, caller, store):
    assert caller.call("get_product_list", "a&b=c", "", "100%/+?#") == (0, "{}")

    (request,) = store.requests
    assert "appid=a&b=c&guid=" in request.line
    # A fragment after "#" is not sent, by the rules of URLs.
    assert request.line.endswith("&checkvalue=100%/+? HTTP/1.1")


def test_the_answers_of_one_server_come_over_one_connection(service, caller, store):
    for _ in range(5):
        assert caller.call("check_server_availability") == (0, "{}")

    assert [request.connection for request in store.requests] == [0] * 5


@pytest.mark.parametrize("key, name", [("db/comss/atoken", "Atoken"), ("db/comss/hwduid", "DUID")])
def test_a_header_without_a_value_is_not_sent(service, caller, store, a_device, key, name):
    a_device.set("config", key, None)

    assert caller.call("check_server_availability") == (0, "{}")

    (request,) = store.requests
    names = [line.split(":")[0] for line in request.headers]
    assert names == [n for n in ("Host", "Content-Type", "Accept", "DUID", "Atoken") if n != name]
