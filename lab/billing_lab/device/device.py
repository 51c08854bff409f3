"""The device in front of the store: reads and writes its settings file, and defines the switches that change it.

The daemon reads the file again before each request, so a switch is seen at the next call.
"""
import configparser
import pathlib
import re

from ..folder import replace_file
from ..shop.store import EXPIRED_TOKEN

Settings = dict[str, dict[str, str]]
Changes = dict[tuple[str, str], str | None]

TOKEN = ("config", "db/comss/atoken")
DUID = ("config", "db/comss/hwduid")
COUNTRY = ("config", "db/comss/countrycode")
LANGUAGE = ("runtime", "language")
SERVER = ("system", "vantor_server_type")
GUID = ("account", "guid")
UID = ("account", "login_id")
ACCOUNT_TOKEN = ("account", "auth_token")
GATEWAY = ("network", "default_gateway")
HOSTS = (("deployment", "production_host"), ("deployment", "sandbox_host"))

# The values of the settings file, by the names that users write.
SERVERS = {"production": "0", "sandbox": "1"}
# The daemon takes a language without a region as the first locale of its table that begins with it. For these that is not the
# usual one, so the lab writes the whole locale.
_LOCALES = {"es": "es_ES.utf8", "fr": "fr_FR.utf8", "pt": "pt_PT.utf8"}


class DeviceError(ValueError):
    """The reason why a switch cannot be set, in one line."""


def read(file: pathlib.Path) -> Settings:
    parser = configparser.ConfigParser(delimiters="=", interpolation=None, strict=False, comment_prefixes="#")
    parser.optionxform = str
    try:
        parser.read(file, encoding="utf-8")
    except (configparser.Error, UnicodeDecodeError) as error:
        reason = str(error).replace("\n", " ")
        raise DeviceError(f"{file} cannot be read ({reason}); mend it, or `reset` the lab") from None
    return {group: dict(parser[group]) for group in parser.sections()}


def write(file: pathlib.Path, settings: Settings) -> None:
    lines = ["# The lab's device. `billing-lab device` changes it, and so may you."]
    for group, values in settings.items():
        lines += [f"[{group}]", *(f"{key}={value}" for key, value in values.items())]
    replace_file(file, ("\n".join(lines) + "\n").encode())


def value(settings: Settings, key: tuple[str, str]) -> str:
    return settings.get(key[0], {}).get(key[1], "")


def change(file: pathlib.Path, changes: Changes) -> None:
    """Sets values in the settings file; None removes one."""
    settings = read(file)
    apply(settings, changes)
    write(file, settings)


def apply(settings: Settings, changes: Changes) -> None:
    for (group, key), new in changes.items():
        if new is None:
            settings.get(group, {}).pop(key, None)
        else:
            settings.setdefault(group, {})[key] = new


def facts(settings: Settings, certificate: str) -> dict:
    """The values that this device's requests must have, in the form that check.differences takes."""
    sandbox = value(settings, SERVER) in ("", "1", "2")
    host = "sandbox_host" if sandbox else "production_host"
    return {
        "host": value(settings, ("deployment", host)),
        "token": value(settings, TOKEN),
        "duid": value(settings, DUID),
        "guid": value(settings, GUID),
        "uid": value(settings, UID),
        "country": value(settings, COUNTRY),
        "locale": value(settings, LANGUAGE),
        "certificate": certificate,
    }


def describe(settings: Settings, valid_token: str) -> dict:
    """The device's state, by the names of its switches."""
    token = value(settings, TOKEN)
    kinds = {valid_token: "valid", "": "none"}
    return {
        "signed_in": value(settings, UID) or None,
        "guid": value(settings, GUID) or None,
        "country": value(settings, COUNTRY) or None,
        "language": value(settings, LANGUAGE) or None,
        "server": "sandbox" if value(settings, SERVER) in ("", "1", "2") else "production",
        "gateway": value(settings, GATEWAY) or "auto",
        "token": "expired" if token.startswith(EXPIRED_TOKEN) else kinds.get(token, "unknown"),
    }


def switched(name: str, wanted: str, users: list[dict], valid_token: str) -> dict:
    """@return the changes of the settings that a switch makes

    @param users the users of the catalogue
    @param valid_token the token that the store accepts
    @throw DeviceError
    """
    if name not in SWITCHES:
        raise DeviceError(f"{name!r} is no switch of the device; known are {', '.join(SWITCHES)}")
    if name == "service":
        raise DeviceError("the service's own state is set by `billing-lab device service`, and in no catalogue and no scenario")
    if name == "token":
        tokens = {"valid": valid_token, "expired": EXPIRED_TOKEN + valid_token, "none": None}
        return {TOKEN: _one_of(name, wanted, tokens)}
    if name == "signed-in":
        return _signed_in(wanted, users)
    return _SIMPLE[name](wanted)


def _one_of(name: str, wanted: str, known: dict):
    if wanted not in known:
        raise DeviceError(f"{name} {wanted!r} is not known; write one of {', '.join(known)}")
    return known[wanted]


def _signed_in(uid: str, users: list[dict]) -> dict:
    guids = {user["uid"]: user["guid"] for user in users}
    if uid not in guids:
        raise DeviceError(f"the catalogue has no user {uid!r}; it has {', '.join(guids)}")
    return {UID: uid, GUID: guids[uid], ACCOUNT_TOKEN: f"lab-{uid}"}


def _signed_out(wanted: str) -> dict:
    if wanted:
        raise DeviceError(f"signed-out takes no value such as {wanted!r}; `signed-in USER` undoes it")
    return {UID: None, GUID: None, ACCOUNT_TOKEN: None}


def _country(wanted: str) -> dict:
    if wanted != "none" and not re.fullmatch("[A-Z]{2}", wanted):
        raise DeviceError(f"country {wanted!r} is no code; write two capitals such as DE, or none")
    return {COUNTRY: None if wanted == "none" else wanted}


def _language(wanted: str) -> dict:
    if wanted != "none" and not re.fullmatch(r"[a-z]{2,3}(_[A-Z]{2}\.(utf8|UTF-8))?", wanted):
        raise DeviceError(f"language {wanted!r} is no locale; write one such as de_DE.utf8 or de, or none")
    # A shell says UTF-8; the device's settings, and the daemon's table of locales, say utf8.
    name = wanted.replace(".UTF-8", ".utf8")
    return {LANGUAGE: None if name == "none" else _LOCALES.get(name, name)}


def _server(wanted: str) -> dict:
    return {SERVER: _one_of("server", wanted, SERVERS)}


def _gateway(wanted: str) -> dict:
    if wanted not in ("up", "down", "auto") and not re.fullmatch("error:[0-9]{1,9}", wanted):
        raise DeviceError(f"gateway {wanted!r} is not known; write up, down, auto or error:NUMBER")
    return {GATEWAY: wanted}


_SIMPLE = {"signed-out": _signed_out, "country": _country, "language": _language, "server": _server, "gateway": _gateway}
# The daemon runs; runs but does not answer; is not on the bus; answers, but cannot submit a request.
SERVICE_STATES = ("up", "hanging", "absent", "refusing")
SWITCHES = (*_SIMPLE, "signed-in", "token", "service")
