"""The forms of the lab's page: faults with conditions, own answers, expectations."""
import json

from page.browser import Select, in_a_browser


def unfold(page, section):
    page.driver.execute_script(f"document.querySelectorAll('#{section} details').forEach((one) => {{ one.open = true; }})")


def write(page, section, **values):
    for label, value in values.items():
        page.field(section, label.replace("_", " ")).send_keys(str(value))


@in_a_browser
def test_a_fault_with_every_condition(page, lab):
    invoice = lab.buy("coins-100")["id"]
    page.open()
    unfold(page, "faults")
    Select(page.field("faults", "Answers")).select_by_value("delay")
    Select(page.field("faults", "Where")).select_by_value("confirm_purchase")
    Select(page.field("faults", "The store's work")).select_by_value("false")
    write(page, "faults", choices="10, 20", App="app-1", Invoice=invoice, Product="coins-100", Custom_id="me", Header="Atoken")
    write(page, "faults", How_often=2, Let_pass_first=1, For_seconds=60, Chance=0.5, Seed=9)
    page.click("faults", "Switch this fault on")
    page.wait(lambda: "delay at confirm" in page.text("#faults ul"))
    told = lab.faults()[0]
    assert 0 < told.pop("seconds_left") <= 60
    wanted = {
        "number": 1, "kind": "delay", "choices": [10, 20], "endpoint": "confirm", "app": "app-1", "invoice": invoice, "skip": 1,
        "product": "coins-100", "custom_id": "me", "header": "Atoken", "left": 2, "chance": 0.5, "seed": 9, "done": False,
        "hits": 0, "struck": [], "over": False,
    }  # fmt: skip
    assert told == wanted


@in_a_browser
def test_own_answers_are_set_and_taken_back(page, lab):
    page.open()
    unfold(page, "answers")
    Select(page.field("answers", "Where")).select_by_value("country")
    page.one("#answers textarea").send_keys("gr\u00fcn\n---\n{{ count }}")
    page.field("answers", "Template").click()
    write(page, "answers", Status=202, Type="text/plain", User="lab@example.org")
    page.click("answers", "Answer with this")
    page.wait(lambda: "country, User lab@example.org: 202" in page.text("#answers ul"))
    assert [lab.call("check_server_availability") for _ in range(2)] == [(0, "gr\u00fcn\n"), (0, "2")]
    entry = lab.journal(last=1)[0]
    assert entry["answer"]["status"] == 202
    page.click("answers", "Built-in")
    page.wait(lambda: "the lab's own" in page.text("#answers ul"))
    assert json.loads(lab.call("check_server_availability")[1])["status"] == "ok"


@in_a_browser
def test_expectations_are_made_judged_and_forgotten(page, lab):
    page.open()
    unfold(page, "checks")
    Select(page.field("checks", "Where")).select_by_value("confirm")
    write(page, "checks", Times=1, Invoice="INV-SEED-2", Name="confirmed")
    page.click("checks", "Expect this")
    page.wait(lambda: "confirmed: 1 times" in page.text("#checks ul"))
    lab.call("get_applied_time", invoiceid="INV-SEED-2")
    page.click("checks", "Judge the app")
    page.wait(lambda: "bad: confirmed" in page.text("#checks .answer"))
    lab.call("confirm_purchase", invoiceid="INV-SEED-2")
    page.click("checks", "Is it so now?")
    page.wait(lambda: "asked once, wanted once" in page.text("#checks .said"))
    page.click("checks", "Judge the app")
    page.wait(lambda: "good: confirmed" in page.text("#checks .answer"))
    page.click("checks", "Expect nothing")
    page.wait(lambda: "Nothing more is expected" in page.text("#checks ul"))
    assert lab.verify()["checks"][0]["kind"] == "rule"
