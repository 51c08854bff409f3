"""The steps of a purchase's life: approved or declined, appearing later, renewed, in grace, expired, cancelled, refunded.

A planned step is an event with its time. `happen()` takes the steps that are due. It is called before each access to
invoices, so that purchases change while an app polls.
"""
import sqlite3

from ..shop import state
from ..shop.store import Refusal
from . import clock
from .clock import LifeError

GRACE = "3d"
# Bounds the number of renewals when the clock is moved by ten years, which would otherwise take minutes.
_SHORTEST_PERIOD = 86_400


def begin(db: sqlite3.Connection, name: str, wanted: dict) -> None:
    """Begins the life of a new invoice and plans its steps.

    @param wanted after, when it appears (bought on another device); pending, alone or with approve_after or decline_after;
    period, of a subscription; grace, how long it lasts after a failed payment. Spans are those of clock.seconds_of()
    @throw LifeError
    """
    now = clock.now(db)
    if wanted.get("decline_after") is not None and wanted.get("approve_after") is not None:
        raise LifeError("a purchase is approved or declined; leave approve_after or decline_after out")
    decided = [step for step in ("approve", "decline") if wanted.get(f"{step}_after") is not None]
    if wanted.get("pending") or decided:
        state.set_life(db, name, pending=now)
    for step in decided:
        _plan(db, name, step, _span(wanted, f"{step}_after"))
    if wanted.get("period") is not None:
        _subscribe(db, name, wanted, now)
    if wanted.get("after") is not None:
        state.set_life(db, name, appears=clock.later(now, _span(wanted, "after")))
        _plan(db, name, "appear", _span(wanted, "after"))


def _subscribe(db: sqlite3.Connection, name: str, wanted: dict, now: str) -> None:
    period = _span(wanted, "period")
    if period < _SHORTEST_PERIOD:
        raise LifeError(f"period is {wanted['period']!r}; write a day or more")
    grace = clock.seconds_of(wanted.get("grace") or GRACE, "grace")
    state.set_life(db, name, expires=clock.later(now, period), period=period, grace=grace, renews=True, pays=True, renewed=0)
    _plan(db, name, "renew", period)


def _span(wanted: dict, name: str) -> int:
    return clock.seconds_of(wanted[name], name)


def _plan(db: sqlite3.Connection, name: str, step: str, seconds: int) -> None:
    state.add_event(db, clock.later(clock.now(db), seconds), name, step)


def happen(db: sqlite3.Connection) -> int:
    """Takes all steps that are due, in the order of their times. @return their number"""
    count, now = 0, clock.now(db)
    while (event := state.next_event(db, now)) is not None:
        _STEPS[event["step"]](db, state.invoice(db, event["invoice"]), event["at"])
        count += 1
    return count


def step(db: sqlite3.Connection, name: str, what: str, after: object = None) -> dict:
    """Takes a step of a purchase, or plans it for later. @return the invoice. @throw Refusal, LifeError

    @param after the span after which it is taken; None for now"""
    found = state.invoice(db, name)
    if found is None:
        raise Refusal(404, "unknown_invoice", f"there is no invoice {name!r}")
    if what not in STEPS:
        raise LifeError(f"{what!r} is no step of a purchase; known are {', '.join(STEPS)}")
    if after is not None:
        _plan(db, name, what, clock.seconds_of(after, "after"))
        return found
    _STEPS[what](db, found, clock.now(db), by_hand=True)
    return state.invoice(db, name)


def _needs(found: dict, by_hand: bool, good: bool, why: str) -> bool:
    """@return `good`: whether the step may be taken. A planned step that has become impossible is ignored

    @throw Refusal for a step by hand that is impossible"""
    if not good and by_hand:
        raise Refusal(409, found["status"], f"{found['id']} is {found['status']}; {why}")
    return good


def _appear(db, found, at, by_hand=False):
    if _needs(found, by_hand, "appears" in found, "it is there already"):
        state.set_life(db, found["id"], appears=None)
        state.make_newest(db, found["id"], at)


def _approve(db, found, at, by_hand=False):
    if _needs(found, by_hand, found["status"] == "pending", "only a pending purchase is approved"):
        state.set_life(db, found["id"], pending=None, approved=at)


def _decline(db, found, at, by_hand=False):
    if _needs(found, by_hand, found["status"] == "pending", "only a pending purchase is declined"):
        state.set_life(db, found["id"], declined=at)


def _cancel(db, found, at, by_hand=False):
    if found["status"] == "cancelled":
        return
    good = found["status"] not in ("confirmed", "refunded", "declined", "expired", "grace")
    if _needs(
        found, by_hand, good, "refund it instead" if found["status"] in ("confirmed", "grace") else "nothing is left to cancel"
    ):
        state.mark(db, found["id"], "cancelled", at)


def _refund(db, found, at, by_hand=False):
    if found["status"] == "refunded":
        return
    if _needs(found, by_hand, found["status"] not in ("cancelled", "declined", "pending"), "there is nothing to give back"):
        state.mark(db, found["id"], "refunded", at)


def _renew(db, found, at, by_hand=False):
    if not _needs(found, by_hand, _is_subscribed(found), "it is not an active subscription"):
        return
    if not found["renews"]:
        state.set_life(db, found["id"], expired=at)
    elif not found["pays"] and not by_hand:
        state.set_life(db, found["id"], in_grace=at)
        state.add_event(db, clock.later(at, found["grace"]), found["id"], "expire")
    else:
        expires = clock.later(found["expires"], found["period"])
        state.set_life(db, found["id"], expires=expires, renewed=found["renewed"] + 1, in_grace=None, pays=True)
        state.drop_events(db, found["id"], "renew", "expire")
        state.add_event(db, expires, found["id"], "renew")


def _expire(db, found, at, by_hand=False):
    if _needs(found, by_hand, _is_subscribed(found), "it is not an active subscription"):
        state.set_life(db, found["id"], expired=at, in_grace=None)


def _is_subscribed(found: dict) -> bool:
    return "period" in found and found["status"] not in ("refunded", "cancelled", "expired", "declined")


def _unsubscribe(db, found, _at, by_hand=False):
    if _needs(found, by_hand, _is_subscribed(found), "it is not an active subscription"):
        state.set_life(db, found["id"], renews=False)


def _resume(db, found, _at, by_hand=False):
    if _needs(found, by_hand, _is_subscribed(found), "it is not an active subscription"):
        state.set_life(db, found["id"], renews=True)


def _fail_payment(db, found, _at, by_hand=False):
    if _needs(found, by_hand, _is_subscribed(found), "it is not an active subscription"):
        state.set_life(db, found["id"], pays=False)


_STEPS = {
    "appear": _appear,
    "approve": _approve,
    "decline": _decline,
    "cancel": _cancel,
    "refund": _refund,
    "renew": _renew,
    "expire": _expire,
    "unsubscribe": _unsubscribe,
    "resume": _resume,
    "fail-payment": _fail_payment,
}
# The description of each step, for help texts.
STEPS = {
    "appear": "a purchase that was to appear later appears",
    "approve": "a pending payment is approved",
    "decline": "a pending payment is declined",
    "cancel": "a purchase that is not confirmed is cancelled",
    "refund": "the money goes back",
    "renew": "a subscription is renewed, also one in grace",
    "expire": "a subscription ends",
    "unsubscribe": "the user ends a subscription; it lasts until it expires",
    "resume": "the user takes an unsubscribe back",
    "fail-payment": "the next renewal's payment fails: grace, then expiry",
}
