"""The lab's page: what a developer sees and can do."""
import http.client
import json
import urllib.parse

import pytest
from billing_lab.device import methods
from billing_lab.shop import faults

from page.browser import ActionChains, NARROW, WIDE, Keys, Select, in_a_browser

HOSTILE = b'<img src=x onerror="document.title=1"><script>document.title=2</script>'


@in_a_browser
def test_an_empty_lab_says_what_to_do(page, lab):
    page.open()
    assert f"DBUS_SYSTEM_BUS_ADDRESS={lab.bus}" in page.text("#journal-list .empty")
    assert "not a real store" in page.text(".unreal")
    assert page.text("#faults li").startswith("No fault is on")
    page.picture("empty")


@in_a_browser
def test_a_call_is_seen_when_it_arrives_and_can_be_looked_into(page, lab):
    page.open()
    before = page.one("#journal-list").location
    lab.call("get_product_list")
    page.wait(lambda: len(page.rows()) == 1)
    assert "GET products200" in page.rows()[0]
    assert page.one("#journal-list").location == before, "nothing jumps"
    page.press(".row")
    page.wait(lambda: "exactly what this device must send" in page.text("#detail"))
    assert "coins-100" in page.text("#detail")
    page.picture("a-call")


@in_a_browser
def test_the_plot_shows_each_request_and_the_rate(page, lab):
    page.open()
    for _ in range(3):
        lab.call("get_product_list")
    page.wait(lambda: len(page.all("#plot circle")) == 3)
    # In one step: the plot is drawn anew each second.
    points = page.driver.execute_script("return document.querySelector('#plot polyline').getAttribute('points')")
    heights = {point.split(",")[1] for point in points.split()}
    assert len(heights) > 1, "the rate leaves 0"
    assert "store took (ms)" in page.text("#plot .legend")
    page.picture("plot")


@in_a_browser
def test_a_call_from_the_page_shows_both_sides(page):
    page.open()
    result, answer = page.call("get_product_list")
    assert result.startswith("resp_result 0 after ")
    assert json.loads(answer)["status"] == "ok"
    sides = page.texts("#call .pair pre")
    assert sides[0] == sides[1]


@in_a_browser
def test_a_fault_changes_the_answer_and_its_end_mends_it(page):
    page.open()
    Select(page.field("faults", "Answers")).select_by_value("reset")
    page.click("faults", "Switch this fault on")
    page.wait(lambda: "reset at every endpoint" in page.text("#faults ul"))
    assert page.call("check_server_availability")[0].startswith("resp_result -1")
    page.wait(lambda: any("fault reset" in row for row in page.rows()))
    page.picture("a-fault")
    page.click("faults", "End all faults")
    page.wait(lambda: "No fault is on" in page.text("#faults ul"))
    assert page.call("check_server_availability")[0].startswith("resp_result 0")


@in_a_browser
def test_a_fault_of_the_connection_is_a_failed_handshake(page, lab):
    page.open()
    Select(page.field("faults", "Connections")).select_by_value("refuse-tls")
    page.click("faults", "Do this to all connections")
    page.wait(lambda: lab.status()["connection"] == "refuse-tls")
    assert page.call("check_server_availability")[0].startswith("resp_result -1")
    page.wait(lambda: any("no connection" in row for row in page.rows()))
    page.click("faults", "End all faults")
    page.wait(lambda: lab.status()["connection"] == "none")


@in_a_browser
def test_connections_are_closed_silenced_and_ended_from_the_page(page, lab):
    page.open()
    choice = Select(page.field("faults", "Connections"))
    choice.select_by_value("idle-close")
    number = page.field("faults", "ms")
    assert number.get_property("placeholder") == "1000"
    page.driver.execute_script("arguments[0].value = 60000", number)
    page.click("faults", "Do this to all connections")
    page.wait(lambda: "without a request, not after five seconds, ms 60000" in page.text("#faults ul"))
    lab.call("check_server_availability")
    choice.select_by_value("silent")
    page.click("faults", "Do this to all connections")
    page.wait(lambda: "1 silent connection" in page.text("#faults ul"))
    page.picture("connections")
    choice.select_by_value("restart")
    page.click("faults", "Do this to all connections")
    page.wait(lambda: "the store is down until its restart ends" in page.text("#faults ul"))
    page.wait(lambda: "is down" not in page.text("#faults ul") and "ms 60000" in page.text("#faults ul"))
    page.click("faults", "End")
    page.wait(lambda: "No fault is on" in page.text("#faults ul"))
    assert lab.status()["connection"] == "none"


@in_a_browser
def test_the_protocol_of_a_request_is_shown(page, lab):
    lab.call("check_server_availability")
    lab.call("check_server_availability")
    page.open()
    page.wait(lambda: len(page.rows()) == 2)
    assert [row.endswith("HTTP/2, full") for row in page.rows()][1]
    page.press(".row", 1)
    page.wait(lambda: ", HTTP/2, full handshake, TLSv1." in page.text("#detail"))
    assert ":authority: production.localhost" in page.text("#detail")


@in_a_browser
def test_the_device_is_switched_at_once(page, lab):
    page.open()
    Select(page.field("device", "Network")).select_by_value("down")
    page.wait(lambda: lab.status()["device"]["gateway"] == "down")
    Select(page.field("device", "Service")).select_by_value("absent")
    page.wait(lambda: lab.status()["device"]["service"] == "absent")
    page.click("call", "Call")
    page.wait(lambda: "No answer" in (page.text("#call .answer p") or ""))
    Select(page.field("device", "Service")).select_by_value("restart")
    page.wait(lambda: page.field("device", "Service").get_property("value") == "up")
    result, answer = page.call("check_server_availability")
    assert result.startswith("resp_result 1160003")
    assert answer == "Network error, please check!"
    assert page.rows() == []


@in_a_browser
def test_what_is_bought_is_an_invoice_that_can_be_given_back(page, lab):
    page.open()
    page.click("invoices", "Buy")
    page.wait(lambda: "is bought" in page.text("#invoices .said"))
    assert "coins-100 of app-1" in page.texts("#invoices li")[0]
    bought = page.text("#invoices li strong")
    assert bought in lab.call("get_purchase_history")[1]
    page.click("invoices", "Refund")
    page.wait(lambda: f"{bought} is refunded." == page.text("#invoices .said"))


@in_a_browser
def test_a_catalogue_is_changed_and_a_wrong_one_refused(page, lab):
    page.open()
    page.press("#catalogue summary")
    text = page.one("#catalogue textarea")
    catalogue = json.loads(text.get_property("value"))
    write = "arguments[0].value = arguments[1]"
    page.driver.execute_script(write, text, '{"lab": 1,\n "apps": 5}')
    page.click("catalogue", "Seed the lab with this")
    page.wait(lambda: page.text("#catalogue .said") != "")
    assert page.text("#catalogue .said").startswith("the catalogue:1: the catalogue lacks")
    page.expects("422")
    catalogue["apps"] = catalogue["apps"][:1]
    catalogue["invoices"] = []
    page.driver.execute_script(write, text, json.dumps(catalogue))
    page.click("catalogue", "Seed the lab with this")
    page.wait(lambda: "Seeded" in page.text("#catalogue .said"))
    assert lab.status()["catalogue"]["apps"] == 1
    assert "No purchases yet." in page.text("#invoices ul")


@in_a_browser
def test_the_journal_is_filtered_and_the_filter_outlives_a_reload(page, lab):
    lab.call("get_product_list")
    lab.call("check_server_availability")
    lab.call("get_product_list", appid="nobody")
    page.open()
    page.wait(lambda: len(page.rows()) == 3)
    Select(page.one("#filter-endpoint")).select_by_value("products")
    page.wait(lambda: len(page.rows()) == 2)
    page.one("#filter-text").send_keys("NOBODY")
    page.wait(lambda: len(page.rows()) == 1)
    assert page.text("#journal-count") == "1 of 3"
    page.press(".row")
    page.driver.refresh()
    page.wait(lambda: page.text("#link") == "live" and len(page.rows()) == 1)
    assert page.one("#filter-text").get_property("value") == "NOBODY"
    assert page.selected() == [0]
    assert "appid=nobody" in page.text("#detail")
    page.one("#filter-text").send_keys(" and nothing")
    page.wait(lambda: "Nothing of the journal fits" in page.text("#journal-list"))


@in_a_browser
def test_a_hostile_body_is_shown_as_text(page, lab):
    lab.answer("products", HOSTILE)
    page.open()
    title = page.driver.title
    _, answer = page.call("get_product_list")
    assert answer == HOSTILE.decode()
    page.press(".row")
    page.wait(lambda: HOSTILE.decode() in page.text("#detail"))
    assert (page.driver.title, page.all("#detail img, #call img")) == (title, [])


@in_a_browser
def test_everything_can_be_reached_with_the_keyboard(page, lab):
    for _ in range(3):
        lab.call("check_server_availability")
    page.open()
    page.wait(lambda: len(page.rows()) == 3)
    reached = set()
    for _ in range(120):
        # Keys are not sent to the element: a file chooser would take them for a file name.
        ActionChains(page.driver).send_keys(Keys.TAB).perform()
        reached.add(
            page.driver.execute_script(
                "const e = document.activeElement; return e.closest('section')?.id + ' ' + "
                "(e.id || e.textContent).slice(0, 30)"
            )
        )
    assert {"call Call", "faults Switch this fault on", "invoices Buy", "undefined journal-list"} <= {
        item if "journal" not in item else "undefined journal-list" for item in reached
    }
    page.one("#journal-list").send_keys(Keys.HOME, Keys.ARROW_DOWN)
    page.wait(lambda: page.selected() == [1])


@in_a_browser
@pytest.mark.parametrize("scheme", ["light", "dark"])
def test_a_narrow_window_and_both_schemes_are_readable(page, lab, scheme):
    page.driver.execute_cdp_cmd("Emulation.setEmulatedMedia", {"features": [{"name": "prefers-color-scheme", "value": scheme}]})
    lab.call("get_product_list")
    for name, size in (("wide", WIDE), ("narrow", NARROW)):
        page.open(size)
        page.wait(lambda: len(page.rows()) == 1)
        page.picture(f"{name}-{scheme}")
        width = page.driver.execute_script("return [document.documentElement.scrollWidth, innerWidth]")
        assert width[0] <= width[1], "nothing is wider than the window"
        paper, ink = page.driver.execute_script(
            "const s = getComputedStyle(document.body); return [s.backgroundColor, s.color]"
        )
        assert contrast(paper, ink) > 7


def contrast(*colours):
    """Contrast ratio of two colours by the accessibility guidelines (WCAG)."""

    def light(colour):
        parts = [int(part) / 255 for part in colour.removeprefix("rgb(").rstrip(")").split(",")]
        linear = [p / 12.92 if p <= 0.03928 else ((p + 0.055) / 1.055) ** 2.4 for p in parts]
        return 0.2126 * linear[0] + 0.7152 * linear[1] + 0.0722 * linear[2]

    least, most = sorted(map(light, colours))
    return (most + 0.05) / (least + 0.05)


@in_a_browser
def test_ten_thousand_entries_are_as_quick_as_ten(page):
    page.open()
    took = page.driver.execute_async_script(
        """
        const done = arguments[0];
        import("/page/journal.js").then(async (journal) => {
          const began = performance.now();
          for (let seq = 1; seq <= 10000; seq += 1) {
            journal.add({seq: 1e6 + seq, time: "2026-01-31T20:15:00.000Z", kind: "request", endpoint: "products",
              method: "GET", url: "https://a/b", headers: [], body: {bytes: 0, text: ""}, connection: 1,
              handshake: "resumed", tls: "TLSv1.2", certificate: null, fault: null, differences: [],
              answer: {status: 200, end: "whole", bytes: 2, text: "{}", milliseconds: 1}});
          }
          const list = document.getElementById("journal-list");
          let slowest = 0;
          for (let step = 0; step < 30; step += 1) {
            const from = performance.now();
            list.scrollTop = step * 9000;
            await new Promise((next) => requestAnimationFrame(() => setTimeout(next)));
            slowest = Math.max(slowest, performance.now() - from);
          }
          done([performance.now() - began, slowest, document.querySelectorAll(".row").length]);
        });"""
    )
    print(f"10,000 entries and 30 steps {took[0]:.0f} ms, the slowest step {took[1]:.0f} ms")
    assert took[2] < 60, "only what can be seen exists"
    assert took[1] < 1000


@in_a_browser
def test_a_lab_that_is_gone_is_named(page, cli, request):
    request.addfinalizer(lambda: cli("down"))
    made = cli("up", "--json")
    assert made.returncode == 0, made.stderr
    info = json.loads(made.stdout)
    page.driver.get(info["control"]["dashboard"])
    page.wait(lambda: page.text("#link") == "live")
    assert cli("down").returncode == 0
    page.wait(lambda: "billing-lab up" in page.text("#problem"))
    assert page.text("#link") in ("reconnecting ...", "not connected")
    page.picture("gone")
    # The new lab has the same address and token, so the page reconnects by itself.
    assert cli("up").returncode == 0
    page.wait(lambda: page.text("#link") == "live" and page.text("#problem") == "")
    assert cli("buy", "coins-100").returncode == 0
    page.wait(lambda: "coins-100 of app-1" in page.text("#invoices ul"))
    page.driver.get("about:blank")
    # Chromium complains only if a request, not the stream of events, met the lab that is gone.
    page.accepts("ERR_")


@in_a_browser
def test_a_wrong_token_is_named(page, lab):
    page.driver.get("about:blank")
    page.driver.get(f"{lab.info['control']['address']}/#token=wrong")
    page.wait(lambda: "Open the address that billing-lab status prints." in page.text("#problem"))
    page.driver.get("about:blank")
    page.expects("401")


# Without a browser


@pytest.fixture
def ask(lab):
    """A function that sends requests to the control interface like a browser."""

    def run(method, path, token=True, **headers):
        host = urllib.parse.urlsplit(lab.info["control"]["address"]).netloc
        connection = http.client.HTTPConnection(host, timeout=20)
        given = {"Authorization": f"Bearer {lab.info['control']['token']}"} if token else {}
        connection.request(method, path, body="{}" if method == "POST" else None, headers={**given, **headers})
        response = connection.getresponse()
        return response.status, dict(response.getheaders()), response.read()

    return run


def test_the_page_needs_no_token_and_its_data_do(ask):
    status, headers, body = ask("GET", "/", token=False)
    assert status == 200 and b"not a real store" in body
    assert "default-src 'none'" in headers["Content-Security-Policy"]
    assert ask("GET", "/page/main.js", token=False)[1]["Content-Type"].startswith("text/javascript")
    assert ask("GET", "/page/plot.js", token=False)[0] == 200
    assert ask("GET", "/api/journal", token=False)[0] == 401
    assert ask("GET", "/page/..%2fcore.py", token=False)[0] == 404
    assert ask("GET", "/page/no-such.js", token=False)[0] == 404


@pytest.mark.parametrize(
    "headers",
    [{"Origin": "http://evil.example"}, {"Sec-Fetch-Site": "cross-site"}, {"Host": "evil.example:80"}, {"Origin": "null"}],
)
def test_another_site_may_not_use_the_lab(ask, headers):
    assert ask("POST", "/api/reset", **headers)[0] == 403
    assert ask("GET", "/", token=False, **headers)[0] == 403


def test_the_page_is_told_what_there_is(ask):
    told = json.loads(ask("GET", "/api/meta")[2])
    assert set(told["methods"]) == set(methods.METHODS)
    assert set(told["faults"]) == set(faults.KINDS)
    assert told["faults"]["delay"]["options"]["ms"]["unit"] == "milliseconds"
