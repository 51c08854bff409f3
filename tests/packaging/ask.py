"""Makes calls on a bus as the user that runs it, and prints the end of each, as JSON.

usage: ask.py ADDRESS OWNER     OWNER: the service's unique name
Each call ends with "answered" or with the name of its error.
"""
import json
import sys

from gi.repository import Gio, GLib

SERVICE, OBJECT = "org.plevo.billingservice", "/org/plevo/billingservice"
BUS = "org.freedesktop.DBus"


def texts(count):
    return GLib.Variant("(" + "s" * count + ")", ["x"] * count)


def calls(owner, client):
    """Yields name of the call, destination, path, interface, method, arguments."""
    for method, count in (
        ("get_product_list", 3),
        ("get_purchase_history", 6),
        ("get_applied_time", 4),
        ("confirm_purchase", 4),
        ("check_server_availability", 0),
    ):
        yield method, SERVICE, OBJECT, SERVICE, method, texts(count)
    question = (OBJECT, SERVICE, "check_server_availability", None)
    yield "by its unique name", owner, *question
    yield "a method that is none", SERVICE, OBJECT, SERVICE, "refund", None
    yield "at another path", SERVICE, "/", *question[1:]
    yield "without an interface", SERVICE, OBJECT, None, *question[2:]
    yield "Introspect", SERVICE, OBJECT, BUS + ".Introspectable", "Introspect", None
    yield "Introspect of the root", SERVICE, "/", BUS + ".Introspectable", "Introspect", None
    yield "Ping", SERVICE, OBJECT, BUS + ".Peer", "Ping", None
    yield "Properties", SERVICE, OBJECT, BUS + ".Properties", "GetAll", texts(1)
    yield "another interface", SERVICE, OBJECT, "org.example.Other", "get", None
    yield "Ping of a client", client, "/", BUS + ".Peer", "Ping", None
    yield "introspection of a client", client, "/", BUS + ".Introspectable", "Introspect", None
    for method in ("GetConnectionStats", "GetAllMatchRules"):
        yield method, BUS, "/org/freedesktop/DBus", BUS + ".Debug.Stats", method, (
            GLib.Variant("(s)", (client,)) if method == "GetConnectionStats" else None
        )
    yield "own its name", BUS, "/org/freedesktop/DBus", BUS, "RequestName", GLib.Variant("(su)", (SERVICE, 4))
    yield "own a name below it", BUS, "/org/freedesktop/DBus", BUS, "RequestName", GLib.Variant("(su)", (SERVICE + ".more", 4))


def outcome(bus, destination, path, interface, method, arguments):
    message = Gio.DBusMessage.new_method_call(destination, path, interface, method)
    if arguments is not None:
        message.set_body(arguments)
    reply, _ = bus.send_message_with_reply_sync(message, Gio.DBusSendMessageFlags.NONE, 20000, None)
    return reply.get_error_name() or "answered"


def connect(address):
    return Gio.DBusConnection.new_for_address_sync(
        address, Gio.DBusConnectionFlags.AUTHENTICATION_CLIENT | Gio.DBusConnectionFlags.MESSAGE_BUS_CONNECTION, None, None
    )


def main(address, owner):
    bus, client = connect(address), connect(address)
    print(json.dumps({name: outcome(bus, *call) for name, *call in calls(owner, client.get_unique_name())}))


if __name__ == "__main__":
    main(*sys.argv[1:])
