"""Reads and begins a scenario: a JSON file with the lab's state at the start of a test, and what the app must ask for."""
import json
import pathlib

from ..folder import LabError
from ..shop import journal, state
from ..shop.matching import WORDS
from .asked import read_expectation

# In the order in which they are applied.
_PARTS = ("device", "buy", "steps", "advance", "answers", "faults", "connection", "expect")
_FORM = {
    "device": dict,
    "buy": list,
    "steps": list,
    "advance": (str, int),
    "answers": list,
    "faults": list,
    "connection": dict,
    "expect": list,
}


class ScenarioError(ValueError):
    """An error in a scenario: the part, its place and the cause."""


def read(file: pathlib.Path) -> dict:
    """Reads a scenario. The bodies of answers that it names as files are put into it."""
    try:
        wanted = json.loads(file.read_text(encoding="utf-8"))
    except OSError as error:
        raise LabError(f"{file}: {error.strerror}; name a scenario that can be read") from None
    except ValueError as error:
        raise LabError(f"{file}: no valid JSON ({error})") from None
    if not isinstance(wanted, dict):
        raise LabError(f"{file}: a scenario is an object {{ }}")
    for answer in wanted.get("answers", []):
        if isinstance(answer, dict) and "file" in answer:
            body = file.parent / answer.pop("file")
            try:
                answer["body"] = body.read_bytes().decode("latin-1")
            except OSError as error:
                raise LabError(f"{file}: {body}: {error.strerror}; its path begins at the scenario's folder") from None
    return wanted


async def begin(core, wanted: dict) -> dict:
    """Resets the lab and applies a scenario. If a part of it is wrong, the lab is reset once more, and the error raised.

    @param core a core.Core
    @return the invoices by the names of the purchases, and the numbers of faults and expectations
    """
    _check(wanted)
    await core.reset_whole()
    try:
        names = _apply(core, wanted)
    except Exception:
        await core.reset_whole()
        raise
    state.set_fact(core.db, "scenario", wanted)
    await core.simulator.connections.dropped()
    return {"invoices": names, "faults": len(wanted.get("faults", [])), "expectations": len(core.expectations)}


def _check(wanted: dict) -> None:
    if not isinstance(wanted, dict) or wanted.get("scenario") != 1:
        raise ScenarioError('a scenario begins with "scenario": 1, the version of this form')
    for name, part in wanted.items():
        if name in ("scenario", "about"):
            continue
        if name not in _PARTS:
            raise ScenarioError(f"a scenario has no {name!r}; it has about, {', '.join(_PARTS)}")
        if not isinstance(part, _FORM[name]):
            raise ScenarioError(f"{name} is {json.dumps(part)[:60]}; see the reference for its form")


def _apply(core, wanted: dict) -> dict[str, str]:
    names: dict[str, str] = {}
    for switch, value in wanted.get("device", {}).items():
        _call("device", switch, core.switch, switch, value)
    for place, purchase in enumerate(wanted.get("buy", [])):
        made = _call("buy", place, core.buy, {key: value for key, value in purchase.items() if key != "as"})
        names[purchase.get("as", made["id"])] = made["id"]
    for place, step in enumerate(wanted.get("steps", [])):
        _call("steps", place, core.step, _with_invoices(step, names))
    if "advance" in wanted:
        _call("advance", "", core.advance, wanted["advance"])
    for place, answer in enumerate(wanted.get("answers", [])):
        _call("answers", place, core.set_answer, _with_invoices(answer, names))
    for place, fault in enumerate(wanted.get("faults", [])):
        _call("faults", place, core.simulator.add_fault, _with_invoices(fault, names))
    if "connection" in wanted:
        _call("connection", "", lambda: core.simulator.connections.switch(**wanted["connection"]))
    # Requests from before the scenario do not count.
    after = journal.span(core.db)["last"]
    for place, expected in enumerate(wanted.get("expect", [])):
        core.expectations.append(_call("expect", place, read_expectation, {"after": after, **_with_invoices(expected, names)}))
    return names


def _call(part: str, place: int | str, function, *arguments):
    """Calls a function. An error that it raises is raised again with its place in the scenario."""
    try:
        return function(*arguments)
    except (KeyError, TypeError, AttributeError) as error:
        raise ScenarioError(f"{_where(part, place)}: wrong form: {error!r}") from None
    except Exception as error:
        raise ScenarioError(f"{_where(part, place)}: {error}") from None


def _where(part: str, place: int | str) -> str:
    return f"{part}[{place}]" if isinstance(place, int) else f"{part}.{place}".rstrip(".")


def _with_invoices(wanted: dict, names: dict[str, str]) -> dict:
    """@return a copy with each "$name" replaced by the invoice of the purchase of that name"""

    def one(word: str, value: object) -> object:
        if word not in (*WORDS, "invoice") or not isinstance(value, str) or not value.startswith("$"):
            return value
        if value[1:] not in names:
            raise ScenarioError(f"no purchase of the scenario is called {value[1:]!r}; known are {', '.join(names) or 'none'}")
        return names[value[1:]]

    return {word: one(word, value) for word, value in wanted.items()}
