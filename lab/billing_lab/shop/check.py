"""Compares a request with the one that the service sends on this device. Request line, headers and body are compared byte
for byte; a value that the caller of a method chooses may be anything."""
import dataclasses
import re

from .store import PATHS

# A value that a caller chooses. A "&" or "#" in it would change other parts of the query, so it is a difference.
_ANY = r"[^&#]*"
_TEXT = r'(?:[^"\\]|\\.)*'
_BODY_KEYS = ("GUID", "UID", "appId", "countryCode", "customId", "invoiceId", "languageCode", "storeId", "storeProdCode")


@dataclasses.dataclass
class Sent:
    """A request as received, with its texts as lines. HTTP/2 has no request line: one is made of method and path."""

    line: str
    headers: list[str]
    body: bytes
    protocol: str

    @classmethod
    def of_http1(cls, raw: bytes) -> "Sent":
        head, _, body = raw.partition(b"\r\n\r\n")
        line, *headers = _text(head).split("\r\n")
        return cls(line, headers, body, "HTTP/1.1")

    @classmethod
    def of_http2(cls, headers: list[tuple[bytes, bytes]], body: bytes = b"") -> "Sent":
        """Sorts the pseudo headers: their order is the choice of the client's HTTP library, and must not be a difference."""
        named = [(_text(name), _text(value)) for name, value in headers]
        pseudo = dict(pair for pair in named if pair[0].startswith(":"))
        line = f"{pseudo.pop(':method', '')} {pseudo.pop(':path', '')} HTTP/2"
        others = [pair for pair in named if not pair[0].startswith(":")]
        return cls(line, [f"{name}: {value}" for name, value in [*sorted(pseudo.items()), *others]], body, "HTTP/2")


def _text(data: bytes) -> str:
    return data.decode("utf-8", "backslashreplace")


def languages(locale: str) -> str:
    """@return a pattern of the language codes that the service may send for a locale: the locale's language, with or
    without a region; "no" for Nynorsk; "ko" if the device has no locale; "en" for a locale that the service does not know"""
    language = re.escape(re.split("[_.-]", locale)[0])
    own = f"{language}(?:-[A-Z]{{2}})?" if locale else "ko"
    return f"(?:{own}|no|en)" if locale.startswith("nn") else f"(?:{own}|en)"


def _query(endpoint: str, device: dict) -> str:
    value = {name: re.escape(device[name]) for name in ("uid", "guid", "country")}
    language = languages(device["locale"])
    pieces = {
        "country": (
            "storeid=1",
            "storeprodcode=1",
            f"guid={value['uid']}",
            f"uid={value['uid']}",
            f"lang={language}",
            f"countrycode={value['country']}",
        ),
        "products": (
            f"appid={_ANY}",
            f"guid={value['guid']}",
            f"uid={value['uid']}",
            "storeid=1",
            "storeprodcode=1",
            f"countrycode={value['country']}",
            f"languagecode={language}",
            f"checkvalue={_ANY}",
        ),
        "invoices": (
            f"customid={value['uid']}",
            f"countrycode={value['country']}",
            f"languagecode={language}",
            f"GUID={value['guid']}",
            f"UID={value['uid']}",
            "storeid=1",
            "storeprodcode=1",
            "pagesize=20",
            "startidx=1",
            "reqtype=2",
        ),
    }.get(endpoint)
    return r"\?" + "&".join(pieces) if pieces else ""


def _body(device: dict) -> str:
    fixed = {
        "GUID": device["guid"],
        "UID": device["uid"],
        "countryCode": device["country"],
        "storeId": "1",
        "storeProdCode": "1",
    }
    values = {key: re.escape(value) for key, value in fixed.items()}
    values["languageCode"] = languages(device["locale"])
    members = ",\n".join(f'   "{key}" : "{values.get(key, _TEXT)}"' for key in _BODY_KEYS)
    return "\\{\n" + members + "\n\\}\n"


def _headers(endpoint: str, device: dict, size: int) -> list[tuple[str, str]]:
    """The expected headers, names and values, without the host: its header differs between the protocols."""
    pairs = [
        ("Content-Type", "application/json; charset=utf-8"),
        ("Accept", "application/json"),
        ("DUID", device["duid"]),
        ("Atoken", device["token"]),
    ]
    if endpoint == "invoices":
        pairs += [("TvYear", "15"), ("TvVersion", "1.2")]
    if endpoint in ("apply", "confirm"):
        pairs.append(("Content-Length", str(size)))
    # A header without a value is not sent.
    return [(name, value) for name, value in pairs if value]


def _header_lines(sent: Sent, endpoint: str, device: dict) -> list[str]:
    pairs = _headers(endpoint, device, len(sent.body))
    if sent.protocol == "HTTP/2":
        pairs = [(":authority", device["host"]), (":scheme", "https"), *((name.lower(), value) for name, value in pairs)]
    else:
        pairs = [("Host", device["host"]), *pairs]
    return [f"{name}: {value}" for name, value in pairs]


def differences(sent: Sent, endpoint: str | None, device: dict, certificate: dict | None) -> list[str]:
    """@return one text for each difference from the request that the service sends on this device; empty if there is none

    @param device the device's host, certificate (its SHA-256), token, duid, guid, uid, country and locale
    """
    if endpoint is None:
        return ["the service sends no request to this path"]
    found = []
    if (certificate or {}).get("sha256") != device["certificate"]:
        found.append("the certificate is not the device's")
    method, path = next(key for key, name in PATHS.items() if name == endpoint)
    wanted = f"{method} {re.escape(path)}{_query(endpoint, device)} {re.escape(sent.protocol)}"
    if not re.fullmatch(wanted, sent.line, re.DOTALL):
        found.append(f"the request line is {sent.line!r}")
    found += _header_differences(sent.headers, _header_lines(sent, endpoint, device))
    if endpoint in ("apply", "confirm"):
        if not re.fullmatch(_body(device), _text(sent.body), re.DOTALL):
            found.append("the body is not the nine members in their layout")
    elif sent.body:
        found.append(f"it has a body of {len(sent.body)} bytes")
    return found


def _header_differences(sent: list[str], wanted: list[str]) -> list[str]:
    if sent == wanted:
        return []
    found = [f"there is no header {line!r}" for line in wanted if line not in sent]
    found += [f"there is a header {line!r}" for line in sent if line not in wanted]
    return found or ["the headers stand in another order"]
