"""Every message that prints a text is classified: each of its arguments is public or private.

Reads the sources of all installed programs, and the tables beside the log. At run time the log hides the texts of a
message that is not in the table (log_format_test.cpp, log_test.py).
"""
import os
import pathlib
import re

import pytest
from log_calls import Macros, text_of

ROOT = pathlib.Path(os.environ["SOURCE_ROOT"])
FOLDERS = ("client", "platform", "service")
TABLES = {"MESSAGE": "log_private.inc", "FIELDS": "log_fields.inc", "STEP": "log_steps.inc"}
TEXT = r'"(?:\\.|[^"\\])*"'
CONVERSION = re.compile(r"%(?:%|[-+ #0]*(?:\d+|\*)?(?:\.(?:\d+|\*))?(?:hh|h|ll|l|z|j|t|L)?([a-zA-Z]))")
# Conversions that the log supports; it prints any other one unchanged.
WRITTEN = re.compile(r"%(?:%|[sp]|(?:l|ll|z)?[dux])")
ORIGIN = "%s: %s(%d) > "
COLOURS = ["\033[0;33m", "\033[0;31m", "\033[0;m"]
# The file with the macros that the samples below use.
MACROS = ROOT / "service/common/common/BillingLog.h"


def bare(text):
    for part in [ORIGIN] + COLOURS:
        text = text.replace(part, "")
    return text.rstrip("\n")


def conversions(text):
    return [found[1] for found in CONVERSION.finditer(text) if found[1]]


def rows(name):
    """[(message, its rules or names)] of the table whose rows have this name."""
    lines = (ROOT / "platform/linux/log" / TABLES[name]).read_text(encoding="utf-8").splitlines()
    whole = "\n".join(line for line in lines if not line.startswith("//"))
    row = re.compile(rf"{name}\(((?:{TEXT}\s*)+)(?:,\s*((?:{TEXT}\s*)+))?\)")
    assert row.sub("", whole).split() == [], "nothing but rows and comments"
    return [tuple("".join(map(text_of, re.findall(TEXT, part))) for part in found.groups("")) for found in row.finditer(whole)]


def classified():
    return dict(rows("MESSAGE"))


def sources():
    """{path: text}"""
    paths = (path for folder in FOLDERS for path in (ROOT / folder).rglob("*") if path.suffix in (".cpp", ".h", ".inc"))
    return {path.relative_to(ROOT): path.read_text(encoding="utf-8") for path in sorted(paths)}


def messages(given):
    """(place, text, error) of each message in the sources; one of the last two is None."""
    macros = Macros(given.values())
    for path, source in given.items():
        for line, text, wrong in macros.messages(source):
            yield f"{path}:{line}", None if text is None else bare(text), wrong


def faults(given):
    known = classified()
    for place, text, wrong in messages(given):
        if wrong is not None:
            yield f"{place}: {wrong}"
        elif {"s", "c"} & set(conversions(text)) and text not in known:
            yield f"{place}: add to {TABLES['MESSAGE']}, by what its texts hold: {text!r}"
        elif "%" in WRITTEN.sub("", text):
            yield f"{place}: a conversion that the log does not write: {text!r}"


def test_every_message_that_prints_a_text_is_classified():
    found = list(faults(sources()))
    assert not found, "\n" + "\n".join(found)


def test_the_messages_are_found_at_all():
    texts = {text for _, text, _ in messages(sources())}
    assert {"(%s) -> %s() return", "strRsp :%s", "settings: %s"} < texts, "of a macro, the service and a backend"


@pytest.mark.parametrize("name", TABLES)
def test_each_row_is_of_a_message_and_stands_once(name):
    known = {text for _, text, _ in messages(sources())}
    texts = [text for text, _ in rows(name)]
    assert len(set(texts)) == len(texts)
    left = [text for text in texts if text not in known]
    assert not left, f"no message has these texts, remove their rows from {TABLES[name]}:\n" + "\n".join(left)


def test_the_tables_give_each_conversion_its_part():
    for text, rules in rows("MESSAGE"):
        kinds = conversions(text)
        assert re.fullmatch("[.pxu]*", rules) and len(kinds) == len(rules), text
        assert [kind == "s" for kind in kinds] == [rule != "." for rule in rules], text
    for text, names in rows("FIELDS"):
        assert len(conversions(text)) == len(names.split()), text


def test_a_text_without_words_stands_at_one_place():
    """A row for it would make the values of every other message with this text public."""
    logged = [text for _, text, _ in messages(sources())]
    wordless = [text for text, _ in rows("MESSAGE") if not re.search("[A-Za-z]", CONVERSION.sub("", text))]
    assert {text: logged.count(text) for text in wordless} == dict.fromkeys(wordless, 1)


@pytest.mark.parametrize(
    "source",
    [
        'BILLING_INFO("new %s", a);',
        'BILLING_INFO_AS(name(1, 2), "new "\n   "%d %s", 1, a);',
        'BILLING_ERROR("CountryCode:[%s] and more %s", a, b);',
        "BILLING_WARN(text);",
        '__dlog_print(DLOG_INFO, TAG, "%s: %s(%d) > \\e[0;33mnew %s\\e[0;m", a, b, 1, c);',
        'BILLING_DEBUG("%c", c);',
        'BILLING_DEBUG("count %5d", count);',
        'BILLING_DEBUG("share %f", share);',
        'BILLING_DEBUG("count %hd", count);',
        'BILLING_INFO(PREFIX "CountryCode:[%s]", a);',
        '#define PREFIX "new "\nBILLING_INFO(PREFIX "CountryCode:[%s]", a);',
        '#define SAY(a) \\\n    BILLING_INFO("new " \\\n    "%s", a)',
        '#define SAY(x, a) \\\n    BILLING_INFO(a, x)\nSAY(1, "new %s");',
        '#define SAY(a, x) BILLING_INFO("CountryCode:" a, x)\nSAY("<%s>", 1);',
        '#define SAY(a, x) BILLING_INFO("CountryCode:[%s]", x); BILLING_WARN(a, x)\nSAY("new %s", 1);',
        "#define SAY(...) BILLING_INFO(__VA_ARGS__)",
        '#define SAY BILLING_INFO\nSAY("new %s", 1);',
        "auto* const say = &__dlog_print;",
        "void say(const char* text) { BILLING_INFO(text); }",
        'open("https://"); BILLING_INFO("new %s", a);',
        '/* before */ BILLING_INFO("new %s", a);',
    ],
)
def test_an_unclassified_message_is_found(source):
    assert [fault for fault in faults({"h": MACROS.read_text(), "x": source}) if fault.startswith("x:")]


def test_a_macro_of_one_file_is_known_in_another():
    given = {
        "x": 'SAY("new %s", 1);',
        "y": "#define SAY(text, a) LATER(text, a)",
        "z": "#define LATER(text, a) BILLING_INFO(text, a)",
    }
    assert [fault[:2] for fault in faults({"h": MACROS.read_text(), **given})] == ["x:"]


@pytest.mark.parametrize(
    "source",
    [
        'BILLING_INFO("CountryCode:[%s]", a);',
        'BILLING_INFO("method name = %s\\n", a);',
        'BILLING_DEBUG_AS(f("(", x), "strRsp " ":%s", a);',
        'BILLING_INFO("count %d %p", 1, p);',
        '// BILLING_INFO("new %s", a);',
        '/* BILLING_INFO("new %s", a);\n */',
        'BILLING_RETURN_IF(a == "x", b);',
        '#define SAY(x, a) \\\n    BILLING_INFO(a, x)\nSAY(1, "CountryCode:[%s]");',
        '#define SAY(a, x) BILLING_INFO("CountryCode:" a, x)\nSAY("[%s]", 1);',
    ],
)
def test_a_classified_message_passes(source):
    assert not list(faults({"h": MACROS.read_text(), "x": source}))
