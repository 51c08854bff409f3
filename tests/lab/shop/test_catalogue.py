"""The catalogue file: its content after reading, and the messages about errors."""
import json
import pathlib
import time

import pytest
from billing_lab.shop import catalogue
from billing_lab.shop.json_lines import lines_of

GOOD = """{
  "lab": 1,
  "countries": {"DE": {"currency": "EUR"}},
  "apps": [
    {"id": "a",
     "products": [
       {"id": "p", "title": "P", "type": "durable", "prices": {"DE": "1.00"}}
     ]}
  ],
  "users": [{"uid": "u", "guid": "g"}],
  "invoices": [
    {"id": "i", "user": "u", "app": "a", "product": "p", "country": "DE",
     "bought": "2026-01-31T20:15:00Z"}
  ]
}"""


@pytest.fixture
def problems(tmp_path):
    """The messages about a text."""

    def of(text):
        file = tmp_path / "shop.json"
        file.write_bytes(text if isinstance(text, bytes) else text.encode())
        with pytest.raises(catalogue.CatalogueError) as caught:
            catalogue.load(file)
        return [line.removeprefix(f"{tmp_path}/") for line in str(caught.value).split("\n")]

    return of


def test_the_default_catalogue_is_good():
    assert catalogue.load(catalogue.DEFAULT_FILE)["apps"][0]["id"] == "app-1"


def test_a_good_catalogue_is_read_whole(tmp_path):
    assert catalogue.parse(GOOD, "shop.json", tmp_path) == json.loads(GOOD)


@pytest.mark.parametrize(
    "old, new, said",
    [
        ('"lab": 1,', '"lab": 2,', "shop.json:2: lab is 2; write the number 1, the version of this form"),
        ('"currency": "EUR"', '"curency": "EUR"', 'shop.json:3: countries.DE lacks "currency"; add it'),
        (
            '{"DE": {"cur',
            '{"Germany": {"cur',
            'shop.json:3: "Germany" in countries: write a country code of two capitals, such as "DE"',
        ),
        (
            '"durable"',
            '"gift"',
            'shop.json:7: apps[0].products[0].type is "gift"; write one of "consumable", "durable", "subscription"',
        ),
        ('"1.00"', "1.00", 'shop.json:7: apps[0].products[0].prices.DE is 1.0; write an amount as a text, such as "3.99"'),
        (
            '"user": "u"',
            '"user": "who"',
            'shop.json:12: invoices[0].user "who" is none of the users; add it there, or name one of "u"',
        ),
        (
            '"product": "p"',
            '"product": "q"',
            'shop.json:12: invoices[0].product "q" is none of the app\'s products; add it there, or name one of "p"',
        ),
        (
            "20:15:00Z",
            "20:15:00",
            'shop.json:13: invoices[0].bought is "2026-01-31T20:15:00"; write a time in UTC such as "2026-01-31T20:15:00Z"',
        ),
        (
            '{"id": "p"',
            '{"id": "NEVER-SHIP.buy.declined"',
            "shop.json:7: ids that begin with NEVER-SHIP. force outcomes and are never listed; name it otherwise",
        ),
        ('"users": [{"uid": "u", "guid": "g"}]', '"users": []', "shop.json:10: users is []; put at least one in"),
        (
            '{"DE": "1.00"}',
            '{"FR": "1.00"}',
            'shop.json:7: "FR" is none of the countries; add it there, or take this price out',
        ),
        ('"apps": [', '"apps": [,', "shop.json:4: no valid JSON (Expecting value); look at column 12 and just before it"),
        (
            '"id": "p"',
            '"id": "spiel-ä"',
            'shop.json:7: apps[0].products[0].id is "spiel-ä"; write a text of 1 to 128 printable ASCII characters '
            "without blanks",
        ),
        ('"lab": 1,', '"lab": 1, "lab": 1,', 'shop.json: the name "lab" stands twice in one object; take one out'),
    ],
)
def test_what_is_wrong_is_said_with_its_line_and_its_cure(problems, old, new, said):
    assert old in GOOD
    assert said in problems(GOOD.replace(old, new))


def test_everything_that_is_wrong_is_said_at_once(problems):
    text = GOOD.replace('"currency": "EUR"', '"curency": "EUR"').replace('"durable"', '"gift"')
    assert problems(text) == [
        'shop.json:3: countries.DE has an unknown member "curency"; did you mean "currency"?',
        'shop.json:3: countries.DE lacks "currency"; add it',
        'shop.json:7: apps[0].products[0].type is "gift"; write one of "consumable", "durable", "subscription"',
    ]


def test_an_id_that_stands_twice_is_said(problems):
    text = GOOD.replace('[{"uid": "u", "guid": "g"}]', '[{"uid": "u", "guid": "g"},\n{"uid": "u", "guid": "h"}]')
    assert problems(text) == ['shop.json:11: users[1].uid "u" is there already; give it another']


@pytest.mark.parametrize(
    "answer, said",
    [
        ({}, 'answers.products needs exactly one of "text", "json", "base64" and "file"'),
        ({"text": "a", "json": 1}, 'answers.products needs exactly one of "text", "json", "base64" and "file"'),
        ({"base64": "abc"}, "answers.products.base64 is no Base64; its length must be a multiple of four"),
        ({"text": "a", "status": 99}, "answers.products.status is 99; write an HTTP status, 200 to 599; 200 without it"),
    ],
)
def test_an_answer_has_one_body(problems, answer, said):
    text = GOOD.replace('"lab": 1,', '"lab": 1, "answers": {"products": %s},' % json.dumps(answer))
    assert problems(text) == [f"shop.json:2: {said}"]


def test_a_file_that_is_not_there_is_named(problems, tmp_path):
    text = GOOD.replace('"lab": 1,', '"lab": 1, "answers": {"apply": {"file": "none.json"}},')
    assert problems(text) == [f"shop.json:2: there is no file {tmp_path}/none.json; its path begins at the catalogue's folder"]


def test_a_body_comes_from_a_file_beside_the_catalogue(tmp_path):
    (tmp_path / "body.bin").write_bytes(b"\x00\xff")
    text = GOOD.replace('"lab": 1,', '"lab": 1, "answers": {"apply": {"file": "body.bin"}},')
    read = catalogue.parse(text, "shop.json", tmp_path)
    assert read["answers"]["apply"]["body"].encode("latin-1") == b"\x00\xff"


def test_a_file_that_cannot_be_read_is_said(tmp_path, problems):
    with pytest.raises(catalogue.CatalogueError, match="No such file or directory; name a catalogue"):
        catalogue.load(tmp_path / "none")
    assert problems(b'{"\xff"}') == ["shop.json: byte 3 is not UTF-8; save it as UTF-8"]


@pytest.mark.parametrize("depth", [300, 600, 100_000])
def test_a_catalogue_that_is_nested_without_end_is_refused(problems, depth):
    (said,) = problems("[" * depth + "]" * depth)
    assert "nested too deep" in said or "the catalogue is [[" in said


def test_lines_are_those_of_names_and_of_elements():
    assert lines_of('{"a":\n[1,\n"}\\"",\n{"b": 2}]\n}') == {
        (): 1,
        ("a",): 1,
        ("a", 0): 2,
        ("a", 1): 3,
        ("a", 2): 4,
        ("a", 2, "b"): 4,
    }


def test_a_title_is_told_in_the_nearest_language():
    title = {"de": "Münzen", "en": "Coins", "fr-US": "Pièces"}
    told = {code: catalogue.text_in(title, code) for code in ("de", "de-AT", "fr-US", "fr", "ko")}
    assert told == {"de": "Münzen", "de-AT": "Münzen", "fr-US": "Pièces", "fr": "Pièces", "ko": "Coins"}
    assert catalogue.text_in({"ko": "동전"}, "de") == "동전"
    assert catalogue.text_in("P", "de") == "P"


def test_a_catalogue_of_20000_products_is_read_in_the_time_of_20000():
    """Ten times as many products take about ten times as long, not a hundred times."""

    def seconds(count):
        products = [
            {"id": f"p-{i}", "title": {"en": "P"}, "type": "consumable", "prices": {"DE": "1.00"}} for i in range(count)
        ]
        made = json.loads(GOOD)
        made["apps"][0]["products"] = [*made["apps"][0]["products"], *products]
        text = json.dumps(made, indent=2)
        began = time.process_time()
        assert len(catalogue.parse(text, "shop.json", pathlib.Path("/"))["apps"][0]["products"]) == count + 1
        lines_of(text)
        return time.process_time() - began

    assert seconds(20_000) < 30 * seconds(2000)


@pytest.mark.parametrize(
    "old, new, said",
    [
        ("2026-01-31T20", "2026-13-31T20", 'shop.json:13: invoices[0].bought is "2026-13-31T20:15:00Z"; write a time in'),
        ("2026-01-31T20", "2026-02-30T20", 'shop.json:13: invoices[0].bought is "2026-02-30T20:15:00Z"; write a time in'),
        ('"lab": 1', '"lab": NaN', "shop.json: NaN is no JSON; write a number or null"),
        ('"lab": 1', '"lab": 1, "device": {"server": "none"}', 'shop.json:2: device.server is "none"; write one of'),
    ],
)
def test_what_no_calendar_and_no_json_has_is_refused(problems, old, new, said):
    (line,) = problems(GOOD.replace(old, new))
    assert line.startswith(said)


def test_what_was_read_can_be_written_and_read_again(tmp_path):
    (tmp_path / "body").write_bytes(b"\xff\x00")
    made = {
        **json.loads(GOOD),
        "answers": {
            "country": {"file": "body", "status": 404},
            "products": {"json": {"a": "\u00fc"}},
            "invoices": {"base64": "/w=="},
        },
    }
    read = catalogue.parse(json.dumps(made), "shop.json", tmp_path)
    written = catalogue.as_file(read)
    assert written["answers"] == {
        "country": {"base64": "/wA=", "status": 404},
        "products": {"text": '{"a": "\u00fc"}'},
        "invoices": {"base64": "/w=="},
    }
    assert catalogue.parse(json.dumps(written), "shop.json", tmp_path / "none") == read
