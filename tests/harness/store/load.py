"""Lists and purchases, several at a time, each with an answer of its own."""
import itertools
import time
import typing

from gi.repository import GLib

from .backend import listed, sold


class Work(typing.NamedTuple):
    """A call with its arguments and the body of its answer. Only a purchase has an `invoice`."""

    call: tuple
    answer: str
    invoice: str = None


class Outcome(typing.NamedTuple):
    """`failed` has (method, result, expected answer); `invoices` has the invoices of all purchases."""

    failed: list
    invoices: list
    count: int

    def __add__(self, other):
        return Outcome(self.failed + other.failed, self.invoices + other.invoices, self.count + other.count)


def purchase(name):
    return Work(("confirm_purchase", "app", "custom", name, "0"), sold(name), name)


def product_list(name):
    return Work(("get_product_list", name, "0", "check"), listed(name))


def mixed(name):
    """Lists and purchases in turn, endless."""
    for i in itertools.count():
        yield (purchase if i % 2 else product_list)(f"{name}-{i}")


def first(count, work):
    return itertools.islice(work, count)


def for_seconds(seconds, work):
    """The calls of `work` until that time."""
    end = time.monotonic() + seconds
    return itertools.takewhile(lambda _: time.monotonic() < end, work)


def run(caller, work, flight=1, meanwhile=lambda: None):
    """Makes the calls in their order, so many at the same time.

    @param meanwhile  called repeatedly until the last answer
    """
    waiting, under_way, outcome = iter(work), [], Outcome([], [], 0)
    count = 0
    tick = GLib.timeout_add(20, lambda: True)
    try:
        while True:
            for each in itertools.islice(waiting, flight - len(under_way)):
                under_way.append((caller.start(*each.call, timeout=120), each))
                outcome.invoices.extend([each.invoice] if each.invoice else [])
                count += 1
            if not under_way:
                return outcome._replace(count=count)
            GLib.MainContext.default().iteration(True)
            meanwhile()
            for made, each in [pair for pair in under_way if pair[0].done]:
                under_way.remove((made, each))
                if made.result != (0, each.answer):
                    outcome.failed.append((each.call[0], made.result or made.error, each.answer))
    finally:
        GLib.source_remove(tick)
