"""Answers defined by an app team: which requests they match, sequences, and templates with the lab's state."""
import json

import pytest
from billing_lab.folder import LabError
from billing_lab.own import answers, template
from billing_lab.shop import state
from billing_lab.shop.matching import Asked


@pytest.fixture
def memory(tmp_path):
    return state.open_state(tmp_path / "state")


def picked(memory, endpoint="confirm", **said):
    own = answers.pick(memory, Asked(endpoint, **said))
    return own and own["body"]


def test_the_most_conditions_win_and_of_several_the_latest(memory):
    for wanted in (
        {"body": "all"},
        {"invoice": "I", "app": "a", "body": "both"},
        {"invoice": "I", "body": "invoice"},
        {"app": "a", "body": "app"},
    ):
        answers.put(memory, {"endpoint": "confirm_purchase", **wanted})
    assert picked(memory) == "all"
    assert picked(memory, app="a", invoice="J") == "app"
    assert picked(memory, app="a", invoice="I") == "both"
    assert picked(memory, app="b", invoice="I") == "invoice"
    assert picked(memory, endpoint="apply") is None
    answers.put(memory, {"endpoint": "confirm", "app": "a", "invoice": "I"})
    # The answer for the app was set last.
    assert picked(memory, app="a", invoice="I") == "app"


def test_bodies_are_given_one_after_the_other(memory):
    answers.put(memory, {"endpoint": "country", "bodies": ["1", "2", "3"]})
    assert [picked(memory, "country") for _ in range(5)] == ["1", "2", "3", "3", "3"]


def test_a_template_names_state_and_its_count():
    own = {"body": '{{ invoice.id }} {{ count }} {{ answer.status | tojson }} {{ values["a"] }}', "template": True, "count": 2}
    assert answers.filled(own, {"invoice": {"id": "I"}, "answer": {"status": "ok"}, "values": {"a": "ü"}}) == (
        'I 2 "ok" ü'.encode()
    )


@pytest.mark.parametrize(
    "text, said",
    [
        ("{% for %}", "the template, line 1: "),
        ("\n{{ }", "the template, line 2: "),
        ("{{ nobody }}", "'nobody' is undefined"),
        ("{{ 1 / 0 }}", "ZeroDivisionError"),
        ("{{ ''.__class__.__mro__[1].__subclasses__() }}", "SecurityError"),
    ],
)
def test_a_wrong_template_says_so(text, said):
    with pytest.raises(template.TemplateError, match=said):
        template.filled(text, {})


@pytest.mark.parametrize(
    "wanted, said",
    [
        ({}, "an answer needs an endpoint"),
        ({"endpoint": "shop"}, "'shop' is no endpoint"),
        ({"endpoint": "country", "text": "a"}, "an answer takes no 'text'"),
        ({"endpoint": "country", "body": 5}, "a body is 5"),
        ({"endpoint": "country", "body": "{% for %}", "template": True}, "the template, line 1"),
    ],
)
def test_a_wrong_answer_is_refused(memory, wanted, said):
    with pytest.raises(ValueError, match=said):
        answers.put(memory, wanted)


REAL = b"""{"CPStatus": "{{ "100000" if answer.status == "ok" else "400111" }}", "Total": {{ invoices | length }},
"Details": [{% for one in invoices %}{"InvoiceID": {{ one.id | tojson }}, "Applied": {{ ("applied" in one) | tojson }}}
{%- if not loop.last %}, {% endif %}{% endfor %}]}"""


def test_an_app_meets_the_form_of_its_store_with_the_state_of_the_lab(lab):
    lab.answer("invoices", REAL, template=True)
    lab.answer("confirm_purchase", b'{"ConfirmResult": {{ (status == 200) | tojson }}, "at": "{{ now[:4] }}"}', template=True)
    name = lab.buy("coins-100")["id"]
    lab.call("get_applied_time", invoiceid=name)
    told = json.loads(lab.call("get_purchase_history")[1])
    assert (told["CPStatus"], told["Total"], told["Details"][0]) == ("100000", 3, {"InvoiceID": name, "Applied": True})
    assert json.loads(lab.call("confirm_purchase", invoiceid=name)[1])["ConfirmResult"] is True
    assert lab.invoices()[0]["status"] == "confirmed"
    lab.refund(name)
    assert json.loads(lab.call("confirm_purchase", invoiceid=name)[1])["ConfirmResult"] is False


def test_a_template_that_fails_is_seen_and_one_that_cannot_be_read_refused(lab):
    lab.answer("country", b"{{ nobody }}", template=True)
    assert (
        json.loads(lab.call("check_server_availability")[1])["message"] == "the template: UndefinedError: 'nobody' is undefined"
    )
    with pytest.raises(LabError, match="the template, line 1"):
        lab.answer("country", b"{{ nobody", template=True)


def test_the_command_line_sets_them_for_an_invoice_one_after_the_other(lab, cli, tmp_path):
    for number in "12":
        (tmp_path / number).write_text(number + " {{ count }}")
    told = cli(
        "answer", "apply", tmp_path / "1", tmp_path / "2", "--template", "--invoice", "INV-SEED-2", folder=lab.folder.path
    )
    assert (told.returncode, told.stdout.count("bytes of")) == (0, 2), told.stderr
    said = [lab.call("get_applied_time", invoiceid="INV-SEED-2")[1] for _ in range(3)]
    assert said == ["1 1", "2 2", "2 3"]
    assert json.loads(lab.call("get_applied_time", invoiceid="INV-SEED-1")[1])["status"] == "ok"
    assert list(lab.status()["answers"]) == ["apply invoice=INV-SEED-2"]


def recorded(tmp_path, *entries):
    file = tmp_path / "tv.har"
    file.write_text(json.dumps({"log": {"entries": list(entries)}}))
    return file


def har_entry(method, path, body, status=200, post=None, **content):
    return {
        "request": {
            "method": method,
            "url": f"https://store.example{path}",
            "postData": {"text": post or ""},
            "headers": [{"name": "Atoken", "value": "secret-token"}, {"name": "DUID", "value": "duid-of-tv"}],
        },
        "response": {"status": status, "content": {"text": body, "mimeType": "application/json", **content}},
    }


def test_a_recording_is_replayed_without_its_secrets(lab, cli, tmp_path):
    history = "/billing/service/v2/user/invoices?customid=me@example.org&GUID=guid-1&UID=me@example.org"
    file = recorded(
        tmp_path,
        har_entry("GET", "/index.html", "<html>"),
        har_entry("GET", history, '{"user": "me@example.org", "page": 1}'),
        har_entry("GET", history, "eyJ1c2VyIjogIm1lQGV4YW1wbGUub3JnIn0=", encoding="base64"),
        har_entry(
            "POST",
            "/billing/payment/v2/apply",
            '{"echo": "cust-9 secret-token"}',
            409,
            '{"customId" : "cust-9", "UID" : "me@example.org"}',
        ),
    )
    made = cli("record", file, tmp_path / "shop.json")
    assert (made.returncode, made.stdout) == (0, "invoices: 2, apply: 1\n"), made.stderr
    text = (tmp_path / "shop.json").read_text()
    assert not any(secret in text for secret in ("me@example.org", "secret-token", "cust-9", "guid-1", "duid-of-tv"))
    lab.scenario(tmp_path / "shop.json")
    assert [lab.call("get_purchase_history")[1] for _ in range(3)] == [
        '{"user": "hidden-user", "page": 1}',
        '{"user": "hidden-user"}',
        '{"user": "hidden-user"}',
    ]
    assert lab.call("get_applied_time") == (0, '{"echo": "hidden-custom-id hidden-token"}')
    assert lab.journal()[-1]["answer"]["status"] == 409


@pytest.mark.parametrize(
    "text, said",
    [
        ("{", "is no HAR file"),
        ('{"log": {"entries": [{}]}}', "is no HAR file"),
        ('{"log": {"entries": []}}', "has no answer to one of the five requests"),
    ],
)
def test_what_is_no_recording_is_refused(cli, tmp_path, text, said):
    (tmp_path / "tv.har").write_text(text)
    told = cli("record", tmp_path / "tv.har", tmp_path / "out")
    assert (told.returncode, said in told.stderr, (tmp_path / "out").exists()) == (1, True, False), told.stderr
