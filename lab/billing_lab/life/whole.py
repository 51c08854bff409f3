"""Exports all purchases of a lab, and imports them into another lab."""
import json
import re
import sqlite3

from ..shop import state
from .clock import LifeError
from .purchase import STEPS

_MOMENT = re.compile(r"[0-9]{4}(-[0-9]{2}){2}T[0-9]{2}(:[0-9]{2}){2}Z")
_MOMENTS = ("pending", "appears", "approved", "declined", "expires", "expired", "in_grace")
_SUBSCRIBED = {"period": int, "grace": int, "renewed": int, "renews": bool, "pays": bool}


def dump(db: sqlite3.Connection) -> dict:
    """The invoices in the order in which they were made, each with its life, and the planned steps."""
    rows = db.execute("SELECT * FROM invoices ORDER BY number")
    made = [{**{key: row[key] for key in state.COLUMNS}, "life": json.loads(row["life"])} for row in rows]
    return {"invoices": made, "ahead": state.events(db)}


def check(told: dict) -> None:
    """Checks what dump() made. @throw LifeError"""
    names = set()
    for place, made in enumerate(told["invoices"]):
        texts = [made[name] for name in ("id", "user", "app", "product", "country", "bought")]
        texts += [made[name] for name in ("custom_id", *state.STEPS) if made.get(name) is not None]
        if not all(isinstance(text, str) for text in texts) or made["id"] in names or not _is_life(made["life"]):
            raise LifeError(f"purchases.invoices[{place}] is no invoice of an export, or its id is there twice")
        names.add(made["id"])
    for place, event in enumerate(told["ahead"]):
        if event["invoice"] not in names or event["step"] not in STEPS or not _is_moment(event["at"]):
            raise LifeError(f"purchases.ahead[{place}] is no step of an invoice of the export")


def _is_moment(text: object) -> bool:
    return isinstance(text, str) and _MOMENT.fullmatch(text) is not None


def _is_life(told: dict) -> bool:
    if set(told) - {*_MOMENTS, *_SUBSCRIBED} or not all(_is_moment(told[name]) for name in _MOMENTS if name in told):
        return False
    # A subscription has all members of _SUBSCRIBED, and a time at which it is renewed.
    kinds = {name: type(told[name]) for name in _SUBSCRIBED if name in told}
    return not kinds or (kinds == _SUBSCRIBED and "expires" in told)


def put(db: sqlite3.Connection, told: dict) -> None:
    """Replaces all purchases. @param told what check() has accepted"""
    db.execute("BEGIN")
    state.forget_purchases(db)
    for made in told["invoices"]:
        state.add_invoice(db, made)
        state.set_life(db, made["id"], **made["life"])
    for event in told["ahead"]:
        state.add_event(db, event["at"], event["invoice"], event["step"])
    db.execute("COMMIT")
