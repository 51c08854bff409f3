"""The store's answers over TLS, and its state."""
import pytest
from billing_lab.life import purchase
from billing_lab.shop import purchases, state
from billing_lab.shop.store import Refusal


def buy(store, **changes):
    wanted = {"product": "coins-100", "app": "app-1", "user": "lab@example.org", "country": "US"}
    return store.do(lambda: purchases.buy(store.db, **{**wanted, **changes}))


def test_the_country_says_whether_the_store_is_there(store, client):
    said = {}
    for country in ("US", "AQ", "ZZ"):
        store.device["country"] = country
        said[country] = client.request("country")
    assert said == {
        "US": (200, {"status": "ok", "country": "US", "available": True, "currency": "USD"}),
        "AQ": (200, {"status": "ok", "country": "AQ", "available": False, "reason": "no store here"}),
        "ZZ": (200, {"status": "ok", "country": "ZZ", "available": False, "reason": "the store does not know this country"}),
    }


def test_products_are_those_of_the_app_that_the_country_has(store, client):
    def names():
        return [(product["id"], product["price"], product["currency"]) for product in client.request("products")[1]["products"]]

    assert names() == [("coins-100", "0.99", "USD"), ("no-ads", "3.99", "USD"), ("season", "9.99", "USD")]
    store.device["country"] = "KR"
    assert names() == [("coins-100", "1500", "KRW"), ("season", "14000", "KRW")]


@pytest.mark.parametrize(
    "values, status, code",
    [({"appid": "none"}, 404, "unknown_app"), ({"appid": "app-2", "checkvalue": "wrong"}, 403, "wrong_check_value")],
)
def test_products_are_refused_with_a_code(client, values, status, code):
    answered, body = client.request("products", **values)
    assert (answered, body["code"]) == (status, code)


def test_a_check_value_counts_where_the_app_has_one(client):
    assert client.request("products", appid="app-2", checkvalue="check-2")[0] == 200
    assert client.request("products", appid="app-1", checkvalue="anything")[0] == 200


def test_invoices_come_in_pages_with_the_newest_first(store, client):
    bought = [buy(store)["id"] for _ in range(23)]
    status, first = client.request("invoices")
    assert (status, first["total"], len(first["invoices"])) == (200, 25, 20)
    assert [invoice["id"] for invoice in first["invoices"]] == bought[:2:-1]
    _, second = client.request("invoices", page="pagesize=20&startidx=21")
    assert [invoice["id"] for invoice in second["invoices"]] == [*bought[2::-1], "INV-SEED-2", "INV-SEED-1"]


@pytest.mark.parametrize(
    "page", ["pagesize=0&startidx=1", "pagesize=20&startidx=", "pagesize=20&startidx=-1", "pagesize=1001&startidx=1"]
)
def test_a_page_that_is_none_is_refused(client, page):
    status, body = client.request("invoices", page=page)
    assert (status, body["code"]) == (400, "bad_request")


def test_invoices_are_those_of_the_user(store, client):
    buy(store, user="second@example.org")
    assert client.request("invoices")[1]["total"] == 2
    store.device.update(uid="second@example.org", guid="second-guid")
    assert client.request("invoices")[1]["total"] == 1


@pytest.mark.parametrize("endpoint, step", [("apply", "applied"), ("confirm", "confirmed")])
def test_a_step_is_taken_once_and_said_as_often_as_it_is_asked(store, client, endpoint, step):
    store.do(lambda: state.mark(store.db, "INV-SEED-2", step, "2001-02-03T04:05:06Z"))
    name = buy(store)["id"]
    first, again = (client.request(endpoint, invoice=name) for _ in "12")
    assert first == again == (200, {"status": "ok", "invoice": name, step: store.do(state.invoice, store.db, name)[step]})
    # A time set earlier is kept.
    assert client.request(endpoint)[1][step] == "2001-02-03T04:05:06Z"


def test_a_confirmed_invoice_is_seen_in_the_history(client):
    client.request("confirm")
    newest = client.request("invoices")[1]["invoices"][0]
    assert (newest["id"], newest["status"]) == ("INV-SEED-2", "confirmed")


@pytest.mark.parametrize(
    "change, status, code", [({"invoice": "none"}, 404, "unknown_invoice"), ({"appid": "app-2"}, 404, "unknown_invoice")]
)
def test_a_step_of_nobody_s_invoice_is_refused(client, change, status, code):
    answered, body = client.request("confirm", **change)
    assert (answered, body["code"]) == (status, code)


def test_nobody_takes_a_step_of_another_user_s_invoice(store, client):
    store.device.update(uid="second@example.org", guid="second-guid")
    assert client.request("confirm")[1]["code"] == "unknown_invoice"
    assert "confirmed" not in store.do(state.invoice, store.db, "INV-SEED-2")


def test_a_custom_id_counts_where_the_purchase_has_one(store, client):
    name = buy(store, custom_id="me")["id"]
    assert client.request("apply", invoice=name, custom="you")[1]["code"] == "wrong_custom_id"
    assert client.request("apply", invoice=name, custom="me")[0] == 200


@pytest.mark.parametrize("undo, code", [("cancel", "cancelled"), ("refund", "refunded")])
def test_what_was_undone_can_be_neither_applied_nor_confirmed(store, client, undo, code):
    name = buy(store)["id"]
    store.do(purchase.step, store.db, name, undo)
    store.do(purchase.step, store.db, name, undo)
    for endpoint in ("apply", "confirm"):
        assert (client.request(endpoint, invoice=name)[1]["code"]) == code


def test_what_was_confirmed_is_refunded_and_not_cancelled(store):
    with pytest.raises(Refusal, match="is confirmed; refund it instead"):
        store.do(purchase.step, store.db, "INV-SEED-1", "cancel")
    assert store.do(purchase.step, store.db, "INV-SEED-1", "refund")["status"] == "refunded"
    with pytest.raises(Refusal, match="there is no invoice 'none'"):
        store.do(purchase.step, store.db, "none", "refund")


def test_a_durable_is_owned_once_until_it_is_given_back(store):
    name = buy(store, product="no-ads")["id"]
    with pytest.raises(Refusal, match=f"owns no-ads already .{name}."):
        buy(store, product="no-ads")
    store.do(purchase.step, store.db, name, "refund")
    assert buy(store, product="no-ads")["id"] != name


@pytest.mark.parametrize(
    "change, said",
    [
        ({"product": "none"}, "app-1 does not sell 'none' in US; it sells coins-100, no-ads, season"),
        ({"country": "KR", "product": "no-ads"}, "app-1 does not sell 'no-ads' in KR"),
        ({"app": "none"}, "no app has the id 'none'"),
        ({"user": "none"}, "no user has the id 'none'"),
        ({"country": "AQ"}, "the store is not available in the country 'AQ'"),
        ({"product": "NEVER-SHIP.buy.declined"}, "the payment was declined"),
    ],
)
def test_a_purchase_that_cannot_be_is_refused_with_a_reason(store, change, said):
    with pytest.raises(Refusal) as caught:
        buy(store, **change)
    assert said in str(caught.value)


def test_an_id_of_the_catalogue_is_not_given_again(store):
    invoice = {"id": "INV-000004", "user": "u", "app": "a", "product": "p", "country": "US", "bought": "x"}
    store.do(state.add_invoice, store.db, invoice)
    assert [buy(store)["id"] for _ in "12"] == ["INV-000005", "INV-000006"]


@pytest.mark.parametrize(
    "change, status, code",
    [
        ({"token": "expired-token-1"}, 401, "token_expired"),
        ({"token": "other"}, 401, "unknown_token"),
        ({"uid": "", "guid": ""}, 401, "signed_out"),
        ({"uid": "lab@example.org", "guid": "second-guid"}, 403, "unknown_user"),
    ],
)
def test_who_asks_is_looked_at(store, client, change, status, code):
    store.device.update(change)
    for endpoint in ("invoices", "apply", "confirm"):
        answered, body = client.request(endpoint)
        assert (answered, body["code"]) == (status, code)


def test_a_body_of_a_team_s_own_stands_in_for_the_built_in_one(store, client, device_context):
    own = {"products": {"status": 202, "type": "text/plain", "body": "\xff own"}, "confirm": {"body": "y"}}
    store.do(state.set_fact, store.db, "answers", own)
    request = b"GET /billing/product/v2/products?appid=none HTTP/1.1\r\nHost: a\r\nAtoken: token-1\r\n\r\n"
    assert client.send(request) == (202, b"\xff own")
    assert client.send(request.replace(b"token-1", b"expired-1"))[0] == 401


def test_a_request_of_no_kind_is_answered_404(client):
    status, body = client.send(b"GET /billing HTTP/1.1\r\nHost: a\r\n\r\n")
    assert (status, b"unknown_request" in body) == (404, True)


@pytest.mark.parametrize("body", [b"", b"{", b"[]", b'{"UID": 1}', b"[" * 100_000])
def test_a_body_that_is_no_object_of_texts_is_refused(client, body):
    status, answer = client.send(
        b"POST /billing/payment/v2/apply HTTP/1.1\r\nHost: a\r\nContent-Length: %d\r\n\r\n" % len(body) + body
    )
    assert (status, b"bad_request" in answer) == (400, True)


def test_a_catalogue_takes_the_place_of_the_one_before(store, client):
    shop = {"lab": 1, "countries": {"US": {"currency": "USD"}}, "users": [], "apps": [{"id": "app-1", "products": []}]}
    buy(store)
    store.do(state.seed, store.db, shop)
    assert client.request("products")[1]["products"] == []
    assert store.do(state.invoices, store.db) == []
