"""Counts the requests that fit an expectation, and names those that nearly fit."""
import dataclasses

from ..shop.matching import WORDS, Asked, Match, MatchError, read_match

# The most near misses in a result.
TOLD_NEAR = 5
_COUNTS = ("times", "at_least", "at_most")


@dataclasses.dataclass(frozen=True)
class Expectation:
    """The least and the most requests that must fit. `most` is None without an upper bound."""

    match: Match
    least: int
    most: int | None
    after: int = 0
    name: str = ""

    def describe(self) -> dict:
        told = {
            **self.match.describe(),
            "at_least": self.least,
            "at_most": self.most,
            "after": self.after or None,
            "name": self.name or None,
        }
        return {key: value for key, value in told.items() if value is not None}


def read_expectation(wanted: dict) -> Expectation:
    """@param wanted the words of matching.WORDS; times, or at_least and at_most (at_least is 1 if all three are missing);
    after, the number of the last entry of the journal that does not count; name

    @throw MatchError
    """
    unknown = sorted(set(wanted) - {*WORDS, *_COUNTS, "after", "name"})
    if unknown:
        raise MatchError(f"a check takes no {unknown[0]!r}; it takes {', '.join((*WORDS, *_COUNTS, 'after', 'name'))}")
    counts = {name: _count(wanted, name) for name in (*_COUNTS, "after")}
    if counts["times"] is not None and (counts["at_least"] is not None or counts["at_most"] is not None):
        raise MatchError("times says both bounds already; leave at_least and at_most out")
    least, most = counts["at_least"], counts["at_most"]
    if counts["times"] is not None:
        least = most = counts["times"]
    elif least is None:
        least = 1 if most is None else 0
    if most is not None and most < least:
        raise MatchError(f"at_most is {most}, less than at_least {least}: nothing could fit")
    return Expectation(read_match(wanted), least, most, counts["after"] or 0, str(wanted.get("name") or ""))


def _count(wanted: dict, name: str) -> int | None:
    value = wanted.get(name)
    if value is not None and (isinstance(value, bool) or not isinstance(value, int) or value < 0):
        raise MatchError(f"{name} is {value!r}; it must be a whole number, 0 or more")
    return value


def asked_of(entry: dict) -> Asked:
    """The values of a journal entry that conditions are compared with."""
    said = entry.get("asked", {})
    return Asked(entry["endpoint"] or "", **said, headers=tuple((name, value) for name, value in entry["headers"]))


def judge(entries: list[dict], expectation: Expectation) -> dict:
    """@return ok; found, the numbers of the entries that fit; near, the near misses; message, the same for people"""
    later = [entry for entry in entries if entry["kind"] == "request" and entry["seq"] > expectation.after]
    misses = {entry["seq"]: expectation.match.misses(asked_of(entry)) for entry in later}
    found = [seq for seq, words in misses.items() if not words]
    near = [
        _near(entry, misses[entry["seq"]][0], expectation.match)
        for entry in later
        if len(misses[entry["seq"]]) == 1 and len(expectation.match.describe()) > 1
    ]
    good = expectation.least <= len(found) and (expectation.most is None or len(found) <= expectation.most)
    told = {"ok": good, "found": found, "near": near[-TOLD_NEAR:]}
    return {**told, "message": _message(expectation, told)}


def _near(entry: dict, word: str, match: Match) -> dict:
    """A near miss: an entry that differs in one condition, which is `word`."""
    was = [": ".join(pair) for pair in entry["headers"]] if word == "header" else getattr(asked_of(entry), word)
    return {"seq": entry["seq"], "endpoint": entry["endpoint"], "differs": word, "wanted": getattr(match, word), "was": was}


def _message(expectation: Expectation, told: dict) -> str:
    words = expectation.match.describe()
    what = words.pop("endpoint", "anything") + "".join(f", {word} {value}" for word, value in words.items())
    count = len(told["found"])
    lines = [
        f"{what}: asked {_times(count)}, wanted {_wanted(expectation)}"
        + (f" (journal {', '.join(map(str, told['found']))})" if count else "")
    ]
    if count < expectation.least:
        lines += [
            f"  near: journal {near['seq']}, {near['endpoint']}, but {near['differs']} was {_actual(near)}"
            for near in told["near"]
        ]
    return "\n".join(lines)


def _actual(near: dict) -> str:
    return repr(near["was"]) if near["differs"] != "header" else "not among its headers"


def _wanted(expectation: Expectation) -> str:
    least, most = expectation.least, expectation.most
    if most is None:
        return f"{_times(least)} at least"
    if least == most:
        return _times(least)
    return f"{_times(most)} at most" if least == 0 else f"{least} to {_times(most)}"


def _times(count: int) -> str:
    return {0: "never", 1: "once"}.get(count, f"{count} times")
