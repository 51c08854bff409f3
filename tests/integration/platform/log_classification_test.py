"""Every message of the service that prints a text is classified: each of its arguments is known to
be public or private. Reads the sources and the table beside the log."""
import ast
import os
import pathlib
import re

import pytest

ROOT = pathlib.Path(os.environ["SOURCE_ROOT"])
TABLE = ROOT / "platform/linux/log/log_private.inc"
STEPS = ROOT / "platform/linux/log/log_steps.inc"
# Where the names below are defined: their formats are their callers'.
LOG_MACROS = "BillingLog.h"
# The format follows the arguments that these take before it.
BEFORE_FORMAT = {
    "__dlog_print": 2,
    "BILLING_LOG_AS": 2,
    "BILLING_DEBUG_AS": 1,
    "BILLING_INFO_AS": 1,
    "BILLING_ERROR_AS": 1,
    "BILLING_DEBUG": 0,
    "BILLING_INFO": 0,
    "BILLING_INFO_PLAIN": 0,
    "BILLING_WARN": 0,
    "BILLING_ERROR": 0,
    "BILLING_ERROR_PLAIN": 0,
}
DEFINE = re.compile(r"^[ \t]*#[ \t]*define[ \t]+(\w+)\(([^)]*)\)((?:[^\n]*\\\n)*[^\n]*)", re.M)
TOKEN = re.compile(r'"(?:\\.|[^"\\\n])*"|\'(?:\\.|[^\'\\\n])*\'|//[^\n]*|/\*.*?\*/|.', re.S)
LITERAL = re.compile(r'"(?:\\.|[^"\\\n])*"')
CONVERSION = re.compile(r"%(?:%|[-+ #0]*(?:\d+|\*)?(?:\.(?:\d+|\*))?(?:hh|h|ll|l|z|j|t|L)?([a-zA-Z]))")
ORIGIN = "%s: %s(%d) > "
COLOURS = ["\033[0;33m", "\033[0;31m", "\033[0;m"]


def text_of(literals):
    """The text of adjacent string literals."""
    return "".join(ast.literal_eval(re.sub(r"\\e", r"\\033", text)) for text in literals)


def bare(text):
    for part in [ORIGIN] + COLOURS:
        text = text.replace(part, "")
    return text.rstrip("\n")


def conversions(text):
    return [found[1] for found in CONVERSION.finditer(text) if found[1]]


def arguments(source, start):
    """The arguments of a call as lists of tokens, from behind its opening bracket."""
    found, depth = [[]], 0
    for token in TOKEN.finditer(source, start):
        piece = token[0]
        if piece.startswith(("//", "/*")):
            continue
        depth += (piece in "([{") - (piece in ")]}")
        if depth < 0:
            return found
        if piece == "," and depth == 0:
            found.append([])
        elif not piece.isspace():
            found[-1].append(piece)
    raise AssertionError("a call without an end")


def calls_of(source, names):
    """(line, format tokens) of each call of the names, which map to the place of the format."""
    pattern = re.compile(r"\b(%s)\s*\(" % "|".join(sorted(names, key=len, reverse=True)))
    for call in pattern.finditer(source):
        line_start = source.rfind("\n", 0, call.start()) + 1
        before = source[line_start : call.start()]
        if "//" in before or re.search(r"\bint\s+$", before):  # a comment, or the declaration
            continue
        given = arguments(source, call.end())
        place = names[call[1]]
        yield source.count("\n", 0, call.start()) + 1, given[place] if place < len(given) else []


def calls(source):
    """(line, format tokens) of each log call. A macro that takes the format for one is a name of
    its own; one that brings the format itself is a call like any other."""
    names = dict(BEFORE_FORMAT)
    for macro in DEFINE.finditer(source):
        parameters = [parameter.strip() for parameter in macro[2].split(",")]
        for _, tokens in calls_of(macro[3].replace("\\\n", " \n"), names):
            if "".join(tokens) in parameters:
                names[macro[1]] = parameters.index("".join(tokens))
                source = source.replace(macro[0], "\n" * macro[0].count("\n"))
    yield from calls_of(source.replace("\\\n", " \n"), names)


def table():
    entries = re.findall(r'^MESSAGE\(("(?:\\.|[^"\\])*"), "([.pxu]*)"\)$', TABLE.read_text(encoding="utf-8"), re.M)
    return {text_of([text]): rules for text, rules in entries}


def faults(path, source, known):
    for line, tokens in calls(source):
        where = f"{path}:{line}"
        if not tokens or not all(LITERAL.fullmatch(token) for token in tokens):
            yield f"{where}: the format is not a text in the source: {' '.join(tokens)}"
            continue
        text = bare(text_of(tokens))
        kinds = conversions(text)
        if ("s" in kinds or "c" in kinds) and text not in known:
            yield f"{where}: add to {TABLE.name}, by what its texts hold: {text!r}"


def sources():
    for folder in ("service", "platform/curl", "platform/keystore", "platform/linux", "platform/process"):
        yield from (
            path for path in sorted((ROOT / folder).rglob("*")) if path.suffix in (".cpp", ".h") and path.name != LOG_MACROS
        )


def test_every_message_that_prints_a_text_is_classified():
    known = table()
    found = [fault for path in sources() for fault in faults(path.relative_to(ROOT), path.read_text(encoding="utf-8"), known)]
    assert not found, "\n" + "\n".join(found)


def test_log_calls_are_found_at_all():
    count = sum(1 for path in sources() for _ in calls(path.read_text(encoding="utf-8")))
    assert count >= 5


def test_the_table_gives_each_conversion_its_letter():
    lines = [line for line in TABLE.read_text(encoding="utf-8").splitlines() if line and not line.startswith("//")]
    known = table()
    assert len(lines) == len(known), "a line that is no entry, or an entry that stands twice"
    for text, rules in known.items():
        kinds = conversions(text)
        assert len(kinds) == len(rules), text
        assert [kind == "s" for kind in kinds] == [rule != "." for rule in rules], text


def test_each_step_of_a_call_is_a_message_of_the_service_and_stands_once():
    known = {
        bare(text_of(tokens))
        for path in sources()
        for _, tokens in calls(path.read_text(encoding="utf-8"))
        if tokens and all(LITERAL.fullmatch(token) for token in tokens)
    }
    lines = [line for line in STEPS.read_text(encoding="utf-8").splitlines() if line and not line.startswith("//")]
    steps = [text_of(re.findall(r'^STEP\(("(?:\\.|[^"\\])*")\)$', line)) for line in lines]
    assert len(set(steps)) == len(lines)
    assert [step for step in steps if step not in known] == []


@pytest.mark.parametrize(
    "source",
    [
        'BILLING_INFO("new %s", a);',
        'BILLING_INFO_AS(name(1, 2), "new "\n   "%d %s", 1, a);',
        'BILLING_ERROR("CountryCode:[%s] and more %s", a, b);',
        "BILLING_WARN(text);",
        '__dlog_print(DLOG_INFO, TAG, "%s: %s(%d) > \\e[0;33mnew %s\\e[0;m", a, b, 1, c);',
        'BILLING_DEBUG("%c", c);',
        'BILLING_INFO(PREFIX "CountryCode:[%s]", a);',
        '#define SAY(a) \\\n    BILLING_INFO("new " \\\n    "%s", a)',
        '#define SAY(x, a) \\\n    BILLING_INFO(a, x)\nSAY(1, "new %s");',
    ],
)
def test_an_unclassified_message_is_found(source):
    assert list(faults("x.cpp", source, table()))


@pytest.mark.parametrize(
    "source",
    [
        'BILLING_INFO("CountryCode:[%s]", a);',
        'BILLING_INFO("method name = %s\\n", a);',
        'BILLING_DEBUG_AS(f("(", x), "strRsp " ":%s", a);',
        'BILLING_INFO("count %d %p", 1, p);',
        '// BILLING_INFO("new %s", a);',
        'BILLING_RETURN_IF(a == "x", b);',
        '#define SAY(x, a) \\\n    BILLING_INFO(a, x)\nSAY(1, "CountryCode:[%s]");',
    ],
)
def test_a_classified_message_passes(source):
    assert not list(faults("x.cpp", source, table()))
