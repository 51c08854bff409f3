#!/usr/bin/python3
"""A sample: an app that delivers what its user has bought. Prints a line for each purchase.

usage: purchases.py APP NOTES

It asks the billing service for the user's purchases, applies each that was not confirmed yet, and
confirms it. NOTES is a file of its own, made when it is missing: the service tells the newest 20 purchases of the
account alone, so what is not confirmed yet is noted before anything is done with it. The service is found on the
system bus, or on that of DBUS_SYSTEM_BUS_ADDRESS.
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
# The service itself gives a transfer up after 90 seconds.
TIMEOUT_MS = 100_000

SUCCESS, TRANSFER_FAILED, REFUSED = 0, -1, 1160003


class StoreError(Exception):
    """The store cannot be asked now. Nothing is lost: ask again later."""


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
    # An HTTP error comes as a success of the transfer: the body alone says so.
    if answer.get("status") != "ok":
        raise StoreError(answer.get("message", "the store refused"))
    return answer


def read_notes(file: pathlib.Path) -> dict[str, str]:
    """The product of each invoice that is not confirmed yet."""
    return json.loads(file.read_text(encoding="utf-8")) if file.exists() else {}


def write_notes(file: pathlib.Path, notes: dict[str, str]) -> None:
    """Whole, or not at all."""
    fresh = file.with_name(file.name + ".new")
    fresh.write_text(json.dumps(notes), encoding="utf-8")
    os.replace(fresh, file)


def note_history(bus: Gio.DBusConnection, app: str, notes: dict[str, str]) -> None:
    # No argument of it counts: the answer is the account's, of all its apps.
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
            # Here the app unlocks what was bought. Then, and not before, it confirms. A confirmation
            # whose answer was lost is simply made again: the store keeps the first.
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
