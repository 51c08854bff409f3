"""The five methods, each with arguments that a caller might use."""

from gi.repository import GLib

# The most that the arguments of one call may have together, as the bus library counts their bytes.
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
    """The arguments with a text of that character in one place, as long as it may be for so many bytes in all.

    @param character  of one byte
    """
    full = list(arguments)
    full[place] = character * most
    while argument_bytes(full) > most:
        full[place] = full[place][: most - argument_bytes(full)]
    return full


def answers(caller):
    """What each method answers, one after the other."""
    return {method: caller.call(method, *arguments) for method, arguments in EVERY_CALL.items()}


def all_alike(result):
    """The answers when each is the same."""
    return dict.fromkeys(EVERY_CALL, result)
