"""Compares two runs: the labs' settings, the requests, and the answers."""
import json
import pathlib
import re
import subprocess
import tempfile
import urllib.parse
from collections.abc import Iterator

from ..folder import LabError
from .export import check, check_journal, hidden

# The parts of an export that are settings.
SETTINGS = ("catalogue", "device", "connection", "faults", "answers", "expectations", "clock", "purchases")
# Members that depend on the time of a run; they are not compared.
_PASSING = ("seconds_left", "after", "given", "struck")
_TIME = re.compile(r"[0-9]{4}-[0-9]{2}-[0-9]{2}T[0-9:.]{8,15}(Z|[+-][0-9:]{4,6})")
_ABSENT = object()
TOLD_DIFFERENCES = 20


def compare(first: dict, second: dict) -> dict:
    """Compares two exports, or objects that have only a journal. Times are not compared.

    @return same; settings, those that differ, each with a path in `what`, and its values in `first` and `second`, of which
    one is missing if only the other run has it; requests, those that differ: `first` and `second` are numbers of the
    journals, `differs` is as settings
    """
    first, second = _as_export(first), _as_export(second)
    known = [part for part in SETTINGS if part in first and part in second]
    settings = [told for part in known for told in _differences(_timeless(first[part]), _timeless(second[part]), part)]
    requests, same = _requests(first["journal"], second["journal"])
    return {
        "same": not settings and not requests,
        "settings": settings,
        "requests": requests,
        "requests_same": same,
        "compared": [*known, "journal"],
    }


def _as_export(told: dict) -> dict:
    """Checks a run, and hides the secrets of one that is only a journal: it can then be compared with an export."""
    if "export" in told:
        check(told)
        return told
    check_journal(told["journal"])
    return hidden({"journal": told["journal"]})


def _timeless(told: object) -> object:
    """@return a copy without members and texts that depend on the time of a run"""
    if isinstance(told, dict):
        return {name: _timeless(value) for name, value in told.items() if name not in _PASSING}
    if isinstance(told, list):
        return [_timeless(each) for each in told]
    return _TIME.sub("(time)", told) if isinstance(told, str) else told


def _differences(first: object, second: object, path: str) -> Iterator[dict]:
    if isinstance(first, dict) and isinstance(second, dict):
        for name in dict.fromkeys([*first, *second]):
            yield from _differences(first.get(name, _ABSENT), second.get(name, _ABSENT), f"{path}.{name}")
    elif isinstance(first, list) and isinstance(second, list):
        for place in range(max(len(first), len(second))):
            pair = [told[place] if place < len(told) else _ABSENT for told in (first, second)]
            yield from _differences(*pair, f"{path}[{place}]")
    elif first is _ABSENT or second is _ABSENT or first != second or type(first) is not type(second):
        sides = {"first": first, "second": second}
        yield {"what": path, **{side: told for side, told in sides.items() if told is not _ABSENT}}


# Requests


def _requests(first: list[dict], second: list[dict]) -> tuple[list[dict], int]:
    """@return the requests that differ, in the order of the runs, and the number of those that are the same"""
    told, same = [], 0
    left, right = iter(first), iter(second)
    for kind in _pairing(first, second):
        if kind != "=":
            side, entry = ("first", next(left)) if kind == "-" else ("second", next(right))
            told.append({side: entry["seq"], "request": name_of(entry)})
            continue
        one, other = next(left), next(right)
        differs = list(_differences(_outcome(one), _outcome(other), ""))
        same += not differs
        if differs:
            shown = [{**each, "what": each["what"].lstrip(".")} for each in differs[:TOLD_DIFFERENCES]]
            told.append({"first": one["seq"], "second": other["seq"], "request": name_of(one), "differs": shown})
    return told, same


def _pairing(first: list[dict], second: list[dict]) -> str:
    """@return one character for each request in turn: "=" in both runs, "-" only in the first, "+" only in the second

    The program diff is much faster than Python's difflib, which takes 20 seconds for 10,000 requests that are mostly alike.
    """
    with tempfile.TemporaryDirectory() as folder:
        files = [pathlib.Path(folder) / name for name in ("first", "second")]
        for file, entries in zip(files, (first, second)):
            file.write_text(
                "".join(json.dumps(_pairing_key(entry), sort_keys=True) + "\n" for entry in entries), encoding="utf-8"
            )
        formats = [f"--{kind}-line-format={mark}" for kind, mark in (("unchanged", "="), ("old", "-"), ("new", "+"))]
        done = subprocess.run(["diff", *formats, *files], capture_output=True, text=True, check=False)
    if done.returncode > 1:
        raise LabError(f"the runs could not be compared: {done.stderr.strip()}")
    return done.stdout


def _pairing_key(entry: dict) -> list:
    """The values by which requests of two runs are paired."""
    if entry["kind"] != "request":
        return [entry["kind"]]
    return [entry["method"], entry["endpoint"] or urllib.parse.urlsplit(entry["url"]).path, entry.get("asked", {})]


def _outcome(entry: dict) -> dict:
    """The other values of an entry, which are compared: without times, ports and connections, which differ in each run."""
    if entry["kind"] != "request":
        return {"reason": entry["reason"]}
    answer = entry["answer"]
    url = urllib.parse.urlsplit(entry["url"])
    return _timeless(
        {
            "query": urllib.parse.parse_qsl(url.query, keep_blank_values=True),
            "headers": [[name, value] for name, value in entry["headers"] if name.lower() not in ("host", ":authority")],
            "sent": _body(entry["body"]),
            "exact": not entry["differences"],
            "fault": entry["fault"],
            "status": answer.get("status"),
            "end": answer.get("end"),
            "answer": _body(answer),
        }
    )


def _body(told: dict) -> object:
    text = told.get("text", told.get("base64", ""))
    try:
        return json.loads(text)
    except ValueError:
        return text


def name_of(entry: dict) -> str:
    if entry["kind"] != "request":
        return f"no connection: {entry['reason']}"
    said = entry.get("asked", {})
    words = [f"{name.replace('_', ' ')} {value}" for name, value in said.items() if name != "user"]
    return ", ".join([entry["endpoint"] or entry["url"], *words])


def text(told: dict) -> str:
    """The result of compare() as lines for a terminal."""
    lines = [f"{each['what']}: {_side(each, 'first')} | {_side(each, 'second')}" for each in told["settings"]]
    for each in told["requests"]:
        if "differs" in each:
            lines.append(f"~ {each['first']} | {each['second']}  {each['request']}")
            lines += [f"    {one['what']}: {_side(one, 'first')} | {_side(one, 'second')}" for one in each["differs"]]
        else:
            lines.append(
                f"- {each['first']} |  {each['request']}" if "first" in each else f"+ | {each['second']}  {each['request']}"
            )
    differ = len(told["requests"])
    settings = len(told["settings"])
    lines.append(f"{settings} settings differ; {told['requests_same']} requests the same, {differ} not")
    return "\n".join(lines)


def _side(each: dict, side: str) -> str:
    if side not in each:
        return "(none)"
    shown = json.dumps(each[side], ensure_ascii=False)
    return shown if len(shown) <= 100 else shown[:97] + "..."
