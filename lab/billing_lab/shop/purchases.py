"""Buys a product, as a user does on the store's own pages."""
import sqlite3

from ..life import clock, purchase
from . import faults, state, store
from .faults import RESERVED
from .store import Refusal


def buy(
    db: sqlite3.Connection,
    *,
    product: str,
    app: str,
    user: str,
    country: str,
    custom_id: str | None = None,
    life: dict | None = None,
) -> dict:
    """A user pays for a product. @param life as for purchase.begin(). @return the new invoice"""
    purchase.happen(db)
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
    invoice = {
        "id": state.next_invoice_id(db),
        "user": user,
        "app": app,
        "product": product,
        "country": country,
        "custom_id": custom_id,
        "bought": clock.now(db),
    }
    db.execute("BEGIN")
    try:
        state.add_invoice(db, invoice)
        purchase.begin(db, invoice["id"], _life_of(sold, product, life or {}))
    except ValueError:
        db.execute("ROLLBACK")
        raise
    db.execute("COMMIT")
    return state.invoice(db, invoice["id"])


def _life_of(app: dict, product: str, wanted: dict) -> dict:
    """@return `wanted`, with period and grace of the catalogue's product where it does not name them"""
    sold = next((known for known in app["products"] if known["id"] == product), {})
    return {**{key: sold[key] for key in ("period", "grace") if key in sold}, **wanted}


def _check_sale(db: sqlite3.Connection, app: dict, product: str, user: str, country: str) -> None:
    for known in app["products"]:
        if known["id"] == product and country in known["prices"]:
            break
    else:
        names = ", ".join(p["id"] for p in app["products"] if country in p["prices"]) or "none"
        raise Refusal(404, "unknown_product", f"{app['id']} does not sell {product!r} in {country}; it sells {names}")
    if known["type"] == "durable":
        for owned in state.invoices(db, user):
            if (owned["app"], owned["product"]) == (app["id"], product) and owned["status"] not in (
                "cancelled",
                "refunded",
                "declined",
                "expired",
            ):
                raise Refusal(409, "owned", f"{user} owns {product} already ({owned['id']})")
