"""The five methods with the lab's store: the real daemon, bus and token."""
import json
import time

import pytest
from billing_lab.folder import LabError
from billing_lab.shop import catalogue

METHODS = {
    "check_server_availability": "country",
    "get_product_list": "products",
    "get_purchase_history": "invoices",
    "get_applied_time": "apply",
    "confirm_purchase": "confirm",
}


def called(lab, method, **values):
    """The store's JSON for a call that must succeed."""
    result, text = lab.call(method, **values)
    assert result == 0, text
    return json.loads(text)


def wait_for_ends(lab, count=1):
    """The entries of the journal, after that many have ended."""
    end = time.monotonic() + 20
    while True:
        entries = lab.journal()
        if len(entries) >= count and all(e["answer"]["end"] != "under way" for e in entries):
            return entries
        assert time.monotonic() < end, entries
        time.sleep(0.02)


def test_a_purchase_goes_its_way_through_the_five_methods(lab):
    assert called(lab, "check_server_availability")["available"] is True
    products = called(lab, "get_product_list", appid="app-1")["products"]
    assert "coins-100" in [product["id"] for product in products]
    name = lab.buy("coins-100")["id"]
    assert called(lab, "get_purchase_history")["invoices"][0]["id"] == name
    applied = called(lab, "get_applied_time", invoiceid=name)
    assert called(lab, "get_applied_time", invoiceid=name) == applied
    confirmed = called(lab, "confirm_purchase", invoiceid=name)
    assert called(lab, "confirm_purchase", invoiceid=name) == confirmed
    newest = called(lab, "get_purchase_history")["invoices"][0]
    assert (newest["applied"], newest["confirmed"]) == (applied["applied"], confirmed["confirmed"])
    lab.refund(name)
    assert called(lab, "confirm_purchase", invoiceid=name)["code"] == "refunded"


def test_every_request_of_the_daemon_is_exact_and_presents_the_device(lab):
    # The connections that `reset` has closed are detected and replaced by this call.
    lab.call("check_server_availability")
    first = len(lab.journal())
    for method in METHODS:
        time.sleep(0.1)
        lab.call(method)
    entries = lab.journal()[first:]
    assert [entry["endpoint"] for entry in entries] == list(METHODS.values())
    assert [entry["differences"] for entry in entries] == [[]] * 5
    assert {entry["certificate"]["subject"] for entry in entries} == {"CN=Billing lab device"}
    assert [entry["protocol"] for entry in entries] == ["HTTP/2"] * 3 + ["HTTP/1.1"] * 2
    # GET requests share a connection; each POST has its own.
    connections = [entry["connection"] for entry in entries]
    assert len(set(connections)) == 3 and len(set(connections[:3])) == 1


# The caller's answer for each fault: its result, and a check of its text against the store's own body.
SEEN = {
    "status": ({"code": 503}, 0, lambda text, body: json.loads(text)["code"] == "fault"),
    "malformed": ({}, 0, lambda text, body: body.startswith(text) and text != body),
    "invalid-utf8": ({}, 0, lambda text, body: "\ufffd" in text),
    "delay": ({"ms": 400}, 0, lambda text, body: text == body),
    "drip": ({"ms": 1}, 0, lambda text, body: text == body),
    "truncate": ({}, -1, lambda text, body: body.startswith(text) and text != body),
    "reset": ({}, -1, lambda text, body: text == ""),
    "hang": ({"seconds": 0.5}, -1, lambda text, body: text == ""),
    "huge": ({"mib": 40}, -1, lambda text, body: set(text) <= {"x"}),
    "goaway": ({}, -1, lambda text, body: text == ""),
}
# A GET whose connection ends with its fault is sent once more and then succeeds.
ASKED_AGAIN = [("hang", "get_product_list")]


@pytest.mark.parametrize(
    "kind, method",
    [
        (kind, method)
        for kind in SEEN
        for method in ("get_product_list", "confirm_purchase")
        if (kind, method) not in ASKED_AGAIN
    ],
)
def test_a_fault_is_seen_by_the_caller(lab, kind, method):
    options, result, fits = SEEN[kind]
    values = {"invoiceid": "INV-SEED-2"} if method == "confirm_purchase" else {}
    body = lab.call(method, **values)[1]
    lab.fault(kind, endpoint=METHODS[method], **options)
    start = time.monotonic()

    got, text = lab.call(method, **values)

    assert (got, fits(text, body)) == (result, True), text[:200]
    if kind == "delay":
        assert time.monotonic() - start >= 0.4
    entry = lab.journal()[-1]
    assert (entry["fault"], entry["endpoint"]) == (kind, METHODS[method])
    lab.clear_faults()
    assert lab.call(method, **values) == (0, body)


@pytest.mark.parametrize(
    "appid",
    [
        "app-1&guid=victim&uid=victim",
        "app-1#",
        "app-1&checkvalue=v#",
        "app-1&guid=victim&uid=victim&storeid=1&storeprodcode=1&countrycode=US&languagecode=en&checkvalue=v#",
    ],
)
def test_an_argument_that_is_more_than_its_part_of_the_query_is_flagged(lab, appid):
    lab.call("get_product_list", appid="app-1%26guid=mine")
    lab.call("get_product_list", appid=appid)
    encoded, entry = lab.journal()[-2:]
    assert encoded["differences"] == []
    assert entry["differences"][0].startswith("the request line is ")


def test_a_payment_whose_connection_is_reset_reaches_the_store_once(lab):
    lab.call("check_server_availability")
    lab.fault("reset", endpoint="confirm", done=True)
    assert lab.call("confirm_purchase", invoiceid="INV-SEED-2") == (-1, "")
    assert [entry["endpoint"] for entry in wait_for_ends(lab)] == ["country", "confirm"]
    # The store has done the work; only the answer was lost.
    lab.clear_faults()
    assert "confirmed" in called(lab, "get_purchase_history")["invoices"][0]


def test_a_hanging_answer_ends_when_the_fault_is_cleared(lab):
    lab.fault("hang", endpoint="confirm")
    call = lab.start_call("confirm_purchase", invoiceid="INV-SEED-2")
    assert called(lab, "get_product_list")["status"] == "ok"
    assert not call.done
    lab.clear_faults()
    assert lab.finish_call(call) == (-1, "")


def keep_a_connection(lab):
    """Makes the daemon keep a recently used connection for GET requests."""
    lab.call("check_server_availability")
    lab.call("check_server_availability")


@pytest.mark.parametrize(
    "kind, options", [("hang", {"seconds": 0.5}), ("reset", {"count": 1}), ("goaway", {"count": 1}), ("refuse-stream", {})]
)
def test_a_question_is_asked_once_more_over_http_1_1(lab, kind, options):
    keep_a_connection(lab)
    before = len(lab.journal())
    lab.fault(kind, **options)
    assert called(lab, "check_server_availability")["available"] is True
    assert [(entry["protocol"], entry["fault"]) for entry in wait_for_ends(lab)[before:]] == [
        ("HTTP/2", kind),
        ("HTTP/1.1", None),
    ]


def test_a_payment_is_never_refused_by_a_stream(lab):
    lab.fault("refuse-stream")
    assert called(lab, "confirm_purchase", invoiceid="INV-SEED-2")["status"] == "ok"


@pytest.mark.parametrize(
    "method, values", [("check_server_availability", {}), ("confirm_purchase", {"invoiceid": "INV-SEED-2"})]
)
def test_what_is_begun_while_the_store_restarts_is_answered(lab, method, values):
    keep_a_connection(lab)
    lab.connection("restart", ms=700)
    start = time.monotonic()
    assert called(lab, method, **values)["status"] == "ok"
    assert 0.5 < time.monotonic() - start < 5


def test_a_payment_goes_through_at_once_after_all_connections_went_silent(lab):
    keep_a_connection(lab)
    lab.connection("silent")
    start = time.monotonic()
    assert called(lab, "confirm_purchase", invoiceid="INV-SEED-2")["status"] == "ok"
    assert time.monotonic() - start < 5
    lab.connection("none")
    assert lab.status()["connections"]["silent"] == 0


def test_an_idle_close_is_not_seen_by_the_caller(lab):
    lab.connection("idle-close", ms=300)
    keep_a_connection(lab)
    for method, values in (("confirm_purchase", {"invoiceid": "INV-SEED-2"}), ("get_product_list", {})):
        time.sleep(0.5)
        assert called(lab, method, **values)["status"] == "ok"
    assert [entry["endpoint"] for entry in lab.journal()][2:] == ["confirm", "products"]


@pytest.mark.parametrize("kind", ["refuse-tls", "expired", "wrong-host", "untrusted"])
def test_a_fault_of_the_connection_fails_calls_until_it_ends(lab, kind):
    assert lab.call("check_server_availability")[0] == 0
    lab.connection(kind)
    assert lab.call("check_server_availability") == (-1, "")
    assert lab.call("confirm_purchase", invoiceid="INV-SEED-2") == (-1, "")
    lab.connection("none")
    assert lab.call("check_server_availability")[0] == 0
    requests = [entry for entry in lab.journal() if entry["kind"] == "request"]
    assert [entry["endpoint"] for entry in requests] == ["country"] * 2


def test_the_device_s_switches_take_effect_at_the_next_call(lab):
    def said(switch, value, method, **values):
        lab.device(switch, value)
        result, text = lab.call(method, **values)
        return result, json.loads(text) if result == 0 else text

    assert said("gateway", "down", "check_server_availability") == (1160003, "Network error, please check!")
    assert said("gateway", "error:5", "check_server_availability")[0] == 1160003
    assert said("gateway", "up", "check_server_availability")[1]["country"] == "US"
    assert said("country", "AQ", "check_server_availability")[1]["available"] is False
    assert said("country", "DE", "get_product_list")[1]["products"][0]["price"] == "1.09"
    assert said("language", "de", "get_product_list")[1]["products"][0]["title"] == "100 Münzen"
    assert said("token", "expired", "get_product_list")[1]["code"] == "token_expired"
    assert said("token", "none", "get_product_list")[1]["code"] == "unknown_token"
    assert said("token", "valid", "get_product_list")[1]["status"] == "ok"
    assert said("signed-out", "", "get_purchase_history")[1]["code"] == "signed_out"
    assert said("signed-in", "second@example.org", "get_purchase_history")[1]["total"] == 0
    said("server", "sandbox", "check_server_availability")
    assert lab.journal()[-1]["url"].startswith(lab.info["store"]["sandbox"])
    # Each request was exactly the one that the device had to send at that moment.
    assert [entry["differences"] for entry in lab.journal()] == [[]] * len(lab.journal())


@pytest.mark.parametrize(
    "switch, value, said",
    [
        ("country", "Germany", "country 'Germany' is no code; write two capitals such as DE, or none"),
        ("country", "D\nE", "country 'D\\nE' is no code"),
        ("language", "german", "language 'german' is no locale"),
        ("server", "mine", "server 'mine' is not known; write one of production, sandbox"),
        ("gateway", "open", "gateway 'open' is not known; write up, down, auto or error:NUMBER"),
        ("token", "old", "token 'old' is not known; write one of valid, expired, none"),
        ("signed-in", "who", "the catalogue has no user 'who'; it has lab@example.org, second@example.org"),
        ("signed-out", "no", "signed-out takes no value such as 'no'; `signed-in USER` undoes it"),
        ("colour", "red", "'colour' is no switch of the device; known are signed-out"),
    ],
)
def test_a_switch_that_cannot_be_set_so_is_refused(lab, switch, value, said):
    before = lab.device()
    with pytest.raises(LabError) as caught:
        lab.device(switch, value)
    assert said in str(caught.value)
    assert lab.device() == before


def test_a_reserved_product_forces_what_it_says(lab):
    name = lab.buy("NEVER-SHIP.confirm.status.503")["id"]
    assert called(lab, "get_applied_time", invoiceid=name)["status"] == "ok"
    assert called(lab, "confirm_purchase", invoiceid=name)["code"] == "fault"
    with pytest.raises(LabError, match="declined"):
        lab.buy("NEVER-SHIP.buy.declined")


def test_a_team_s_own_body_comes_through_unchanged(lab):
    own = "<shop>Grüße\n</shop>"
    lab.answer("products", own.encode(), status=418, type="text/xml")
    assert lab.call("get_product_list") == (0, own)
    lab.answer("products", None)
    assert called(lab, "get_product_list")["status"] == "ok"


def test_reset_undoes_what_was_done_since_the_seed(lab):
    before = (lab.invoices(), lab.device())
    lab.buy("coins-100")
    lab.device("signed-in", "second@example.org")
    lab.fault("status")
    lab.connection("expired")
    lab.answer("country", b"mine")
    lab.reset()
    assert (lab.invoices(), lab.device(), lab.faults(), lab.journal()) == (*before, [], [])
    assert called(lab, "check_server_availability")["available"] is True


def test_settings_that_were_broken_by_hand_are_said_and_mended_by_reset(lab):
    before = lab.device()
    lab.folder.settings.write_text("country=DE\n")
    with pytest.raises(LabError, match="cannot be read .*; mend it, or `reset` the lab"):
        lab.device()
    # Without a host the service refuses the call and does not ask the store.
    assert lab.call("check_server_availability")[0] != 0
    lab.reset()
    assert lab.device() == before
    assert called(lab, "check_server_availability")["available"] is True


def test_another_catalogue_signs_one_of_its_users_in(lab, tmp_path):
    shop = tmp_path / "shop.json"
    shop.write_text(
        json.dumps(
            {
                "lab": 1,
                "countries": {"US": {"currency": "USD"}},
                "users": [{"uid": "u", "guid": "g"}],
                "apps": [{"id": "a", "products": [{"id": "p", "title": "P", "type": "durable", "prices": {"US": "1"}}]}],
            }
        )
    )
    assert lab.seed(shop)["products"] == 1
    assert lab.buy("p")["user"] == "u"
    assert called(lab, "get_purchase_history")["total"] == 1


def test_a_catalogue_sets_the_device_and_a_reset_does_it_again(lab, tmp_path):
    made = json.loads(catalogue.DEFAULT_FILE.read_text())
    made["device"] = {"country": "DE", "language": "de", "server": "sandbox"}
    shop = tmp_path / "shop.json"
    shop.write_text(json.dumps(made))
    lab.seed(shop)
    now = lab.device()
    assert (now["country"], now["language"], now["server"]) == ("DE", "de", "sandbox")
    assert called(lab, "get_product_list")["products"][0]["title"] == "100 M\u00fcnzen"
    lab.device("country", "US")
    lab.reset()
    assert lab.device() == now


def test_a_body_of_ones_own_is_told_and_the_catalogue_can_be_given_back(lab):
    lab.answer("country", b"\xff", status=404)
    assert lab.status()["answers"] == {
        "country": {
            "match": {"endpoint": "country"},
            "status": 404,
            "type": "application/json",
            "bytes": 1,
            "bodies": 1,
            "template": False,
        }
    }
    shown = lab.ask("GET", "/api/catalogue")
    assert lab.ask("POST", "/api/catalogue", {"text": json.dumps(shown)})["apps"] == 2
    assert lab.status()["answers"] == {}


def test_a_method_or_an_argument_that_is_none_is_refused(lab):
    with pytest.raises(LabError, match="'buy' is no method; known are check_server_availability"):
        lab.call("buy")
    with pytest.raises(LabError, match="get_product_list has no argument 'app'; it has appid"):
        lab.call("get_product_list", app="a")
