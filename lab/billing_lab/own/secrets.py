"""Values that tell a device, an account or a user apart, and what stands for them where others will read."""
import base64
import itertools
import json
import re
import urllib.parse
from collections.abc import Iterable, Iterator

# What a request says of its device and of its user, in headers, in the query and in the body.
SAID = {"atoken": "token", "duid": "device", "guid": "account", "uid": "user", "customid": "custom-id"}
# A shorter value stands in texts by chance.
SHORTEST = 4
_HIDDEN = re.compile(f"hidden-({'|'.join(SAID.values())})-[0-9]+")
_ONE_DEVICE = ("hidden-token-", "hidden-device-")

# Members whose whole value is such a value, and members that are texts in which one may stand.
_WHOLE = {
    **{name: "user" for name in ("uid", "user", "signed_in", "signed-in")},
    "guid": "account",
    **{name: "custom-id" for name in ("custom_id", "customId")},
}
_TEXTS = ("url", "text", "base64", "body", "bodies", "resp_info", "header", "headers", "differences", "reason", "arguments")


def pairs(headers: Iterable, url: str, body: str) -> Iterator[tuple[str, str]]:
    """What a request names, header by header and value by value. @param headers pairs of name and value"""
    yield from headers
    yield from urllib.parse.parse_qsl(urllib.parse.urlsplit(url).query)
    yield from re.findall(r'"(\w+)"\s*:\s*"([^"]*)"', body)


class Names:
    """What stands for each value: the same name wherever the value stands, `hidden-user-1`, in the order of
    note()."""

    def __init__(self) -> None:
        self._kinds: dict[str, str] = {}
        self._names: dict[str, str] = {}
        self._forms: dict[str, str] = {}
        self._pattern: re.Pattern | None = None

    def note(self, kind: str, value: str | None) -> None:
        """A value that is to be hidden. @param kind one of SAID's values"""
        if value:
            self._kinds.setdefault(value, kind)
            self._pattern = None

    def _give_names(self) -> None:
        # What was hidden before keeps its name. A device is one device, whichever lab it was in.
        self._names = {value: value for value in self._kinds if _HIDDEN.fullmatch(value)}
        taken = {name for name in self._names if not name.startswith(_ONE_DEVICE)}
        counts = {kind: itertools.count(1) for kind in SAID.values()}
        for value, kind in self._kinds.items():
            if value not in self._names:
                names = (f"hidden-{kind}-{number}" for number in counts[kind])
                self._names[value] = next(name for name in names if name not in taken)
        long = {value: name for value, name in self._names.items() if len(value) >= SHORTEST}
        self._forms = {form: name for value, name in long.items() for form in _forms(value)}
        # All at once, so that no name is hidden again; the longest first, as one may stand in another.
        self._pattern = re.compile("|".join(map(re.escape, sorted(self._forms, key=len, reverse=True))) or r"(?!)")

    def note_all(self, told: object) -> None:
        """Those of all members, at any depth, that hold such a value."""
        if isinstance(told, list):
            for each in told:
                self.note_all(each)
        if isinstance(told, dict):
            for name, value in told.items():
                if name in _WHOLE and isinstance(value, str):
                    self.note(_WHOLE[name], value)
                self.note_all(value)

    def note_request(self, entry: dict) -> None:
        """Those that a request of the journal names."""
        for name, value in pairs(entry["headers"], entry["url"], entry["body"].get("text", "")):
            if name.lower() in SAID:
                self.note(SAID[name.lower()], value)

    def hidden(self, told: object, member: str = ""):
        """The same with the values hidden. @param member the name of the member that `told` is"""
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
    """As it stands in a text, an address, JSON, and in bytes that are told as a latin-1 text."""
    known = {value, urllib.parse.quote(value, safe=""), urllib.parse.quote_plus(value)}
    known |= {json.dumps(value)[1:-1], json.dumps(value, ensure_ascii=False)[1:-1]}
    return known | {form.encode(errors="replace").decode("latin-1") for form in known}
