"""Rules for every app that sells. Each rule is a function of the whole journal that returns what violates it.

The docstring of a rule is its text in help and reports.
"""
import collections
import datetime
from collections.abc import Callable, Iterable

from ..shop.matching import PAYMENTS

# The most requests to one endpoint within a minute, unless a report asks for another number.
POLLS = 30
_MINUTE = 60.0
# Faults with which the app still receives the whole answer.
_HARMLESS = (None, "pass", "delay", "drip")

Finding = tuple[str, list[int]]


def _requests(entries: Iterable[dict], *endpoints: str) -> list[dict]:
    return [entry for entry in entries if entry["kind"] == "request" and entry["endpoint"] in endpoints]


def _invoice(entry: dict) -> str:
    return entry.get("asked", {}).get("invoice", "")


def _went_well(entry: dict) -> bool:
    """@return whether the store did what was asked, and the app received the whole answer"""
    return bool(entry.get("work")) and entry["answer"]["end"] == "whole" and entry["fault"] in _HARMLESS


def confirmed_once(entries: list[dict], _invoices: list[dict], _polls: int) -> list[Finding]:
    """No purchase is confirmed again after the store has answered that it is confirmed. Confirming again after a lost answer
    is correct."""
    done: dict[str, int] = {}
    found = []
    for entry in _requests(entries, "confirm"):
        name = _invoice(entry)
        if name in done:
            found.append(
                (f"{name} was confirmed again, though the store had said that it is confirmed", [done[name], entry["seq"]])
            )
        elif _went_well(entry):
            done[name] = entry["seq"]
    return found


def applied_first(entries: list[dict], invoices: list[dict], _polls: int) -> list[Finding]:
    """No purchase is confirmed before it was applied."""
    asked = {_invoice(entry) for entry in _requests(entries, "apply")}
    # A purchase that is applied in the catalogue needs no request.
    applied = {invoice["id"] for invoice in invoices if "applied" in invoice and invoice["id"] not in asked}
    found = []
    for entry in _requests(entries, *PAYMENTS):
        name = _invoice(entry)
        if entry["endpoint"] == "apply":
            applied.add(name)
        elif name and name not in applied:
            found.append((f"{name} was confirmed before it was applied", [entry["seq"]]))
            applied.add(name)
    return found


def polled(entries: list[dict], _invoices: list[dict], polls: int) -> list[Finding]:
    """No endpoint gets more requests within a minute than the limit `polls`."""
    found = []
    for endpoint in ("country", "products", "invoices"):
        window: collections.deque[tuple[float, int]] = collections.deque()
        worst: list[int] = []
        for entry in _requests(entries, endpoint):
            now = datetime.datetime.fromisoformat(entry["time"]).timestamp()
            window.append((now, entry["seq"]))
            while window[0][0] <= now - _MINUTE:
                window.popleft()
            if len(window) > max(polls, len(worst)):
                worst = [seq for _, seq in window]
        if worst:
            found.append((f"{endpoint} was asked {len(worst)} times within a minute, more than {polls} times", worst))
    return found


def exact(entries: list[dict], _invoices: list[dict], _polls: int) -> list[Finding]:
    """Each request is exactly what the service sends on this device: no argument of the app has changed other parts of it."""
    return [("; ".join(entry["differences"]), [entry["seq"]]) for entry in entries if entry.get("differences")]


def all_confirmed(_entries: list[dict], invoices: list[dict], _polls: int) -> list[Finding]:
    """At the end every paid purchase is confirmed."""
    return [
        (f"{invoice['id']} ({invoice['product']}) is {invoice['status']} at the end, not confirmed", [])
        for invoice in invoices
        if invoice["status"] in ("bought", "applied")
    ]


RULES: dict[str, Callable[[list[dict], list[dict], int], list[Finding]]] = {
    "confirmed-once": confirmed_once,
    "applied-first": applied_first,
    "polled": polled,
    "exact": exact,
    "all-confirmed": all_confirmed,
}
# Rules that hold for every app in every test.
USUAL = ("confirmed-once", "applied-first", "polled", "exact")


def what(name: str) -> str:
    """The text of a rule, for help and reports."""
    return " ".join((RULES[name].__doc__ or "").split())
