"""Records the calls on the lab's bus, each with its answer and the requests that the daemon sent for it."""
import collections
import datetime
import sqlite3
import time

from ..device.methods import METHODS
from ..shop import journal
from ..shop.matching import ENDPOINT_OF

KEPT_CALLS = 2000
KEPT_TEXT = 64 << 10
# On a busy machine the monitor reports a call after the store has added its request to the journal: at most so much later.
LATE = datetime.timedelta(seconds=2)
# The words of matching.py by the method's argument of the same value.
_WORDS = {"appid": "app", "invoiceid": "invoice", "customId": "custom_id"}
_SENT = {"get_product_list": ("appid",), "get_applied_time": tuple(_WORDS), "confirm_purchase": tuple(_WORDS)}


def check(told: list[dict]) -> None:
    """@throw ValueError for what Book.load() cannot take"""
    for place, call in enumerate(told):
        texts, numbers = ("time", "sender", "method"), [call["number"], call["after"], call.get("until", 0)]
        if (
            not all(isinstance(call[name], str) for name in texts)
            or not all(isinstance(number, int) for number in numbers)
            or not isinstance(call["arguments"], (dict, list))
            or not isinstance(call.get("milliseconds", 0), (int, float))
        ):
            raise ValueError(f"calls[{place}] is no call of an export")


class Book:
    """The calls since the last reset. Its methods are called from one event loop only."""

    def __init__(self, db: sqlite3.Connection):
        self._db = db
        self._calls: collections.deque[dict] = collections.deque(maxlen=KEPT_CALLS)
        self._open: dict[tuple[str, int], dict] = {}
        self._number = 0

    def called(self, sender: str, serial: int, member: str, values: tuple) -> None:
        self._number += 1
        now = datetime.datetime.now(datetime.timezone.utc)
        names = list(METHODS.get(member, {}))
        known = len(names) == len(values)
        call = {
            "number": self._number,
            "time": _text_of(now),
            "sender": sender,
            "method": member,
            "arguments": dict(zip(names, values)) if known else list(map(str, values)),
            "began": time.monotonic(),
            "rivals": False,
        }
        call["after"] = self._last_of_others(call, _text_of(now - LATE))
        for other in self._open.values():
            if _key_of(other) == _key_of(call):
                other["rivals"] = call["rivals"] = True
        self._calls.append(call)
        self._open[sender, serial] = call
        if len(self._open) > KEPT_CALLS:
            # A caller that has left the bus is never answered.
            del self._open[next(iter(self._open))]

    def _last_of_others(self, call: dict, moment: str) -> int:
        """The number of the last entry that cannot be of this call: it is older than the moment, or belongs to an earlier
        call with the same values."""
        return max(
            [
                journal.last_before(self._db, moment),
                *(other["until"] for other in self._calls if "until" in other and _key_of(other) == _key_of(call)),
            ]
        )

    def answered(self, destination: str, serial: int, values: tuple | None, error: str | None) -> None:
        call = self._open.pop((destination, serial), None)
        if call is None:
            return
        call["milliseconds"] = round((time.monotonic() - call["began"]) * 1000, 3)
        call["error"] = error
        if values is not None:
            call["resp_result"], text = values
            call["resp_info"], call["bytes"] = text[:KEPT_TEXT], len(text.encode())
        call["until"] = journal.span(self._db)["last"]

    def clear(self) -> None:
        self._calls.clear()
        self._number = 0

    def dump(self) -> list[dict]:
        """The calls in the form that load() takes: those of describe(), with the range of the journal of their requests."""
        # A call under way is exported with the requests that it has made so far.
        last = {"until": journal.span(self._db)["last"]}
        kept = [last | {name: call[name] for name in ("after", "until", "rivals") if name in call} for call in self._calls]
        return [{**told, **more} for told, more in zip(self.describe(), kept)]

    def load(self, told: list[dict], base: int) -> None:
        """Adds the calls of another lab. A call without an answer stays without one. @param base is added to numbers of the
        journal"""
        for call in told:
            kept = {name: value for name, value in call.items() if name not in ("requests", "fault")}
            places = {name: base + call[name] for name in ("after", "until") if name in call}
            # No later request can belong to such a call.
            self._calls.append({**kept, "until": base, "began": 0.0, **places})
        self._number = max([self._number, *(call["number"] for call in told)])

    def describe(self, last: int | None = None) -> list[dict]:
        """The calls, or the last ones, the oldest first.

        @return for each its members, and: requests, numbers of the journal, None if another call with the same values was
        under way at the same time, so that the requests cannot be assigned; fault, the kind of the first fault that struck
        one of them
        """
        entries = {entry["seq"]: entry for entry in journal.entries(self._db)}
        calls = list(self._calls)
        return [self._described(call, entries) for call in (calls if last is None else calls[max(0, len(calls) - last) :])]

    def _described(self, call: dict, entries: dict[int, dict]) -> dict:
        endpoint = ENDPOINT_OF.get(call["method"])
        last = call.get("until", max(entries, default=0))
        found = [
            seq
            for seq, entry in entries.items()
            if call["after"] < seq <= last
            and entry["kind"] == "request"
            and entry["endpoint"] == endpoint
            and _fits(call, entry)
        ]
        faults = [entries[seq]["fault"] for seq in found if entries[seq]["fault"]]
        told = {key: value for key, value in call.items() if key not in ("began", "after", "until", "rivals")}
        unsure = call["rivals"] and bool(found)
        return {**told, "requests": None if unsure else found, "fault": None if unsure or not faults else faults[0]}


def _text_of(moment: datetime.datetime) -> str:
    return moment.isoformat(timespec="milliseconds").replace("+00:00", "Z")


def _key_of(call: dict) -> tuple:
    """Method and arguments of a call as far as its request has them: requests of calls with the same key look alike."""
    arguments = call["arguments"] if isinstance(call["arguments"], dict) else {}
    return call["method"], tuple(arguments.get(name, "") for name in _SENT.get(call["method"], ()))


def _fits(call: dict, entry: dict) -> bool:
    if not isinstance(call["arguments"], dict):
        return False
    asked = entry.get("asked", {})
    return all(asked.get(_WORDS[name], "") == call["arguments"][name] for name in _SENT.get(call["method"], ()))


def line_of(told: dict) -> str:
    """A call as one line for a terminal."""
    arguments = told["arguments"]
    words = " ".join(f"{name}={value}" for name, value in arguments.items()) if isinstance(arguments, dict) else str(arguments)
    if "milliseconds" not in told:
        end = "under way"
    elif told.get("error") is not None:
        end = f"error {told['error']}"
    else:
        end = f"resp_result {told.get('resp_result')}, {told.get('bytes', 0)} bytes"
    requests = "cannot tell" if told["requests"] is None else ", ".join(map(str, told["requests"])) or "nothing sent"
    took = f"{told['milliseconds']:.0f} ms" if "milliseconds" in told else ""
    return "  ".join(
        filter(
            None,
            [
                f"{told['number']:>5}  {told['time']}",
                f"{told['method']} {words}".rstrip(),
                end,
                took,
                f"journal {requests}" if requests != "nothing sent" else requests,
                f"fault {told['fault']}" if told["fault"] else "",
            ],
        )
    )
