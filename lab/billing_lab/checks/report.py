"""The report at the end of a run: as JSON, as JUnit's XML, and as a page."""
import html
import json
from xml.etree import ElementTree

from ..shop import journal
from ..shop.matching import MatchError
from .asked import Expectation, judge
from .rules import POLLS, RULES, USUAL, what

_STYLE = """body { font: 15px/1.5 system-ui, sans-serif; margin: 2em auto; max-width: 70em; padding: 0 1em; }
:root { color-scheme: light dark; } .good { color: #1a7f4b; } .bad { color: #c0392b; }
pre { white-space: pre-wrap; overflow-wrap: anywhere; border: 1px solid #8886; padding: .6em; border-radius: 6px; }
@media (prefers-color-scheme: dark) { .good { color: #5fc992; } .bad { color: #ff8a80; } }"""


def make(entries: list[dict], invoices: list[dict], expectations: list[Expectation], wanted: dict) -> dict:
    """Judges a run.

    @param wanted rules, names of rules (default: the usual ones); more, names of additional rules; polls, the most
    requests to an endpoint within a minute
    @return ok; checks, each with kind, name, ok, message and the numbers of entries; requests, their number
    """
    names = list(wanted.get("rules") or USUAL) + list(wanted.get("more") or ())
    for name in names:
        if name not in RULES:
            raise MatchError(f"{name!r} is no rule; known are {', '.join(RULES)}")
    polls = wanted.get("polls") or POLLS
    checks = []
    for expectation in expectations:
        told = judge(entries, expectation)
        checks.append(
            {
                "kind": "expectation",
                "name": expectation.name or told["message"].split(":")[0],
                "ok": told["ok"],
                "message": told["message"],
                "entries": told["found"],
            }
        )
    for name in dict.fromkeys(names):
        found = RULES[name](entries, invoices, polls)
        checks.append(
            {
                "kind": "rule",
                "name": name,
                "ok": not found,
                "message": "\n".join(f"{text}{_where(where)}" for text, where in found) or what(name),
                "entries": [seq for _, where in found for seq in where],
            }
        )
    requests = sum(entry["kind"] == "request" for entry in entries)
    return {"ok": all(check["ok"] for check in checks), "requests": requests, "checks": checks}


def _where(entries: list[int]) -> str:
    shown = ", ".join(map(str, entries[:10])) + (", ..." if len(entries) > 10 else "")
    return f" (journal {shown})" if entries else ""


def as_json(told: object) -> str:
    return json.dumps(told, indent=2, ensure_ascii=False)


def text(report: dict) -> str:
    """The report as lines for a terminal."""
    lines = []
    for check in report["checks"]:
        lines.append(f"{'good' if check['ok'] else 'BAD '}  {check['name']}")
        if not check["ok"]:
            lines += [f"      {line}" for line in check["message"].split("\n")]
    bad = sum(not check["ok"] for check in report["checks"])
    return "\n".join([*lines, f"{len(report['checks']) - bad} checks good, {bad} bad, {report['requests']} requests"])


def junit(report: dict) -> str:
    """The report as JUnit XML, which CI systems read."""
    bad = sum(not check["ok"] for check in report["checks"])
    suite = ElementTree.Element(
        "testsuite", name="billing-lab", tests=str(len(report["checks"])), failures=str(bad), errors="0", skipped="0"
    )
    for check in report["checks"]:
        case = ElementTree.SubElement(suite, "testcase", classname=f"billing-lab.{check['kind']}", name=_xml(check["name"]))
        if not check["ok"]:
            message = _xml(check["message"])
            ElementTree.SubElement(case, "failure", message=message.split("\n")[0]).text = message
    whole = ElementTree.Element("testsuites")
    whole.append(suite)
    return ElementTree.tostring(whole, encoding="unicode", xml_declaration=True) + "\n"


def _xml(text: str) -> str:
    """The text with U+FFFD in place of each character that XML forbids."""
    return "".join(
        c if c in "\t\n" or " " <= c <= "\ud7ff" or "\ue000" <= c <= "\ufffd" or c > "\uffff" else "\ufffd" for c in text
    )


def page(report: dict, entries: list[dict]) -> str:
    """The report as one HTML file: the checks, then the journal with one line an entry."""
    checks = "".join(
        f'<h2 class="{"good" if check["ok"] else "bad"}">{"good" if check["ok"] else "bad"}: '
        f'{html.escape(check["name"])}</h2><pre>{html.escape(check["message"])}</pre>'
        for check in report["checks"]
    )
    lines = "\n".join(journal.line_of(entry) for entry in entries)
    state = "good" if report["ok"] else "bad"
    return (
        f'<!doctype html><html lang="en"><meta charset="utf-8"><meta name="viewport" content="width=device-width, '
        f'initial-scale=1"><title>billing lab: {state}</title><style>{_STYLE}</style><h1 class="{state}">'
        f'The run was {state}</h1><p>{report["requests"]} requests.</p>{checks}<h2>Journal</h2>'
        f"<pre>{html.escape(lines)}</pre></html>\n"
    )
