"""The five methods, each with ordinary arguments."""

from gi.repository import GLib

# Largest size of the arguments of one call, in bytes as the bus library counts them.
ARGUMENT_BYTES = 8 << 10
LIMITS_EXCEEDED = "org.freedesktop.DBus.Error.LimitsExceeded"

NO_NETWORK = (1160003, "Network error, please check!")
TRY_LATER = (1160003, "Try again later.")

EVERY_CALL = {
    "check_server_availability": (),
    "get_product_list": ("app-1", "1", "check-1"),
    "get_purchase_history": ("app-1", "custom-1", "type-1", "5", "check-1", "1"),
    "get_applied_time": ("app-1", "custom-1", "invoice-1", "1"),
    "confirm_purchase": ("app-1", "custom-1", "invoice-1", "1"),
}


def argument_bytes(arguments):
    return GLib.Variant("(" + "s" * len(arguments) + ")", tuple(arguments)).get_size()


def filled(arguments, place, character="x", most=ARGUMENT_BYTES):
    """The arguments with one of them filled by that character, up to the given size of all.

    @param character  of one byte
    """
    full = list(arguments)
    full[place] = character * most
    while argument_bytes(full) > most:
        full[place] = full[place][: most - argument_bytes(full)]
    return full


def answers(caller):
    """The answers of all methods in order."""
    return {method: caller.call(method, *arguments) for method, arguments in EVERY_CALL.items()}


def all_alike(result):
    """The answers when all methods answer the same."""
    return dict.fromkeys(EVERY_CALL, result)
