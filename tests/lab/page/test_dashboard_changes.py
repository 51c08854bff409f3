"""The lab's page while other clients change the lab and a person uses it with the keyboard, and its checks."""
import threading
import time

import pytest

from page.browser import NARROW, Keys, in_a_browser


@in_a_browser
def test_what_others_change_is_shown_and_ended_with_one_button(page, lab):
    page.open()
    assert not page.one("#banner").is_displayed()
    lab.fault("hang", endpoint="confirm")
    lab.device("country", "DE")
    lab.answer("country", b"{}")
    lab.connection("idle-close", ms=60000)
    name = lab.buy("coins-100")["id"]
    page.wait(lambda: len(page.all("#unusual li")) == 4)
    assert page.texts("#unusual li") == [
        "device: country DE, usually US",
        "own answer at country",
        "fault hang at confirm",
        "connections: a connection is closed after this time without a request, not after five seconds",
    ]
    assert "hang at confirm" in page.text("#faults ul")
    page.wait(lambda: name in page.text("#invoices ul"))
    assert page.field("device", "Country").get_property("value") == "DE"
    page.picture("unusual")
    page.click("banner", "End all of it")
    page.wait(lambda: not page.one("#banner").is_displayed())
    assert (lab.faults(), lab.status()["unusual"]) == ([], [])
    assert page.field("device", "Country").get_property("value") == "US"
    lab.reset()
    page.wait(lambda: name not in page.text("#invoices ul"))


@in_a_browser
def test_a_request_that_hangs_is_shown_while_it_hangs(page, lab):
    lab.fault("hang", endpoint="country")
    page.open()
    call = lab.start_call("check_server_availability")
    page.wait(lambda: any("under way" in row for row in page.rows()))
    lab.clear_faults()
    assert lab.finish_call(call)[0] in (0, -1)
    page.wait(lambda: any("ended without an answer" in row for row in page.rows()))


SLOW_STATUS = """
    const ask = window.fetch;
    window.fetch = async (...all) => {
        const answer = await ask(...all);
        if (String(all[0]).endsWith("status")) await new Promise((done) => setTimeout(done, 1500));
        return answer;
    };"""


@in_a_browser
def test_a_request_stays_in_the_list_when_an_older_state_comes_after_it(page, lab):
    slow = page.driver.execute_cdp_cmd("Page.addScriptToEvaluateOnNewDocument", {"source": SLOW_STATUS})
    try:
        # The page asks for the state once more when it is connected; that state knows of no request.
        page.open()
    finally:
        page.driver.execute_cdp_cmd("Page.removeScriptToEvaluateOnNewDocument", slow)
    lab.call("check_server_availability")
    page.wait(lambda: page.rows())
    time.sleep(2)
    assert len(page.rows()) == 1


@in_a_browser
def test_the_answer_beside_a_call_is_its_own_or_none(page, lab):
    """Other apps send requests at the same time."""
    lab.fault("delay", ms=400, endpoint="products", app="app-1")
    page.open()
    others, stop = [], threading.Event()

    def ask():
        while not stop.is_set():
            others.append(lab.call("get_product_list", appid="app-2", CheckValue="check-2"))

    thread = threading.Thread(target=ask)
    thread.start()
    try:
        for _ in range(3):
            _, answer = page.call("get_product_list")
            sides = page.texts("#call .pair pre")
            assert sides[0] == sides[1] == answer
            page.driver.execute_script("document.querySelector('#call .answer').replaceChildren()")
    finally:
        stop.set()
        thread.join(60)
    assert others


@in_a_browser
def test_a_choice_counts_when_it_is_made_not_while_one_goes_through_the_list(page, lab):
    page.open()
    server = page.field("device", "Server")
    lab.device("server", "production")
    page.wait(lambda: server.get_property("value") == "production")
    server.send_keys(Keys.ARROW_DOWN)
    page.wait(lambda: server.get_property("value") == "sandbox")
    time.sleep(0.5)
    assert lab.status()["device"]["server"] == "production"
    server.send_keys(Keys.ENTER)
    page.wait(lambda: lab.status()["device"]["server"] == "sandbox")


@in_a_browser
def test_the_focus_stays_in_a_list_that_changes(page, lab):
    first, second = lab.buy("coins-100")["id"], lab.buy("coins-100")["id"]
    page.open()
    page.wait(lambda: second in page.text("#invoices ul"))
    page.driver.execute_script("document.querySelector(`[aria-label='Refund ${arguments[0]}']`).focus()", first)
    lab.buy("no-ads")
    page.wait(lambda: "no-ads" in page.text("#invoices ul"))
    focused = "return document.activeElement.getAttribute('aria-label')"
    assert page.driver.execute_script(focused) == f"Refund {first}"
    page.driver.switch_to.active_element.send_keys(Keys.ENTER)
    page.wait(lambda: lab.invoices()[2]["status"] == "refunded")
    page.wait(lambda: f"Refund {first}" not in page.one("#invoices ul").get_attribute("innerHTML"))
    assert page.driver.execute_script("return document.querySelector('#invoices').contains(document.activeElement)")


@in_a_browser
@pytest.mark.parametrize("scheme", ["light", "dark"])
def test_the_borders_of_controls_stand_out(page, scheme):
    page.driver.execute_cdp_cmd("Emulation.setEmulatedMedia", {"features": [{"name": "prefers-color-scheme", "value": scheme}]})
    page.open()
    border, inside, around = page.driver.execute_script(
        """
        const input = document.querySelector("#device input");
        return [getComputedStyle(input).borderTopColor, getComputedStyle(input).backgroundColor,
                getComputedStyle(input.closest("section")).backgroundColor];"""
    )

    def light(colour):
        parts = [int(part) / 255 for part in colour.removeprefix("rgb(").removesuffix(")").split(", ")]
        linear = [part / 12.92 if part <= 0.04045 else ((part + 0.055) / 1.055) ** 2.4 for part in parts]
        return 0.2126 * linear[0] + 0.7152 * linear[1] + 0.0722 * linear[2]

    for other in (inside, around):
        high, low = sorted((light(border), light(other)), reverse=True)
        assert (high + 0.05) / (low + 0.05) >= 3


@in_a_browser
def test_a_narrow_window_tells_how_a_request_ended(page, lab):
    lab.fault("status", endpoint="country")
    lab.call("check_server_availability")
    page.open(NARROW)
    page.wait(lambda: page.rows())
    ended = ".row > span:nth-child(6)"
    assert page.one(ended).is_displayed() and "fault status" in page.text(ended)
    page.picture("narrow-row")


@in_a_browser
def test_the_app_is_judged_the_clock_moved_and_a_scenario_begun(page, lab):
    page.open()
    for _ in range(2):
        lab.call("confirm_purchase", invoiceid="INV-SEED-2")
    page.click("checks", "Judge the app")
    page.wait(lambda: "INV-SEED-2 was confirmed again" in page.text("#checks .answer"))
    name = lab.buy("coins-100", pending=True)["id"]
    page.wait(lambda: name in page.text("#invoices ul"))
    page.click("invoices", "Approve")
    page.wait(lambda: lab.invoices()[0]["status"] == "bought")
    page.click("checks", "Move the clock forward")
    page.wait(lambda: "86400 s ahead" in page.text("#checks output") and "clock: 86400" in page.text("#unusual"))
    page.picture("checks")
    page.press("#checks summary", "Begin a scenario")
    text = page.one("#checks textarea")
    for wanted, said in (
        ("{", "This is no JSON"),
        ('{"scenario": 1, "faults": [{"kind": "fire"}]}', "faults[0]: 'fire' is no"),
        ('{"scenario": 1, "buy": [{"product": "no-ads", "as": "ads"}]}', "ads: INV-"),
    ):
        page.driver.execute_script("arguments[0].value = arguments[1]", text, wanted)
        page.click("checks", "Reset the lab and begin it")
        page.wait(lambda: said in page.text("#checks .said"))
    assert lab.invoices()[0]["product"] == "no-ads"
    page.expects("422")


@in_a_browser
def test_a_run_is_imported_and_compared_on_the_page(page, lab, tmp_path):
    lab.call("check_server_availability")
    file = tmp_path / "run.json"
    lab.export(file)
    lab.reset()
    lab.device("country", "DE")
    page.open()
    page.one("#runs input").send_keys(str(file))
    page.click("runs", "Compare with it")
    page.wait(lambda: "1 settings differ; 0 requests the same, 1 not." in page.text("#runs .said"))
    assert 'device.country: in the file "US", here "DE"' in page.text("#runs .answer")
    page.click("runs", "Import it")
    page.wait(lambda: "1 journal" in page.text("#runs .said"))
    page.wait(lambda: page.field("device", "Country").get_property("value") == "US")
    page.wait(lambda: [row for row in page.rows() if "GET country" in row])
    page.click("runs", "Export to a file")
    page.wait(lambda: "billing-lab.json: " in page.text("#runs .said"))


@in_a_browser
def test_a_name_for_a_mock_is_added_and_removed_on_the_page(page, lab):
    page.open()
    page.field("device", "Name for a mock").send_keys("nodots\n")
    page.wait(lambda: "is no name of a service" in page.text("#device .said"))
    page.driver.get_log("browser")  # discards the line about the refusal
    page.field("device", "Name for a mock").send_keys("." + "mock\n")
    page.wait(lambda: "nodots.mock" in page.text("#device ul"))
    assert lab.names() == ["nodots.mock"]
    page.click("device", "Remove")
    page.wait(lambda: "nodots.mock" not in page.text("#device ul"))
    assert lab.names() == []
