"""Checks of an app: which requests were made and how often, near misses, rules, and the forms of the report."""
import json
from xml.etree import ElementTree

import pytest
from billing_lab.checks import asked, report, rules
from billing_lab.folder import LabError
from billing_lab.shop.matching import MatchError


def entry(seq, endpoint, invoice="", second=0, work=True, fault=None, end="whole", **said):
    told = {"invoice": invoice, **said} if invoice else said
    return {
        "seq": seq,
        "kind": "request",
        "endpoint": endpoint,
        "headers": [["TvYear", "15"]],
        "asked": told,
        "time": f"2026-01-31T20:{second // 60:02}:{second % 60:02}.000Z",
        "work": work,
        "fault": fault,
        "answer": {"end": end},
        "differences": [],
    }


def judged(entries, **wanted):
    return asked.judge(entries, asked.read_expectation(wanted))


PURCHASE = [entry(1, "invoices"), entry(2, "apply", "A"), entry(3, "confirm", "A"), entry(4, "confirm", "B")]


@pytest.mark.parametrize(
    "wanted, ok, found",
    [
        ({"endpoint": "confirm"}, True, [3, 4]),
        ({"endpoint": "confirm", "times": 1}, False, [3, 4]),
        ({"endpoint": "confirm_purchase", "invoice": "A", "times": 1}, True, [3]),
        ({"endpoint": "confirm", "invoice": "C"}, False, []),
        ({"endpoint": "confirm", "invoice": "C", "times": 0}, True, []),
        ({"at_most": 3}, False, [1, 2, 3, 4]),
        ({"at_least": 2, "at_most": 4}, True, [1, 2, 3, 4]),
        ({"endpoint": "confirm", "after": 3, "times": 1}, True, [4]),
        ({"header": "TvYear: 15", "times": 4}, True, [1, 2, 3, 4]),
    ],
)
def test_what_was_asked_is_counted(wanted, ok, found):
    told = judged(PURCHASE, **wanted)
    assert (told["ok"], told["found"]) == (ok, found), told


def test_what_nearly_fits_is_named():
    told = judged(PURCHASE, endpoint="confirm", invoice="C", times=1)
    assert told["near"] == [
        {"seq": seq, "endpoint": "confirm", "differs": "invoice", "wanted": "C", "was": was}
        for seq, was in ((3, "A"), (4, "B"))
    ]
    assert told["message"] == (
        "confirm, invoice C: asked never, wanted once\n  near: journal 3, confirm, but invoice "
        "was 'A'\n  near: journal 4, confirm, but invoice was 'B'"
    )
    assert judged(PURCHASE, endpoint="apply", invoice="B")["near"][-1]["differs"] == "endpoint"


@pytest.mark.parametrize(
    "wanted, said",
    [
        ({"endpoint": "shop"}, "'shop' is no endpoint"),
        ({"endpoint": "products", "invoice": "A"}, "names no invoice"),
        ({"times": -1}, "times is -1"),
        ({"times": True}, "times is True"),
        ({"often": 1}, "a check takes no 'often'"),
        ({"times": 1, "at_most": 2}, "times says both bounds already"),
        ({"at_least": 3, "at_most": 2}, "nothing could fit"),
    ],
)
def test_a_check_that_can_never_hold_is_refused(wanted, said):
    with pytest.raises(MatchError, match=said):
        asked.read_expectation(wanted)


@pytest.mark.parametrize("second, broken", [(entry(2, "confirm", "A"), True), (entry(2, "confirm", "B"), False)])
def test_a_second_confirmation_breaks_a_rule(second, broken):
    found = rules.confirmed_once([entry(1, "confirm", "A"), second], [], 0)
    assert bool(found) == broken
    if broken:
        assert found[0][1] == [1, 2]


@pytest.mark.parametrize(
    "first",
    [
        entry(1, "confirm", "A", work=False),
        entry(1, "confirm", "A", fault="reset", end="reset"),
        entry(1, "confirm", "A", fault="malformed"),
        entry(1, "confirm", "A", end="the client left"),
    ],
)
def test_a_confirmation_after_one_that_got_lost_is_right(first):
    assert rules.confirmed_once([first, entry(2, "confirm", "A")], [], 0) == []


def test_a_confirmation_needs_an_application_first():
    confirmed, applied = entry(1, "confirm", "A"), entry(2, "apply", "A")
    known = [{"id": "A", "status": "confirmed", "applied": "t"}]
    assert rules.applied_first([confirmed, applied], known, 0) == [("A was confirmed before it was applied", [1])]
    assert rules.applied_first([entry(1, "apply", "A"), entry(2, "confirm", "A")], known, 0) == []
    # The invoice is applied in the catalogue already.
    assert rules.applied_first([confirmed], known, 0) == []


def test_polling_is_counted_by_the_minute():
    slow = [entry(i, "invoices", second=20 * i) for i in range(1, 20)]
    quick = [entry(i, "invoices", second=i) for i in range(1, 6)]
    assert rules.polled(slow, [], 3) == []
    assert rules.polled(quick, [], 3) == [("invoices was asked 5 times within a minute, more than 3 times", [1, 2, 3, 4, 5])]
    assert rules.polled(quick, [], 5) == []


def test_what_is_paid_and_not_confirmed_is_left():
    left = [{"id": "A", "product": "p", "status": "applied"}, {"id": "B", "product": "p", "status": "refunded"}]
    assert rules.all_confirmed([], left, 0) == [("A (p) is applied at the end, not confirmed", [])]


BAD = [entry(1, "apply", "A"), entry(2, "confirm", "A"), entry(3, "confirm", "A\x01<")]


def test_a_report_says_the_same_in_each_form():
    wanted = [asked.read_expectation({"endpoint": "confirm", "invoice": "Z\x01<", "name": "<Z>"})]
    made = report.make([*BAD, entry(4, "confirm", "A")], [], wanted, {})
    assert (made["ok"], made["requests"]) == (False, 4)
    bad = [check["name"] for check in made["checks"] if not check["ok"]]
    assert bad == ["<Z>", "confirmed-once", "applied-first"]
    suite = ElementTree.fromstring(report.junit(made)).find("testsuite")
    assert (suite.get("tests"), suite.get("failures")) == ("5", "3")
    assert [case.get("name") for case in suite if case.find("failure") is not None] == bad
    shown = report.page(made, [])
    assert "&lt;Z&gt;" in shown and "<Z>" not in shown
    assert report.text(made).endswith("2 checks good, 3 bad, 4 requests")


def test_rules_are_chosen_and_an_unknown_one_refused():
    assert [check["name"] for check in report.make([], [], [], {"more": ["all-confirmed"], "rules": ["exact"]})["checks"]] == [
        "exact",
        "all-confirmed",
    ]
    with pytest.raises(MatchError, match="'polite' is no rule; known are confirmed-once"):
        report.make([], [], [], {"rules": ["polite"]})


# With the real daemon


def buy_and_confirm(lab, times=1):
    name = lab.buy("coins-100")["id"]
    lab.call("get_applied_time", invoiceid=name)
    for _ in range(times):
        lab.call("confirm_purchase", invoiceid=name)
    return name


def test_a_test_asserts_what_its_app_asked(lab):
    name = buy_and_confirm(lab)
    (seq,) = lab.assert_asked("confirm", invoice=name, product="coins-100", times=1)
    assert lab.journal()[-1]["seq"] == seq
    with pytest.raises(AssertionError, match=f"near: journal {seq}, confirm, but invoice was '{name}'"):
        lab.assert_asked("confirm", invoice="INV-SEED-2")
    lab.assert_verified()


def test_a_double_confirmation_is_caught(lab):
    name = buy_and_confirm(lab, times=2)
    lab.expect("confirm", invoice=name, times=1, name="once")
    with pytest.raises(AssertionError) as caught:
        lab.assert_verified()
    assert f"confirmed-once: {name} was confirmed again" in str(caught.value)
    assert f"once: confirm, invoice {name}: asked 2 times, wanted once" in str(caught.value)
    lab.reset()
    assert lab.verify()["ok"] and lab.ask("GET", "/api/expectations") == []


def test_a_confirmation_that_is_asked_again_after_a_lost_answer_is_none(lab):
    lab.fault("reset", endpoint="confirm", count=1, done=True)
    buy_and_confirm(lab, times=2)
    lab.assert_verified()


# The command line


def test_the_command_line_checks_in_the_same_words(lab, cli, tmp_path):
    name = buy_and_confirm(lab, times=2)
    place = {"folder": lab.folder.path}
    told = cli("asked", "confirm_purchase", "--invoice", name, "--times", "1", **place)
    assert (told.returncode, told.stdout.split(" (")[0]) == (1, f"confirm, invoice {name}: asked 2 times, wanted once")
    assert cli("asked", "confirm", "--at-least", "2", **place).returncode == 0
    assert cli("expect", "country", "--name", "looks first", **place).returncode == 0
    xml = tmp_path / "report.xml"
    told = cli("verify", "--junit", xml, "--page", tmp_path / "report.html", **place)
    assert (told.returncode, told.stdout.split("\n")[0]) == (1, "BAD   looks first")
    assert ElementTree.parse(xml).find("testsuite").get("failures") == "2"
    assert "GET" not in (tmp_path / "report.html").read_text() and "POST confirm" in (tmp_path / "report.html").read_text()
    assert json.loads(cli("verify", "--rule", "applied-first", "--json", **place).stdout)["checks"][1]["ok"] is True


# Scenarios

SCENARIO = {
    "scenario": 1,
    "about": "the first confirmation is lost",
    "device": {"country": "DE"},
    "buy": [{"product": "coins-100", "as": "coins"}, {"product": "season", "period": "30d", "as": "pass"}],
    "steps": [{"invoice": "$pass", "step": "unsubscribe"}],
    "advance": "31d",
    "answers": [{"endpoint": "country", "body": "{}"}],
    "faults": [{"kind": "pass", "endpoint": "confirm", "count": 1}, {"kind": "reset", "invoice": "$coins", "count": 1}],
    "connection": {"fault": "idle-close", "ms": 60000},
    "expect": [{"endpoint": "confirm", "invoice": "$coins", "times": 2, "name": "asked again"}],
}


def test_a_scenario_sets_the_lab_and_demands(lab, tmp_path):
    lab.buy("no-ads")
    file = tmp_path / "lost.json"
    file.write_text(json.dumps(SCENARIO))
    told = lab.scenario(file)
    coins = told["invoices"]["coins"]
    assert told == {"invoices": {"coins": coins, "pass": told["invoices"]["pass"]}, "faults": 2, "expectations": 1}
    status = {invoice["id"]: invoice["status"] for invoice in lab.invoices()}
    assert (status[told["invoices"]["pass"]], "no-ads" in json.dumps(lab.invoices())) == ("expired", False)
    assert lab.call("check_server_availability") == (0, "{}")
    assert lab.call("confirm_purchase", invoiceid=coins)[0] == 0
    assert lab.call("confirm_purchase", invoiceid=coins)[0] == -1
    assert [check["ok"] for check in lab.verify(rules=["exact"])["checks"]] == [True, True]
    # The same scenario can be used again.
    assert lab.scenario(SCENARIO)["expectations"] == 1


@pytest.mark.parametrize(
    "part, said",
    [
        ({"scenario": 2}, 'a scenario begins with "scenario": 1'),
        ({"shop": 1}, "a scenario has no 'shop'"),
        ({"faults": [{"kind": "reset"}, {"kind": "fire"}]}, r"faults\[1\]: 'fire' is no fault"),
        (
            {"faults": [{"kind": "reset", "invoice": "$who"}]},
            "no purchase of the scenario is called 'who'; known are coins, pass",
        ),
        ({"buy": [{}]}, r"buy\[0\]: wrong form"),
        ({"device": {"server": "none"}}, "device.server: server 'none'"),
        ({"expect": {}}, "expect is {}"),
        ({"expect": [{"often": 1}]}, r"expect\[0\]: a check takes no 'often'"),
        ({"connection": {"fault": "fire"}}, "connection: 'fire' is no fault of the connection"),
    ],
)
def test_a_wrong_scenario_says_where_and_sets_nothing(lab, part, said):
    with pytest.raises(LabError, match=said):
        lab.scenario({**SCENARIO, **part})
    now = lab.status()
    assert (now["faults"], now["unusual"], lab.ask("GET", "/api/expectations")) == ([], [], [])


def test_the_file_of_a_scenario_that_cannot_be_read_is_said(lab, tmp_path):
    for text, said in (
        ("{", "no valid JSON"),
        ("[]", "a scenario is an object"),
        ('{"answers": [{"endpoint": "country", "file": "none"}]}', "its path begins at the scenario's"),
    ):
        (tmp_path / "s.json").write_text(text)
        with pytest.raises(LabError, match=said):
            lab.scenario(tmp_path / "s.json")
    with pytest.raises(LabError, match="name a scenario that can be read"):
        lab.scenario(tmp_path / "none")


APP = "billing-lab call get_applied_time invoiceid=INV-SEED-2 && billing-lab call confirm_purchase invoiceid=INV-SEED-2"


@pytest.fixture
def run(needs_view, cli, tmp_path):
    """A function that runs `billing-lab run` with a shell command as the app."""

    def ran(words, *options):
        return cli("run", *options, "--", "sh", "-c", words, folder=tmp_path / "lab")

    return ran


def test_a_run_starts_and_ends_lab_and_app_and_judges(run, tmp_path):
    good = run(APP, "--junit", tmp_path / "report.xml")
    assert (good.returncode, good.stdout.count("resp_result 0")) == (0, 2), good.stderr
    assert "4 checks good, 0 bad, 2 requests" in good.stderr
    assert ElementTree.parse(tmp_path / "report.xml").find("testsuite").get("failures") == "0"
    assert not (tmp_path / "lab" / "lab.json").exists()


@pytest.mark.parametrize("option, other", [("--junit", "--page"), ("--page", "--junit")])
def test_a_report_that_cannot_be_written_is_said_before_the_command_runs(run, tmp_path, option, other):
    for place in (tmp_path / "none" / "report", tmp_path):
        told = run(f"touch {tmp_path}/ran", other, tmp_path / "good", option, place)
        assert (told.returncode, told.stderr) == (
            1,
            f"billing-lab: {option} {place} cannot be written; name a file in a folder that you may write to\n",
        )
    assert not (tmp_path / "ran").exists() and not (tmp_path / "good").exists()


@pytest.mark.parametrize("status", [0, 7])
def test_a_run_whose_report_is_not_written_keeps_verdict_status_and_the_other_report(run, tmp_path, status):
    (tmp_path / "gone").mkdir()
    junit, page = tmp_path / "gone" / "report.xml", tmp_path / "report.html"
    told = run(f"{APP} && rmdir {tmp_path}/gone && exit {status}", "--junit", junit, "--page", page)
    assert told.returncode == (status or 1), told.stderr
    assert "4 checks good, 0 bad, 2 requests" in told.stderr
    assert f"billing-lab: --junit {junit}: No such file or directory\n" in told.stderr
    assert "The run was good" in page.read_text()


def test_verify_says_its_verdict_also_when_a_report_is_not_written(lab, cli, tmp_path):
    page, junit = tmp_path / "report.html", tmp_path / "none" / "report.xml"
    told = cli("verify", "--junit", junit, "--page", page, folder=lab.folder.path)
    assert (told.returncode, told.stderr) == (1, f"billing-lab: --junit {junit}: No such file or directory\n")
    assert "4 checks good, 0 bad, 0 requests" in told.stdout
    assert "The run was good" in page.read_text()


def test_a_run_judges_the_expectations_of_a_scenario(run, tmp_path):
    file = tmp_path / "s.json"
    file.write_text(json.dumps({"scenario": 1, "expect": [{"endpoint": "confirm", "times": 0, "name": "looks only"}]}))
    bad = run(APP, "--scenario", file)
    assert (bad.returncode, "BAD   looks only" in bad.stderr) == (1, True), bad.stderr


def test_a_run_of_an_app_that_confirms_twice_fails(run):
    bad = run(f"{APP} && billing-lab call confirm_purchase invoiceid=INV-SEED-2")
    assert (bad.returncode, "INV-SEED-2 was confirmed again" in bad.stderr) == (1, True), bad.stderr


def test_a_run_names_a_command_that_made_no_request(run):
    assert "the command made no request" in run("true").stderr
    assert "the command made no request" not in run(APP).stderr


def test_a_run_hands_the_status_on_and_ends_what_lasts(run):
    assert run("exit 7").returncode == 7
    late = run("sleep 600 & sleep 600", "--timeout", "1")
    assert (late.returncode, "took longer than 1 seconds" in late.stderr) == (124, True)


@pytest.mark.parametrize(
    "words, said",
    [((), "name the command to run"), (("--", "/none/app"), "/none/app: No such file or directory; name a command")],
)
def test_a_run_without_a_command_that_can_be_run_is_refused(needs_view, cli, words, said):
    told = cli("run", *words)
    assert (told.returncode, said in told.stderr) == (1, True), told.stderr
