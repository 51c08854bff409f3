"""What happens to purchases outside the five methods: on the store's own pages, by hand or by a test."""
import sqlite3

from . import faults, state, store
from .faults import RESERVED
from .store import Refusal


def buy(db: sqlite3.Connection, *, product: str, app: str, user: str, country: str,
        custom_id: str | None = None) -> dict:
    """A user pays for a product. @return the new invoice"""
    catalogue = state.fact(db, "catalogue")
    sold = store.find_app(catalogue, app)
    if user not in [known["uid"] for known in catalogue["users"]]:
        raise Refusal(404, "unknown_user", f"no user has the id {user!r}")
    store.check_country(catalogue, country)
    if product.startswith(RESERVED):
        faults.check_product(product)
        if product == RESERVED + "buy.declined":
            raise Refusal(402, "declined", f"the payment was declined, as {product} asks for")
    else:
        _check_sale(db, sold, product, user, country)
    invoice = {"id": state.next_invoice_id(db), "user": user, "app": app, "product": product,
               "country": country, "custom_id": custom_id, "bought": store.now()}
    state.add_invoice(db, invoice)
    return state.invoice(db, invoice["id"])


def _check_sale(db: sqlite3.Connection, app: dict, product: str, user: str, country: str) -> None:
    for known in app["products"]:
        if known["id"] == product and country in known["prices"]:
            break
    else:
        names = ", ".join(p["id"] for p in app["products"] if country in p["prices"]) or "none"
        raise Refusal(404, "unknown_product",
                      f"{app['id']} does not sell {product!r} in {country}; it sells {names}")
    if known["type"] == "durable":
        for owned in state.invoices(db, user):
            if ((owned["app"], owned["product"]) == (app["id"], product)
                    and owned["status"] not in ("cancelled", "refunded")):
                raise Refusal(409, "owned", f"{user} owns {product} already ({owned['id']})")


def cancel(db: sqlite3.Connection, name: str) -> dict:
    """The purchase is called off before it was confirmed."""
    found = _found(db, name)
    if found["status"] in ("confirmed", "refunded"):
        raise Refusal(409, found["status"], f"{name} was {found['status']}"
                      + ("; refund it instead" if found["status"] == "confirmed" else ""))
    return state.mark(db, name, "cancelled", store.now())


def refund(db: sqlite3.Connection, name: str) -> dict:
    """The money goes back."""
    found = _found(db, name)
    if found["status"] == "cancelled":
        raise Refusal(409, "cancelled", f"{name} was cancelled: there is nothing to give back")
    return state.mark(db, name, "refunded", store.now())


def _found(db: sqlite3.Connection, name: str) -> dict:
    found = state.invoice(db, name)
    if found is None:
        raise Refusal(404, "unknown_invoice", f"there is no invoice {name!r}")
    return found
