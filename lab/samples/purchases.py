#!/usr/bin/python3
"""A sample app that delivers what its user has bought, and prints a line for each purchase.

usage: purchases.py APP NOTES

The app asks the billing service for the user's purchases, and applies and confirms each that is not confirmed yet. NOTES
is the app's own file, made if it is missing. The service returns only the newest 20 purchases of the account, so each
purchase is noted in the file until it is confirmed. The service is called on the system bus, or on the bus named by
DBUS_SYSTEM_BUS_ADDRESS.
"""
import json
import os
import pathlib
import sys

from gi.repository import Gio, GLib

SERVICE = "org.plevo.billingservice"
OBJECT = "/org/plevo/billingservice"
# The device's setting chooses the server; this argument is not used.
SERVER_TYPE = ""
# The service ends a transfer after 90 seconds.
TIMEOUT_MS = 100_000

SUCCESS, TRANSFER_FAILED, REFUSED = 0, -1, 1160003


class StoreError(Exception):
    """The store cannot be reached, or has refused. No purchase is lost: the app asks again later."""


def ask(bus: Gio.DBusConnection, method: str, *arguments: str) -> dict:
    """Calls a method of the service and reads the store's answer."""
    signature = GLib.VariantType("(" + "s" * len(arguments) + ")")
    reply = bus.call_sync(
        SERVICE,
        OBJECT,
        SERVICE,
        method,
        GLib.Variant(signature.dup_string(), arguments),
        GLib.VariantType("(is)"),
        Gio.DBusCallFlags.NONE,
        TIMEOUT_MS,
        None,
    )
    result, text = reply.unpack()
    if result == REFUSED:  # no network, or the service is stopping
        raise StoreError(text)
    if result != SUCCESS:
        raise StoreError("the connection to the store failed")
    try:
        answer = json.loads(text)
    except ValueError:
        raise StoreError("the store's answer cannot be read") from None
    # An HTTP error is a successful transfer for the service: only the body tells of it.
    if answer.get("status") != "ok":
        raise StoreError(answer.get("message", "the store refused"))
    return answer


def read_notes(file: pathlib.Path) -> dict[str, str]:
    """@return the product of each invoice that is not confirmed yet, by the invoice's id"""
    return json.loads(file.read_text(encoding="utf-8")) if file.exists() else {}


def write_notes(file: pathlib.Path, notes: dict[str, str]) -> None:
    """Replaces the file at once, so that a crash leaves the old notes or the new ones."""
    fresh = file.with_name(file.name + ".new")
    fresh.write_text(json.dumps(notes), encoding="utf-8")
    os.replace(fresh, file)


def note_history(bus: Gio.DBusConnection, app: str, notes: dict[str, str]) -> None:
    # The service uses no argument of this method: it returns the account's purchases of all apps.
    history = ask(bus, "get_purchase_history", app, "", "", "", "", SERVER_TYPE)
    for invoice in history["invoices"]:
        if invoice["app"] != app:
            continue
        if invoice["status"] in ("bought", "applied"):
            notes.setdefault(invoice["id"], invoice["product"])
        else:
            notes.pop(invoice["id"], None)


def deliver(bus: Gio.DBusConnection, app: str, file: pathlib.Path) -> int:
    """@return how many purchases could not be delivered"""
    failed, notes = 0, read_notes(file)
    note_history(bus, app, notes)
    write_notes(file, notes)
    for name, product in list(notes.items()):
        try:
            ask(bus, "get_applied_time", app, "", name, SERVER_TYPE)
            # An app unlocks here what was bought, and confirms only after that. If the answer of a confirmation is lost, the
            # app confirms again: the store keeps the first confirmation.
            ask(bus, "confirm_purchase", app, "", name, SERVER_TYPE)
            del notes[name]
            write_notes(file, notes)
            print(f"{name} {product} delivered")
        except StoreError as error:
            failed += 1
            print(f"{name} {product} later: {error}")
    return failed


def main() -> int:
    if len(sys.argv) != 3:
        print(__doc__.split("\n\n")[1], file=sys.stderr)
        return 2
    try:
        bus = Gio.bus_get_sync(Gio.BusType.SYSTEM, None)
        return 1 if deliver(bus, sys.argv[1], pathlib.Path(sys.argv[2])) else 0
    except StoreError as error:
        print(f"later: {error}")
    except GLib.Error as error:
        print(f"the billing service cannot be reached: {error.message}", file=sys.stderr)
    return 1


if __name__ == "__main__":
    sys.exit(main())
