"""A run as a file: exported, imported by another lab, and compared with another run."""
import json
import time

import pytest
from billing_lab.folder import LabError
from billing_lab.own.secrets import Names
from billing_lab.runs import compare, export

SCENARIO = {
    "scenario": 1,
    "device": {"country": "DE", "token": "expired"},
    "buy": [{"product": "coins-100", "as": "coins", "custom_id": "customer-77"}, {"product": "coins-100", "period": "30d"}],
    "steps": [{"invoice": "$coins", "step": "refund", "after": "2d"}],
    "advance": "1d",
    "answers": [{"endpoint": "country", "bodies": ["one", "two"], "user": "lab@example.org"}],
    "faults": [{"kind": "status", "code": 503, "endpoint": "confirm", "invoice": "$coins", "count": 2}],
    "connection": {"fault": "idle-close", "ms": 2000},
    "expect": [{"endpoint": "confirm", "invoice": "$coins", "times": 2}],
}


def used(lab):
    """A lab in which each kind of event has happened."""
    coins = lab.scenario(SCENARIO)["invoices"]["coins"]
    lab.device("token", "valid")
    lab.call("confirm_purchase", invoiceid=coins, customId="customer-77", appid="app-1")
    lab.call("get_purchase_history")
    lab.call("check_server_availability")
    return coins


def told_of(lab):
    """An export without the parts that differ between labs."""
    known = lab.export()
    return {name: value for name, value in known.items() if name not in ("made", "journal", "calls")}


def test_an_export_is_the_same_lab_again_and_its_numbers_go_on(lab):
    coins = used(lab)
    written = lab.export()
    assert len(written["journal"]) == len(written["calls"]) == 3
    lab.reset()
    told = lab.import_(written)
    assert {name: told[name] for name in ("faults", "answers", "expectations", "journal", "calls", "invoices", "left_out")} == {
        "faults": 1, "answers": 1, "expectations": 1, "journal": 3, "calls": 3, "invoices": 4, "left_out": []
    }  # fmt: skip
    again = lab.export()
    assert {**told_of(lab), "faults": [], "expectations": []} == {
        **{name: value for name, value in written.items() if name not in ("made", "journal", "calls")},
        "faults": [],
        "expectations": [],
    }
    fault = again["faults"][0]
    assert (fault["left"], fault["hits"], fault["struck"]) == (1, 1, [again["journal"][0]["seq"]])
    base = again["journal"][0]["seq"] - written["journal"][0]["seq"]
    assert base > 0 and again["journal"] == [{**entry, "seq": entry["seq"] + base} for entry in written["journal"]]
    assert [call["requests"] for call in again["calls"]] == [
        [base + seq] for call in written["calls"] for seq in call["requests"]
    ]
    # The imported run continues like the original one.
    assert lab.call("confirm_purchase", invoiceid=coins, customId="hidden-custom-id-1")[0] == 0
    assert lab.verify()["checks"][0]["ok"] and lab.faults()[0]["left"] == 0
    lab.advance("1d")
    assert next(one for one in lab.invoices() if one["id"] == coins)["status"] == "refunded"


def test_a_call_under_way_is_exported_with_its_request(lab):
    lab.fault("delay", ms=1500)
    under_way = lab.start_call("check_server_availability")
    while not (entries := lab.journal()):
        time.sleep(0.02)
    written = lab.export()
    assert [(call["requests"], "milliseconds" in call) for call in written["calls"]] == [([entries[0]["seq"]], False)]
    lab.finish_call(under_way)
    lab.import_(written)
    (again,) = lab.calls()
    assert (again["requests"], "milliseconds" in again) == ([lab.journal()[0]["seq"]], False)


def test_no_secret_stands_in_an_export(lab):
    used(lab)
    plain, written = json.dumps(lab.journal()), json.dumps(lab.export())
    entry = lab.journal()[0]
    headers = {name.lower(): value for name, value in entry["headers"]}
    guid = lab.status()["device"]["guid"]
    secrets = [headers["atoken"], headers["duid"], guid, "lab@example.org", "customer-77", lab.info["control"]["token"]]
    assert all(secret in plain for secret in secrets[:-1])
    assert [secret for secret in secrets if secret in written] == []


def test_names_are_the_same_everywhere_and_nothing_else_changes():
    names = Names()
    names.note("user", "a@b.example")
    names.note("custom-id", "me")
    names.note("custom-id", "confirm")
    told = {
        "user": "a@b.example",
        "url": "https://host/x?uid=a%40b.example&me=1",
        "base64": "YUBiLmV4YW1wbGUA/w==",
        "endpoint": "confirm",
        "custom_id": "me",
        "text": 'me, "a@b.example"',
    }
    assert names.hidden(told) == {
        "user": "hidden-user-1",
        "url": "https://host/x?uid=hidden-user-1&me=1",
        "base64": "aGlkZGVuLXVzZXItMQD/",
        "endpoint": "confirm",
        "custom_id": "hidden-custom-id-1",
        "text": 'me, "hidden-user-1"',
    }


WRONG = [
    ({"export": 2}, 'an export begins with "export": 1'),
    ({"faults": {}}, "the export's faults is {}; it must be a list"),
    ({"faults": [{"kind": "gone", "number": 1, "hits": 0, "struck": []}]}, "'gone' is no fault"),
    ({"journal": [{"kind": [], "seq": 1}]}, r"journal\[0\] is no entry of a journal"),
    ({"journal": [{"kind": "request", "seq": 1}]}, r"journal\[0\] is no entry of a journal"),
    ({"clock": {"ahead_seconds": -1}}, "clock.ahead_seconds is -1"),
    (
        {"purchases": {"invoices": [], "ahead": [{"invoice": "x", "step": "renew", "at": ""}]}},
        r"purchases.ahead\[0\] is no step",
    ),
    ({"catalogue": {"answers": {"country": {"file": "/etc/hostname"}}}}, "names a file of this machine"),
    ({"catalogue": {"lab": 1}}, "countries"),
    ({"calls": [{}]}, "no export that can be read"),
    ({"connection": {"fault": "gone"}}, "'gone' is no fault of the connection"),
]


def test_a_wrong_export_is_refused_and_changes_nothing(lab):
    invoice = lab.buy("coins-100")["id"]
    good = lab.export()
    for change, said in WRONG:
        with pytest.raises(LabError, match=said):
            lab.import_({**good, **change})
        assert lab.invoices()[0]["id"] == invoice


def test_what_no_switch_can_set_is_left_out(lab):
    written = lab.export()
    written["device"]["language"] = "!!"
    assert lab.import_(written)["left_out"] == ["device: language !!"]


def test_two_runs_are_compared_by_what_was_asked(lab):
    lab.call("check_server_availability")
    lab.call("get_applied_time", invoiceid="INV-SEED-2")
    first = lab.export()
    lab.reset()
    lab.call("check_server_availability")
    lab.call("get_applied_time", invoiceid="INV-SEED-2")
    told = lab.diff(first)
    assert told["same"] and told["requests_same"] == 2 and "catalogue" in told["compared"]
    lab.reset()
    lab.device("country", "DE")
    lab.fault("status", code=503, endpoint="apply", count=1)
    lab.call("get_applied_time", invoiceid="INV-SEED-2")
    lab.call("confirm_purchase", invoiceid="INV-SEED-2")
    told = lab.diff(first)
    assert {"what": "device.country", "first": "US", "second": "DE"} in told["settings"]
    gone, changed, new = told["requests"]
    assert "second" not in gone and gone["request"].startswith("country")
    assert "first" not in new and new["request"].startswith("confirm, ")
    assert {"what": "status", "first": 200, "second": 503} in changed["differs"]
    # Files with journals alone can be compared too.
    told = lab.diff({"journal": first["journal"]}, {"journal": lab.journal()})
    assert (told["settings"], len(told["requests"])) == ([], 3)
    assert told["compared"] == ["journal"]


def test_the_command_line_writes_takes_and_compares_files(lab, cli, tmp_path):
    folder = lab.folder.path
    used(lab)
    one, two = tmp_path / "one.json", tmp_path / "two.jsonl"
    assert cli("export", one, folder=folder).returncode == 0
    two.write_text(cli("journal", "--json", folder=folder).stdout, encoding="utf-8")
    same = cli("diff", one, one)
    assert (same.returncode, same.stdout) == (0, "0 settings differ; 3 requests the same, 0 not\n")
    assert cli("diff", one, two).returncode == 0
    told = cli("import", one, folder=folder)
    assert (told.returncode, "3 journal" in told.stdout) == (0, True)
    lab.call("confirm_purchase", invoiceid="INV-SEED-2")
    other = cli("diff", one, folder=folder)
    assert (
        other.returncode == 1
        and "confirm, app " in other.stdout
        and other.stdout.split("\n")[-2].endswith("3 requests the same, 1 not")
    )
    assert len(json.loads(cli("export", "--last", "1", folder=folder).stdout)["journal"]) == 1
    two.write_text("{}\n", encoding="utf-8")
    wrong = cli("diff", two, one)
    assert (wrong.returncode, "no entry of a journal" in wrong.stderr) == (1, True)


def test_an_export_whose_members_were_sorted_is_still_one(lab, tmp_path):
    file = tmp_path / "sorted.json"
    file.write_text(json.dumps(lab.export(), sort_keys=True, indent=2), encoding="utf-8")
    assert not file.read_text().lstrip("{ \n").startswith('"export"')
    assert lab.diff(file)["same"] and lab.import_(file)["invoices"] == 2


REQUEST = {"kind": "request", "seq": 1, "time": "", "endpoint": "", "method": "", "url": "", "headers": [], "body": {}}
REQUEST |= {"connection": 1, "handshake": "", "differences": [], "fault": None, "answer": {}}


@pytest.mark.parametrize("count", [0, 1, 2])
def test_the_lines_of_a_journal_are_read(tmp_path, count):
    entries = [{**REQUEST, "seq": seq + 1} for seq in range(count)]
    (tmp_path / "lines").write_text("".join(json.dumps(entry) + "\n" for entry in entries))
    assert export.read_file(tmp_path / "lines") == {"journal": entries}


@pytest.mark.parametrize(
    "text, said",
    [
        ('{\n"catalogue": {},\n"export": 1\n"x": 2}', "Expecting ',' delimiter: line 4 column 1"),
        ('{"export": 1} {}', "Extra data: line 1 column 15"),
        (json.dumps(REQUEST) + "\n{", "Expecting property name"),
        ("[]", "no entry of a journal"),
    ],
)
def test_a_file_that_is_neither_is_refused_with_the_place(tmp_path, text, said):
    (tmp_path / "wrong").write_text(text)
    with pytest.raises(LabError, match=f"^{tmp_path}/wrong is neither an export nor a journal: .*{said}"):
        export.read_file(tmp_path / "wrong")


def test_ten_thousand_entries_are_compared_in_time():
    entry = {
        "kind": "request", "time": "", "endpoint": "country", "method": "GET", "url": "https://a/",
        "headers": [], "body": {"bytes": 0},
        "connection": 1, "handshake": "full", "differences": [], "fault": None,
        "answer": {"status": 200, "end": "whole", "text": "x"},
    }  # fmt: skip
    first = {"journal": [{**entry, "seq": seq, "endpoint": "confirm" if seq % 7 else "country"} for seq in range(1, 10_001)]}
    second = {"journal": [{**each, "seq": each["seq"] + 5} for each in first["journal"]][:-1]}
    told = compare.compare(first, second)
    assert (told["requests_same"], len(told["requests"])) == (9_999, 1)
    assert export.FORM == 1
