"""Hides the values that identify a device, an account or a user in texts that are passed on."""
import base64
import itertools
import json
import re
import urllib.parse
from collections.abc import Iterable, Iterator

# The headers, query values and body members of a request that identify its device and user, with the kind of each.
SAID = {"atoken": "token", "duid": "device", "guid": "account", "uid": "user", "customid": "custom-id"}
# A shorter value may be in a text by chance, so it is not replaced there.
SHORTEST = 4
_HIDDEN = re.compile(f"hidden-({'|'.join(SAID.values())})-[0-9]+")
_ONE_DEVICE = ("hidden-token-", "hidden-device-")

# Members whose value is such a value, and members that are texts in which such a value may occur.
_WHOLE = {
    **{name: "user" for name in ("uid", "user", "signed_in", "signed-in")},
    "guid": "account",
    **{name: "custom-id" for name in ("custom_id", "customId")},
}
_TEXTS = ("url", "text", "base64", "body", "bodies", "resp_info", "header", "headers", "differences", "reason", "arguments")


def pairs(headers: Iterable, url: str, body: str) -> Iterator[tuple[str, str]]:
    """Yields name and value of each header, query value and body member of a request. @param headers names and values"""
    yield from headers
    yield from urllib.parse.parse_qsl(urllib.parse.urlsplit(url).query)
    yield from re.findall(r'"(\w+)"\s*:\s*"([^"]*)"', body)


class Names:
    """The replacements of values: each value has one name, such as `hidden-user-1`, everywhere. Names are numbered in the
    order of note()."""

    def __init__(self) -> None:
        self._kinds: dict[str, str] = {}
        self._names: dict[str, str] = {}
        self._forms: dict[str, str] = {}
        self._pattern: re.Pattern | None = None

    def note(self, kind: str, value: str | None) -> None:
        """Adds a value to hide. @param kind one of SAID's values"""
        if value:
            self._kinds.setdefault(value, kind)
            self._pattern = None

    def _give_names(self) -> None:
        # A value that was hidden in an earlier export keeps its name. Names of token and device may be used twice: there is
        # one device, in whichever lab.
        self._names = {value: value for value in self._kinds if _HIDDEN.fullmatch(value)}
        taken = {name for name in self._names if not name.startswith(_ONE_DEVICE)}
        counts = {kind: itertools.count(1) for kind in SAID.values()}
        for value, kind in self._kinds.items():
            if value not in self._names:
                names = (f"hidden-{kind}-{number}" for number in counts[kind])
                self._names[value] = next(name for name in names if name not in taken)
        long = {value: name for value, name in self._names.items() if len(value) >= SHORTEST}
        self._forms = {form: name for value, name in long.items() for form in _forms(value)}
        # One pattern for all values, so that a replacement is not replaced again; the longest value first, since a value
        # may be a part of another one.
        self._pattern = re.compile("|".join(map(re.escape, sorted(self._forms, key=len, reverse=True))) or r"(?!)")

    def note_all(self, told: object) -> None:
        """Adds the values of all members of _WHOLE, at any depth."""
        if isinstance(told, list):
            for each in told:
                self.note_all(each)
        if isinstance(told, dict):
            for name, value in told.items():
                if name in _WHOLE and isinstance(value, str):
                    self.note(_WHOLE[name], value)
                self.note_all(value)

    def note_request(self, entry: dict) -> None:
        """Adds the values in a request of the journal."""
        for name, value in pairs(entry["headers"], entry["url"], entry["body"].get("text", "")):
            if name.lower() in SAID:
                self.note(SAID[name.lower()], value)

    def hidden(self, told: object, member: str = ""):
        """@return a copy with the values hidden. @param member the name of the member that has the value `told`"""
        if self._pattern is None:
            self._give_names()
        if isinstance(told, dict):
            inside = member if member == "arguments" else ""
            return {name: self.hidden(value, name if name in _WHOLE else inside or name) for name, value in told.items()}
        if isinstance(told, list):
            return [self.hidden(each, member) for each in told]
        if not isinstance(told, str):
            return told
        if member in _WHOLE or told in self._names and member in _TEXTS:
            return self._names.get(told, told)
        if member == "base64":
            raw = base64.b64decode(told, validate=False).decode("latin-1")
            return base64.b64encode(self._in_text(raw).encode("latin-1")).decode()
        return self._in_text(told) if member in _TEXTS else told

    def _in_text(self, text: str) -> str:
        return self._pattern.sub(lambda found: self._forms[found[0]], text)


def _forms(value: str) -> set[str]:
    """The encodings of a value: plain, in a URL, in JSON, and each of them as UTF-8 bytes in a latin-1 text."""
    known = {value, urllib.parse.quote(value, safe=""), urllib.parse.quote_plus(value)}
    known |= {json.dumps(value)[1:-1], json.dumps(value, ensure_ascii=False)[1:-1]}
    return known | {form.encode(errors="replace").decode("latin-1") for form in known}
