"""The lab's clock: the machine's clock, moved forward. Purchases and planned steps have its time, the journal the
machine's."""
import datetime
import re
import sqlite3

from ..shop import state

_UNITS = {"s": 1, "m": 60, "h": 3600, "d": 86_400}
# Ten years, about as long as the lab's certificates are valid.
MOST_SECONDS = 3660 * 86_400


class LifeError(ValueError):
    """The reason why a step of a purchase or a change of the clock is refused, in one line."""


def seconds_of(text: object, name: str = "a time span") -> int:
    """@return the seconds of a span such as "30d", "12h", "5m", "90s", or of a number of seconds. @throw LifeError

    @param name the span's name in errors"""
    if isinstance(text, int) and not isinstance(text, bool):
        text = str(text)
    found = re.fullmatch(r"([0-9]{1,10})([smhd]?)", text) if isinstance(text, str) else None
    seconds = int(found[1]) * _UNITS[found[2] or "s"] if found else MOST_SECONDS + 1
    if seconds > MOST_SECONDS:
        raise LifeError(f"{name} is {text!r}; write a span of 3660d at most, such as 30d, 12h, 5m or 90s")
    return seconds


def _text(moment: datetime.datetime) -> str:
    return moment.strftime("%Y-%m-%dT%H:%M:%SZ")


def now(db: sqlite3.Connection) -> str:
    return _text(datetime.datetime.now(datetime.timezone.utc) + datetime.timedelta(seconds=state.fact(db, "clock_ahead", 0)))


def later(moment: str, seconds: int) -> str:
    return _text(datetime.datetime.strptime(moment, "%Y-%m-%dT%H:%M:%SZ") + datetime.timedelta(seconds=seconds))


def describe(db: sqlite3.Connection) -> dict:
    return {"now": now(db), "ahead_seconds": state.fact(db, "clock_ahead", 0)}


def advance(db: sqlite3.Connection, seconds: int) -> None:
    """Moves the clock forward. It is not moved back: steps that were taken stay. A reset sets it to the machine's time."""
    ahead = state.fact(db, "clock_ahead", 0) + seconds
    if ahead > MOST_SECONDS:
        raise LifeError(f"the clock would be {ahead // 86_400} days ahead; 3660 are the most, `reset` sets it right")
    state.set_fact(db, "clock_ahead", ahead)
