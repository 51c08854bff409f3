#!/usr/bin/python3
"""A sample: an app that delivers what its user has bought. Prints a line for each purchase.

usage: purchases.py APP

It asks the billing service for the user's purchases, applies each that was not confirmed yet, and
confirms it. The service is found on the system bus, or on that of DBUS_SYSTEM_BUS_ADDRESS.
"""
import json
import sys

from gi.repository import Gio, GLib

SERVICE = "org.plevo.billingservice"
OBJECT = "/org/plevo/billingservice"
SANDBOX = "1"
# The service itself gives a transfer up after 90 seconds.
TIMEOUT_MS = 100_000

SUCCESS, TRANSFER_FAILED, REFUSED = 0, -1, 1160003


class StoreError(Exception):
    """The store cannot be asked now. Nothing is lost: ask again later."""


def ask(bus: Gio.DBusConnection, method: str, *arguments: str) -> dict:
    """Calls a method of the service and reads the store's answer."""
    signature = GLib.VariantType("(" + "s" * len(arguments) + ")")
    reply = bus.call_sync(SERVICE, OBJECT, SERVICE, method,
                          GLib.Variant(signature.dup_string(), arguments), GLib.VariantType("(is)"),
                          Gio.DBusCallFlags.NONE, TIMEOUT_MS, None)
    result, text = reply.unpack()
    if result == REFUSED:  # no network, or the service is stopping
        raise StoreError(text)
    if result != SUCCESS:
        raise StoreError("the connection to the store failed")
    try:
        answer = json.loads(text)
    except ValueError:
        raise StoreError("the store's answer cannot be read") from None
    # An HTTP error comes as a success of the transfer: the body alone says so.
    if answer.get("status") != "ok":
        raise StoreError(answer.get("message", "the store refused"))
    return answer


def deliver(bus: Gio.DBusConnection, app: str) -> int:
    """@return how many purchases could not be delivered"""
    failed = 0
    history = ask(bus, "get_purchase_history", app, "", "", "1", "", SANDBOX)
    for invoice in history["invoices"]:
        if invoice["app"] != app or invoice["status"] not in ("bought", "applied"):
            continue
        try:
            ask(bus, "get_applied_time", app, "", invoice["id"], SANDBOX)
            # Here the app unlocks what was bought. Then, and not before, it confirms. A confirmation
            # whose answer was lost is simply made again: the store keeps the first.
            ask(bus, "confirm_purchase", app, "", invoice["id"], SANDBOX)
            print(f"{invoice['id']} {invoice['product']} delivered")
        except StoreError as error:
            failed += 1
            print(f"{invoice['id']} {invoice['product']} later: {error}")
    return failed


def main() -> int:
    if len(sys.argv) != 2:
        print(__doc__.split("\n\n")[1], file=sys.stderr)
        return 2
    try:
        bus = Gio.bus_get_sync(Gio.BusType.SYSTEM, None)
        return 1 if deliver(bus, sys.argv[1]) else 0
    except StoreError as error:
        print(f"later: {error}")
    except GLib.Error as error:
        print(f"the billing service cannot be reached: {error.message}", file=sys.stderr)
    return 1


if __name__ == "__main__":
    sys.exit(main())
