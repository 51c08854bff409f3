"""The store's answers to the five requests. Their JSON is the lab's own, since the daemon hands on any body unchanged."""
import dataclasses
import json
import sqlite3

from ..life import clock
from ..own import answers as own_answers
from ..own.template import TemplateError
from . import catalogue as goods
from . import state
from .matching import Asked

PATHS = {
    ("GET", "/billing/service/v2/country"): "country",
    ("GET", "/billing/product/v2/products"): "products",
    ("GET", "/billing/service/v2/user/invoices"): "invoices",
    ("POST", "/billing/payment/v2/apply"): "apply",
    ("POST", "/billing/payment/v2/confirm"): "confirm",
}
EXPIRED_TOKEN = "expired-"
LARGEST_PAGE = 1000


@dataclasses.dataclass(frozen=True)
class Ask:
    """One request: its endpoint, the values of its query or its JSON body by name, and the device's token."""

    endpoint: str
    values: dict[str, str]
    token: str

    @property
    def app(self) -> str:
        return self.values.get("appid", self.values.get("appId", ""))

    @property
    def user(self) -> str:
        return self.values.get("uid", self.values.get("UID", ""))


@dataclasses.dataclass(frozen=True)
class Reply:
    status: int
    body: bytes
    type: str = "application/json"
    # Whether the store did what was asked.
    done: bool = True


class Refusal(Exception):
    """The store refuses a request, with an HTTP status, an error code and a message."""

    def __init__(self, status: int, code: str, message: str):
        super().__init__(message)
        self.status, self.code = status, code


def failure(status: int, code: str, message: str) -> Reply:
    return Reply(status, _json({"status": "error", "code": code, "message": message}), done=False)


def answer(db: sqlite3.Connection, ask: Ask, asked: Asked) -> Reply:
    """Does what the request asks for. An own answer replaces the built-in one, also a refusal, except that of a bad token.

    @param asked the same request, as conditions of own answers are compared with it
    """
    try:
        _check_token(db, ask)
    except Refusal as refusal:
        return _refused(refusal)
    try:
        done = _STEPS[ask.endpoint](db, state.fact(db, "catalogue"), ask)
        reply = Reply(200, _json({"status": "ok", **done}))
    except Refusal as refusal:
        reply = _refused(refusal)
    own = own_answers.pick(db, asked)
    if own is None:
        return reply
    try:
        body = own_answers.filled(own, _values(db, ask, asked, reply))
    except TemplateError as error:
        return failure(500, "template", str(error))
    return Reply(own.get("status", 200), body, own.get("type", "application/json"), reply.done)


def _values(db: sqlite3.Connection, ask: Ask, asked: Asked, reply: Reply) -> dict:
    """The variables of a template."""
    return {
        "answer": json.loads(reply.body),
        "status": reply.status,
        "values": ask.values,
        "asked": asked.describe(),
        "invoice": state.invoice(db, asked.invoice) if asked.invoice else None,
        "invoices": state.invoices(db, ask.user),
        "now": clock.now(db),
    }


def _refused(refusal: Refusal) -> Reply:
    return failure(refusal.status, refusal.code, str(refusal))


def _json(value: dict) -> bytes:
    return json.dumps(value, ensure_ascii=False).encode()


def _check_token(db: sqlite3.Connection, ask: Ask) -> None:
    if ask.token.startswith(EXPIRED_TOKEN):
        raise Refusal(401, "token_expired", "the device's token has expired")
    if ask.token != state.fact(db, "token"):
        raise Refusal(401, "unknown_token", "the store does not know the device's token")


def _check_user(catalogue: dict, ask: Ask) -> None:
    guid = ask.values.get("GUID", "")
    if not ask.user and not guid:
        raise Refusal(401, "signed_out", "no user is signed in on the device")
    if not any((user["uid"], user["guid"]) == (ask.user, guid) for user in catalogue["users"]):
        raise Refusal(403, "unknown_user", f"no user has the id {ask.user!r} and the account {guid!r}")


def find_app(catalogue: dict, name: str) -> dict:
    for app in catalogue["apps"]:
        if app["id"] == name:
            return app
    raise Refusal(404, "unknown_app", f"no app has the id {name!r}")


def _country(_db: sqlite3.Connection, catalogue: dict, ask: Ask) -> dict:
    name = ask.values.get("countrycode", "")
    country = catalogue["countries"].get(name)
    if country is None:
        return {"country": name, "available": False, "reason": "the store does not know this country"}
    if not country.get("available", True):
        return {"country": name, "available": False, "reason": country.get("reason", "the store is closed there")}
    return {"country": name, "available": True, "currency": country["currency"]}


def check_country(catalogue: dict, name: str) -> dict:
    """@return the country. @throw Refusal if the store is not available there"""
    country = catalogue["countries"].get(name)
    if country is None or not country.get("available", True):
        raise Refusal(403, "country_unavailable", f"the store is not available in the country {name!r}")
    return country


def _products(_db: sqlite3.Connection, catalogue: dict, ask: Ask) -> dict:
    app = find_app(catalogue, ask.app)
    if ask.values.get("checkvalue", "") != app.get("check_value", ask.values.get("checkvalue", "")):
        raise Refusal(403, "wrong_check_value", "the check value is not the app's")
    name = ask.values.get("countrycode", "")
    country = check_country(catalogue, name)
    language = ask.values.get("languagecode", "")
    products = [
        {
            "id": product["id"],
            "title": goods.text_in(product["title"], language),
            "type": product["type"],
            "price": product["prices"][name],
            "currency": country["currency"],
        }
        for product in app["products"]
        if name in product["prices"]
    ]
    return {"app": app["id"], "country": name, "products": products}


def _invoices(db: sqlite3.Connection, catalogue: dict, ask: Ask) -> dict:
    _check_user(catalogue, ask)
    size = _number(ask, "pagesize", LARGEST_PAGE)
    start = _number(ask, "startidx", 2**31)
    return {
        "total": state.count_invoices(db, ask.user),
        "startidx": start,
        "pagesize": size,
        "invoices": state.invoices(db, ask.user, start, size),
    }


def _number(ask: Ask, name: str, most: int) -> int:
    text = ask.values.get(name, "")
    if not (text.isascii() and text.isdecimal() and 1 <= int(text[:12]) <= most):
        raise Refusal(400, "bad_request", f"{name} is {text[:40]!r}, not a number from 1 to {most}")
    return int(text)


# Statuses in which an invoice cannot be applied or confirmed, as texts for the refusal.
_NO_MORE = {
    "cancelled": "was cancelled",
    "refunded": "was refunded",
    "pending": "is pending",
    "declined": "was declined",
    "expired": "has expired",
}


def _invoice_of(db: sqlite3.Connection, catalogue: dict, ask: Ask) -> dict:
    _check_user(catalogue, ask)
    name = ask.values.get("invoiceId", "")
    found = state.invoice(db, name)
    # Another user's invoice is reported as unknown, as a real store must do.
    if found is None or found["status"] == "later" or (found["user"], found["app"]) != (ask.user, ask.app):
        raise Refusal(404, "unknown_invoice", f"the user has no invoice {name!r} in this app")
    if found.get("custom_id", ask.values.get("customId")) != ask.values.get("customId"):
        raise Refusal(403, "wrong_custom_id", "the custom id is not that of the purchase")
    if found["status"] in _NO_MORE:
        raise Refusal(409, found["status"], f"the invoice {_NO_MORE[found['status']]}")
    return found


def _apply(db: sqlite3.Connection, catalogue: dict, ask: Ask) -> dict:
    found = state.mark(db, _invoice_of(db, catalogue, ask)["id"], "applied", clock.now(db))
    return {"invoice": found["id"], "applied": found["applied"]}


def _confirm(db: sqlite3.Connection, catalogue: dict, ask: Ask) -> dict:
    found = state.mark(db, _invoice_of(db, catalogue, ask)["id"], "confirmed", clock.now(db))
    return {"invoice": found["id"], "confirmed": found["confirmed"]}


_STEPS = {"country": _country, "products": _products, "invoices": _invoices, "apply": _apply, "confirm": _confirm}
