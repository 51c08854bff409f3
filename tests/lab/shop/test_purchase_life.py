"""The states of purchases on the lab's clock, for an app that polls."""
import json
import sqlite3

import pytest
from billing_lab.folder import LabError
from billing_lab.life import clock
from billing_lab.shop import state


def history(lab):
    return {
        invoice["id"]: invoice["status"]
        for invoice in json.loads(lab.call("get_purchase_history")[1])["invoices"]
        if not invoice["id"].startswith("INV-SEED")
    }


def refusal(lab, name):
    return json.loads(lab.call("confirm_purchase", invoiceid=name)[1]).get("code")


@pytest.mark.parametrize("text, seconds", [("90s", 90), ("5m", 300), ("12h", 43_200), ("30d", 2_592_000), ("7", 7), (7, 7)])
def test_a_span_is_read(text, seconds):
    assert clock.seconds_of(text) == seconds


@pytest.mark.parametrize("text", ["", "d", "-1d", "1w", "1.5d", "3661d", None, True, 1.5, "9" * 11])
def test_what_is_no_span_is_refused(text):
    with pytest.raises(clock.LifeError, match="write a span of 3660d at most"):
        clock.seconds_of(text)


def test_a_pending_purchase_is_approved_while_the_app_polls(lab):
    name = lab.buy("coins-100", approve_after="2h")["id"]
    assert (history(lab), refusal(lab, name)) == ({name: "pending"}, "pending")
    lab.advance("1h")
    assert history(lab) == {name: "pending"}
    lab.advance("1h")
    assert (history(lab), refusal(lab, name)) == ({name: "bought"}, None)


def test_a_pending_purchase_is_declined_and_may_be_bought_again(lab):
    name = lab.buy("no-ads", pending=True)["id"]
    assert lab.step(name, "decline")["status"] == "declined"
    assert (history(lab), refusal(lab, name)) == ({name: "declined"}, "declined")
    again = lab.buy("no-ads")["id"]
    assert history(lab) == {name: "declined", again: "bought"}
    with pytest.raises(LabError, match=f"{name} is declined; only a pending purchase is approved"):
        lab.step(name, "approve")


def test_a_purchase_on_another_device_appears_as_the_newest(lab):
    later, now = lab.buy("coins-100", after="10m")["id"], lab.buy("coins-100")["id"]
    assert (history(lab), refusal(lab, later)) == ({now: "bought"}, "unknown_invoice")
    assert lab.status()["ahead"][0]["step"] == "appear"
    lab.advance("10m")
    assert list(history(lab).items()) == [(later, "bought"), (now, "bought")]
    bought = {invoice["id"]: invoice["bought"] for invoice in lab.invoices()}
    assert bought[later] > bought[now]


def test_a_subscription_is_renewed_and_ends_when_the_user_ends_it(lab):
    name = lab.buy("season", period="30d")["id"]
    lab.call("get_applied_time", invoiceid=name)
    lab.call("confirm_purchase", invoiceid=name)
    first = lab.invoices()[0]["expires"]
    assert lab.advance("61d")["happened"] == 2
    found = lab.invoices()[0]
    assert (found["renewed"], found["status"], found["expires"]) == (2, "confirmed", clock.later(first, 60 * 86_400))
    lab.step(name, "unsubscribe")
    assert history(lab) == {name: "confirmed"}
    lab.advance("30d")
    assert (history(lab), refusal(lab, name)) == ({name: "expired"}, "expired")


def test_a_payment_that_fails_is_grace_and_then_the_end_or_a_renewal(lab):
    name, other = lab.buy("season", period="30d", grace="5d")["id"], lab.buy("season", period="30d", grace="5d")["id"]
    for each in (name, other):
        lab.step(each, "fail-payment")
    lab.advance("30d")
    assert history(lab) == {name: "grace", other: "grace"}
    assert lab.step(other, "renew")["status"] == "bought"
    lab.advance("5d")
    assert history(lab) == {name: "expired", other: "bought"}
    lab.advance("25d")
    assert {invoice["id"]: invoice["renewed"] for invoice in lab.invoices()[:2]} == {name: 0, other: 2}


def test_a_refund_comes_later_and_one_that_has_become_impossible_is_dropped(lab):
    name, other = lab.buy("coins-100")["id"], lab.buy("coins-100")["id"]
    lab.refund(name, after="2d")
    lab.refund(other, after="2d")
    lab.cancel(other)
    assert lab.advance("2d")["happened"] == 2
    assert history(lab) == {name: "refunded", other: "cancelled"}


def test_the_clock_dates_what_is_done_and_a_reset_sets_it_right(lab):
    lab.advance("400d")
    name = lab.buy("coins-100")["id"]
    lab.call("get_applied_time", invoiceid=name)
    found = lab.invoices()[0]
    assert found["applied"][:10] == found["bought"][:10] == lab.clock()["now"][:10]
    assert "clock: 34560000 seconds ahead" in lab.status()["unusual"]
    with pytest.raises(LabError, match="3660 are the most"):
        lab.advance("3300d")
    lab.reset()
    assert lab.clock()["ahead_seconds"] == 0 and lab.status()["ahead"] == []


@pytest.mark.parametrize(
    "wanted, said",
    [
        ({"approve_after": "1d", "decline_after": "1d"}, "a purchase is approved or declined"),
        ({"period": "1h"}, "period is '1h'; write a day or more"),
        ({"after": "soon"}, "after is 'soon'; write a span"),
    ],
)
def test_a_life_that_cannot_be_is_refused_and_nothing_is_bought(lab, wanted, said):
    before = len(lab.invoices())
    with pytest.raises(LabError, match=said):
        lab.buy("coins-100", **wanted)
    assert len(lab.invoices()) == before


def test_a_step_that_is_none_is_refused(lab):
    with pytest.raises(LabError, match="'fly' is no step of a purchase; known are appear, approve"):
        lab.step(lab.buy("coins-100")["id"], "fly")
    with pytest.raises(LabError, match="it is not an active subscription"):
        lab.step(lab.invoices()[0]["id"], "renew")


def test_the_command_line_has_the_same_words(lab, cli):
    def said(*words):
        told = cli(*words, folder=lab.folder.path)
        assert told.returncode == 0, told.stderr
        return told.stdout

    name = said("buy", "season", "--pending", "--period", "30d").split()[0]
    assert said("step", name, "approve").split()[:2] == [name, "bought"]
    assert said("refund", name, "--after", "1d").split()[:2] == [name, "bought"]
    assert "86400 seconds ahead; 1 steps happened" in said("clock", "--advance", "1d")
    assert "86400 seconds ahead" in said("clock") and said("invoices").split()[:2] == [name, "refunded"]


def test_the_folder_of_an_older_lab_is_taken(tmp_path):
    old = sqlite3.connect(tmp_path / "state")
    old.execute(
        "CREATE TABLE invoices (number INTEGER PRIMARY KEY AUTOINCREMENT, id TEXT NOT NULL UNIQUE, user TEXT, "
        "app TEXT, product TEXT, country TEXT, custom_id TEXT, bought TEXT NOT NULL, applied TEXT, "
        "confirmed TEXT, cancelled TEXT, refunded TEXT)"
    )
    old.execute("INSERT INTO invoices (id, user, bought) VALUES ('I', 'u', 't')")
    old.commit()
    old.close()
    assert state.invoices(state.open_state(tmp_path / "state"), "u")[0]["status"] == "bought"
