"""The commands for the life of purchases: cancel, refund, step, clock, and options of buy."""
import argparse
import json

from ..client import Lab
from ..command.commands import show_invoice
from ..command.words import add
from .purchase import GRACE, STEPS

_SPAN = "a span of the lab's clock such as 30d, 12h, 5m or 90s"


def add_buy_options(made: argparse.ArgumentParser) -> None:
    made.add_argument(
        "--pending",
        action="store_true",
        default=None,
        help="the payment is pending until a step approves or declines it (default: it is paid)",
    )
    made.add_argument("--approve-after", metavar="SPAN", help=f"pending, then approved after {_SPAN} (default: never)")
    made.add_argument("--decline-after", metavar="SPAN", help="pending, then declined (default: never)")
    made.add_argument("--after", metavar="SPAN", help="bought on another device: it appears later (default: at once)")
    made.add_argument("--period", metavar="SPAN", help="a subscription of this period, 1d or more (default: the catalogue's)")
    made.add_argument(
        "--grace",
        metavar="SPAN",
        help=f"how long it lasts after a renewal whose payment failed (default: the catalogue's, else {GRACE})",
    )


def add_all(words) -> None:
    for name in ("cancel", "refund"):
        made = add(words, name, _step, STEPS[name])
        made.add_argument("invoice", metavar="INVOICE", help="id of an invoice")
        made.add_argument("--after", metavar="SPAN", help=f"after {_SPAN} (default: now)")
        made.set_defaults(step=name)
    made = add(
        words,
        "step",
        _step,
        "let a purchase take a step of its life",
        epilog="Steps:\n" + "\n".join(f"  {name:<13} {what}" for name, what in STEPS.items()),
    )
    made.add_argument("invoice", metavar="INVOICE", help="id of an invoice")
    made.add_argument("step", choices=STEPS, metavar="STEP", help=", ".join(STEPS))
    made.add_argument("--after", metavar="SPAN", help=f"after {_SPAN} (default: now)")
    made = add(
        words,
        "clock",
        _clock,
        "show the lab's clock, or move it forward",
        epilog="Purchases and planned steps have its time; the journal has the machine's. `reset` sets it to the machine's.",
    )
    made.add_argument("--advance", metavar="SPAN", help=f"{_SPAN}, 3660d at most in all (default: not moved)")


def _step(options: argparse.Namespace) -> int:
    return show_invoice(Lab(options.dir).step(options.invoice, options.step, options.after), options)


def _clock(options: argparse.Namespace) -> int:
    lab = Lab(options.dir)
    told = lab.clock() if options.advance is None else lab.advance(options.advance)
    if options.json:
        print(json.dumps(told, indent=2))
        return 0
    happened = f"; {told['happened']} steps happened" if "happened" in told else ""
    print(f"{told['now']}, {told['ahead_seconds']} seconds ahead{happened}")
    return 0
