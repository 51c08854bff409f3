"""Exports the whole state of a lab as one JSON object, and imports it into another lab."""
import asyncio
import datetime
import json
import pathlib
import platform

from .. import __version__
from ..calls import book
from ..checks.asked import read_expectation
from ..device import device
from ..device.bus import check_name
from ..folder import LabError, replace_file
from ..life import clock, whole
from ..own import answers
from ..own.secrets import Names
from ..shop import catalogue, faults, journal, state

FORM = 1
# The members that each kind of journal entry must have, since the page and the command line show them.
_ENTRY = {
    "request": ("endpoint", "method", "url", "headers", "body", "connection", "handshake", "differences", "fault", "answer")
}
_ENTRY["handshake"] = ("reason",)
_KINDS = {dict: "an object", list: "a list"}
_PARTS = {
    "catalogue": dict,
    "device": dict,
    "names": list,
    "connection": dict,
    "faults": list,
    "answers": list,
    "expectations": list,
    "clock": dict,
    "purchases": dict,
    "journal": list,
    "calls": list,
}


class ExportError(ValueError):
    """An error in an export: its place and the cause."""


async def make(core, last: int | None = None) -> dict:
    """Makes an export, with secrets hidden. @param core a core.Core. @param last the most entries of the journal; None for
    all"""
    calls = (await core.all_calls()).dump()
    now, db = asyncio.get_running_loop().time(), core.db
    told = {
        "export": FORM,
        "made": datetime.datetime.now(datetime.timezone.utc).strftime("%Y-%m-%dT%H:%M:%SZ"),
        "versions": {"billing-lab": __version__, "python": platform.python_version(), "system": platform.platform()},
        "catalogue": catalogue.as_file(state.fact(db, "catalogue")),
        "device": core.device(),
        "names": core.names(),
        "connection": {"fault": core.simulator.connections.fault, **core.simulator.connections.options},
        "faults": [fault.describe(now) for fault in core.simulator.faults if not fault.is_over(now)],
        "answers": answers.whole(db),
        "expectations": [each.describe() for each in core.expectations],
        "clock": {"ahead_seconds": state.fact(db, "clock_ahead", 0)},
        "purchases": whole.dump(db),
        "scenario": state.fact(db, "scenario"),
        "journal": journal.entries(db, last=last),
        "calls": calls,
    }
    # A full journal takes seconds: a thread hides its values, so that the store answers meanwhile.
    return await asyncio.to_thread(hidden, told, core.device_facts())


def hidden(told: dict, facts: dict | None = None) -> dict:
    """@return a copy with the values hidden that identify device and users. @param facts the device's own values"""
    names = Names()
    names.note_all(told.get("catalogue"))
    for fact, kind in (("uid", "user"), ("guid", "account"), ("token", "token"), ("duid", "device")):
        names.note(kind, (facts or {}).get(fact))
    for entry in told["journal"]:
        if entry["kind"] == "request":
            names.note_request(entry)
    names.note_all(told)
    return names.hidden(told)


def check(told: object) -> None:
    """Checks the form of an export. @throw ExportError"""
    if not isinstance(told, dict) or told.get("export") != FORM:
        raise ExportError(f'an export begins with "export": {FORM}, the version of its form; `billing-lab export` makes one')
    for name, kind in _PARTS.items():
        if not isinstance(told.get(name), kind):
            raise ExportError(f"the export's {name} is {json.dumps(told.get(name))[:60]}; it must be {_KINDS[kind]}")
    check_journal(told["journal"])


def check_journal(entries: list) -> None:
    last = 0
    for place, entry in enumerate(entries):
        members = _ENTRY.get(str(entry.get("kind"))) if isinstance(entry, dict) else None
        if members is None or not all(name in entry for name in ("time", *members)):
            raise ExportError(f"journal[{place}] is no entry of a journal; `billing-lab journal --json` prints them")
        seq = entry.get("seq")
        if isinstance(seq, bool) or not isinstance(seq, int) or seq <= last:
            raise ExportError(f"journal[{place}].seq is {seq!r}; the numbers of entries grow")
        last = seq


async def take(core, told: dict) -> dict:
    """Replaces the lab's whole state by that of an export. The export is checked first: on an error nothing changes.

    @return the number of members of each part, and `left_out`, what could not be set
    @throw ExportError, and the errors of the parts
    """
    check(told)
    read = _catalogue_of(core, told["catalogue"])
    # Followers need numbers that grow, so the export's are added to the newest one. A new lab gets the export's numbers.
    base = journal.newest(core.db)
    try:
        expected = [read_expectation({**each, "after": each.get("after", 0) + base}) for each in told["expectations"]]
        set_faults = [faults.restored(each, asyncio.get_running_loop().time(), base) for each in told["faults"]]
        name, options = faults.read_connection(told["connection"])
        known = answers.checked(told["answers"])
        whole.check(told["purchases"])
        book.check(told["calls"])
        names = [check_name(name) for name in told["names"]]
        settings, left_out = _switches(core, read, told["device"])
        ahead = told["clock"].get("ahead_seconds")
        if isinstance(ahead, bool) or not isinstance(ahead, int) or not 0 <= ahead <= clock.MOST_SECONDS:
            raise ExportError(f"clock.ahead_seconds is {ahead!r}; it must be a number from 0 to {clock.MOST_SECONDS}")
    except (KeyError, TypeError, AttributeError) as error:
        raise ExportError(f"this is no export that can be read: {error!r}") from None
    await core.reset_whole()
    file = core.folder.path / "catalogue.json"
    replace_file(file, json.dumps(told["catalogue"], ensure_ascii=False, indent=2).encode())
    core.take(read, file)
    for switch, value in settings.items():
        core.switch(switch, value)
    state.set_fact(core.db, "answers", known)
    state.set_fact(core.db, "clock_ahead", ahead)
    state.set_fact(core.db, "scenario", told.get("scenario"))
    whole.put(core.db, told["purchases"])
    for place, entry in enumerate(told["journal"]):
        journal.put(core.db, base + entry["seq"], entry)
        core.followers.tell("journal", {**entry, "seq": base + entry["seq"]})
        if place % 100 == 99:
            # A follower that falls behind is disconnected: the pause lets it read.
            await asyncio.sleep(0.01)
    core.calls.load(told["calls"], base)
    core.expectations = expected
    core.simulator.restore_faults(set_faults)
    core.simulator.connections.switch(name, **options)
    await core.allow(*names)
    await core.turn("service", told["device"].get("service", "up"))
    return {name: len(told[name]) for name in ("faults", "answers", "expectations", "journal", "calls")} | {
        "invoices": len(told["purchases"]["invoices"]),
        "left_out": left_out,
    }


def _catalogue_of(core, told: dict) -> dict:
    if any("file" in answer for answer in told.get("answers", {}).values() if isinstance(answer, dict)):
        raise ExportError("the export's catalogue names a file of this machine; an export has all bodies in itself")
    return catalogue.parse(json.dumps(told, ensure_ascii=False), "the export's catalogue", core.folder.path)


def _switches(core, read: dict, told: dict) -> tuple[dict[str, str], list[str]]:
    """@return the switches that set an export's device, and a text for each value that no switch can set"""
    wanted = {name: told.get(name) or "none" for name in ("country", "language", "server", "gateway", "token")}
    wanted |= {"signed-in": told["signed_in"]} if told.get("signed_in") else {"signed-out": ""}
    left_out = []
    if told.get("service", "up") not in device.SERVICE_STATES:
        raise ExportError(f"device.service is {told['service']!r}; it must be one of {', '.join(device.SERVICE_STATES)}")
    for name, value in list(wanted.items()):
        try:
            device.switched(name, value, read["users"], state.fact(core.db, "token"))
        except device.DeviceError:
            # Such a value was written into the device's file by hand.
            left_out.append(f"device: {name} {wanted.pop(name)}")
    return wanted, left_out


def read_file(file: pathlib.Path) -> dict:
    """Reads an export, or the output of `journal --json` as an object that has only a journal. @throw LabError"""
    try:
        text = file.read_text(encoding="utf-8")
    except (OSError, UnicodeDecodeError) as error:
        raise LabError(f"{file} cannot be read: {error}") from None
    try:
        return json.loads(text) if _is_export(text) else _journal_of(text)
    except ValueError as error:
        raise LabError(f"{file} is neither an export nor a journal: {error}") from None


def _is_export(text: str) -> bool:
    """@return whether the first value of a text is an export. A journal has an object in each line, and may be empty."""
    start = len(text) - len(text.lstrip())
    if start == len(text):
        return False
    first, _ = json.JSONDecoder().raw_decode(text, start)
    return isinstance(first, dict) and "export" in first


def _journal_of(text: str) -> dict:
    entries = [json.loads(line) for line in text.splitlines() if line.strip()]
    check_journal(entries)
    return {"journal": entries}
