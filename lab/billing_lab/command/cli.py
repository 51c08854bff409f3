"""The command line of billing-lab: its commands, their options and their help texts."""
import argparse
import importlib.metadata
import os
import platform
import sqlite3
import ssl
import sys

from .. import __version__
from ..checks import words as checks
from ..device import device
from ..device.methods import METHODS
from ..folder import EMPTY_NAME, LabError, default_path
from ..life import words as life
from ..runs import words as runs
from ..shop.catalogue import DEFAULT_FILE
from ..shop.faults import CONNECTION_FAULTS, KINDS, RESERVED, ConnectionKind, Kind
from ..shop.matching import ENDPOINTS
from . import commands
from .words import Parser, add, decimal, match_options, number, numbers

_DESCRIPTION = """\
A test store with a device in front of it: a private bus, the billing service, a software token, and a store server
that demands the service's certificate. All files of a lab are in one folder; nothing else is changed."""

_EPILOG = """\
Five minutes:
  billing-lab up                                    prints DBUS_SYSTEM_BUS_ADDRESS for your app
  billing-lab call get_product_list appid=app-1
  billing-lab buy coins-100                         prints the invoice
  billing-lab call confirm_purchase invoiceid=INV-000003
  billing-lab fault status --code 503 --endpoint confirm --count 1
  billing-lab journal
  billing-lab verify                                did the app do what no app may do?
  billing-lab down

In any CI: billing-lab run -- COMMAND

Exit status: 0 done, 1 failed (the reason is on standard error), 2 wrong usage; a command's help lists its others."""

_OUTCOMES = f"""\
Product ids that force an outcome; they are in no catalogue:
  {RESERVED}buy.declined            the payment is declined
  {RESERVED}confirm.FAULT           this fault strikes confirm_purchase for the invoice
  {RESERVED}apply.FAULT             this fault strikes get_applied_time for the invoice
FAULT is a kind of `billing-lab fault`, followed by its number if it takes one: status.503, delay.2000, hang."""


def parser() -> argparse.ArgumentParser:
    made = argparse.ArgumentParser(
        prog="billing-lab", description=_DESCRIPTION, epilog=_EPILOG, formatter_class=argparse.RawDescriptionHelpFormatter
    )
    made.add_argument(
        "--dir",
        type=_folder_name,
        metavar="DIR",
        help=f"the lab's folder; several labs have several (default: $BILLING_LAB_DIR, else {default_path()})",
    )
    made.add_argument(
        "--version", action="version", version=_version(), help="print the versions of the lab and of the libraries it uses"
    )
    words = made.add_subparsers(dest="command", metavar="COMMAND", required=True, parser_class=Parser)
    _add_lab_commands(words)
    _add_store_commands(words)
    _add_device_commands(words)
    _add_fault_commands(words)
    _add_journal_commands(words)
    checks.add_all(words)
    runs.add_all(words)
    return made


def _folder_name(text: str) -> str:
    if not text:
        raise argparse.ArgumentTypeError(EMPTY_NAME)
    return text


def _version() -> str:
    libraries = [
        f"{name} {importlib.metadata.version(name)}" for name in ("aiohttp", "cryptography", "h2", "PyGObject", "trustme")
    ]
    return "\n".join(
        [
            f"billing-lab {__version__}",
            f"Python {platform.python_version()}",
            ssl.OPENSSL_VERSION,
            f"SQLite {sqlite3.sqlite_version}",
            *libraries,
        ]
    )


def _add_lab_commands(words) -> None:
    made = add(words, "up", commands.up, "start the lab, or say how to reach it when it is up")
    made.add_argument("--seed", metavar="FILE", help="read this catalogue, as `seed` does")
    made.add_argument("--stay", action="store_true", help="stay, and end the lab at Ctrl-C")
    made.add_argument(
        "--log-level",
        choices=("debug", "info", "warning", "error"),
        default="info",
        help="what the daemon logs, this and worse (default: info)",
    )
    add(words, "down", commands.down, "end the lab; purchases, journal and device stay in its folder", json=False)
    add(words, "status", commands.status, "show what is up, and how the lab is set")
    made = add(words, "logs", commands.logs, "show a log; private values of the lab are not hidden", json=False)
    made.add_argument("part", nargs="?", choices=("daemon", "lab"), default="daemon", help="whose log (default: daemon)")
    made.add_argument("--lines", type=number(0), default=100, metavar="N", help="the last N lines, 0 or more (default: 100)")
    made.add_argument("--follow", action="store_true", help="go on until Ctrl-C")
    add(
        words,
        "doctor",
        commands.doctor,
        "run `billingctl doctor` where the daemon runs, with the "
        "daemon's view of files and its environment; all further arguments are passed to it",
        json=False,
    )
    made = add(
        words,
        "call",
        commands.call,
        "call a method of the service, as an app does",
        epilog="Exit status: 0 for resp_result 0, 3 for -1, 4 for 1160003, 5 without an answer.\n\n"
        "Arguments, with their defaults:\n"
        + "\n".join(
            f"  {name}  " + " ".join(f"{key}={value}" for key, value in known.items()) for name, known in METHODS.items()
        ),
    )
    made.add_argument("method", choices=METHODS, metavar="METHOD", help=", ".join(METHODS))
    made.add_argument("values", nargs="*", default=[], metavar="NAME=VALUE", help="arguments of the method")
    made.add_argument(
        "--timeout",
        type=number(1),
        default=100,
        metavar="SECONDS",
        help="how long to wait for the answer, 1 or more (default: 100; the service itself gives up after 90)",
    )


def _add_store_commands(words) -> None:
    made = add(
        words,
        "seed",
        commands.seed,
        "replace all products, users and invoices by those of a catalogue",
        json=False,
        epilog=f"A catalogue to begin with: {DEFAULT_FILE}\n"
        "Its schema: catalogue.schema.json beside it. Errors are reported with their line and how to correct them.",
    )
    made.add_argument("file", metavar="FILE", help="the catalogue, a JSON file")
    add(words, "reset", commands.reset, "go back to the state after the last seed", json=False)
    add(
        words,
        "usual",
        commands.usual,
        "set back what is not as usual: faults, own answers, switches of the device; purchases and journal stay",
        json=False,
    )
    made = add(words, "buy", commands.buy, "buy a product: makes an invoice", epilog=_OUTCOMES)
    made.add_argument("product", metavar="PRODUCT", help="id of a product")
    made.add_argument("--app", metavar="ID", help="the app (default: the first that sells it)")
    made.add_argument("--user", metavar="UID", help="who buys (default: who is signed in)")
    made.add_argument("--country", metavar="XX", help="where (default: the device's country)")
    made.add_argument("--custom-id", metavar="ID", help="the only customId that may then apply and confirm it (default: any)")
    life.add_buy_options(made)
    life.add_all(words)
    made = add(words, "invoices", commands.invoices, "list the invoices, the newest first")
    made.add_argument("--user", metavar="UID", help="those of this user (default: all)")
    made = add(
        words,
        "answer",
        commands.answer,
        "replace the built-in answer of an endpoint by your own; the store still does what is asked",
        json=False,
    )
    made.add_argument(
        "endpoint", choices=(*ENDPOINTS, *METHODS), metavar="ENDPOINT", help=f"{', '.join(ENDPOINTS)}, or the method's name"
    )
    made.add_argument(
        "file",
        nargs="*",
        metavar="FILE",
        help="the body, any bytes; of several, one for each request, the last for all further",
    )
    made.add_argument("--template", action="store_true", help="the bodies are templates (default: they are sent unchanged)")
    match_options(made, endpoint=False)
    made.add_argument("--status", type=number(200, 599), metavar="N", help="HTTP status, 200 to 599 (default: 200)")
    made.add_argument("--type", metavar="TYPE", help="content type (default: application/json)")
    made.add_argument("--built-in", action="store_true", help="restore the built-in answer")


def _add_device_commands(words) -> None:
    made = add(
        words,
        "device",
        commands.device,
        "show the device, or set one of its switches; it takes effect at the next call",
        epilog="""\
Switches:
  signed-out               no user is signed in
  signed-in UID            this user of the catalogue is signed in
  country XX|none          two capitals
  language LOCALE|none     de_DE.utf8 (or de_DE.UTF-8), or de
  server sandbox|production
  gateway up|down|auto|error:N
                           the default gateway; auto asks the kernel; error:N fails with N, 0 to 999999999
  token valid|expired|none the device's access token
  service up|hanging|absent|refusing|restart
                           the service itself: hanging, it keeps its name but does not answer until it is up again;
                           refusing, it answers 1160003, "Try again later."; restart kills it with the calls under
                           way, as a crash does, and starts it again""",
    )
    made.add_argument("switch", nargs="?", choices=device.SWITCHES, metavar="SWITCH", help=", ".join(device.SWITCHES))
    made.add_argument("value", nargs="?", default="", metavar="VALUE", help="see below")

    made = add(
        words,
        "names",
        commands.names,
        "show or change the names that programs may own on the lab's bus, for mocks of other services",
        epilog="The lab keeps them until they are removed, over `reset` and `down`. As on a device's system bus, no program "
        "may own or call a name that is not listed.",
    )
    made.add_argument("names", nargs="*", metavar="NAME", help="a name to add, such as org.example.Downloads")
    made.add_argument("--remove", action="store_true", help="remove these in place of adding them; without any, all")


def _add_fault_commands(words) -> None:
    made = add(
        words,
        "fault",
        commands.fault,
        "make answers or connections go wrong",
        json=False,
        any_order=False,
        epilog="Of the faults that fit a request the first strikes it; the others do not count this request. So faults "
        "with --count 1 are a sequence, in which `pass` leaves an answer unchanged. Each fault draws its random numbers "
        "from its own seed, so that a run can be repeated.",
    )
    kinds = made.add_subparsers(dest="kind", metavar="KIND", required=True)
    for name, kind in KINDS.items():
        each = kinds.add_parser(name, help=kind.what, description=kind.what[0].upper() + kind.what[1:] + ".")
        _add_options_of_kind(each, kind)
        _add_options_of_fault(each, kind)
    for name, kind in CONNECTION_FAULTS.items():
        each = kinds.add_parser(
            name,
            help=f"of the whole lab: {kind.what}" if name != "none" else "ends a fault of the whole lab",
            description=_connection_description(name, kind),
        )
        _add_options_of_kind(each, kind)
    kinds.add_parser("list", help="show the faults").add_argument("--json", action="store_true", help="print JSON")
    each = kinds.add_parser("clear", help="end faults, and the answers that they hold back")
    each.add_argument(
        "number", nargs="?", type=number(1), metavar="NUMBER", help="the one to end (default: all, those of the connection too)"
    )


def _connection_description(name: str, kind: ConnectionKind) -> str:
    if name == "silent":
        return (
            "Strikes every connection of the lab that is open at this moment: nothing that is sent on it "
            "arrives or is acknowledged, and it does not end before `fault none` or five minutes. New "
            "connections work."
        )
    return (
        f"Strikes every connection of the lab: {kind.what}. Open connections are dropped, and earlier TLS "
        "sessions are not resumed."
    )


def _add_options_of_kind(made: argparse.ArgumentParser, kind: Kind | ConnectionKind) -> None:
    for option, known in kind.options.items():
        made.add_argument(
            f"--{option}",
            type=numbers(known.least, known.most) if known.many else number(known.least, known.most),
            metavar="N,N,..." if known.many else "N",
            help=f"{known.unit}, {known.least} to {known.most} (default: {'none' if known.default is None else known.default})",
        )


def _add_options_of_fault(made: argparse.ArgumentParser, kind: Kind) -> None:
    match_options(made)
    made.add_argument(
        "--skip",
        type=number(0, 1_000_000),
        metavar="N",
        help="how many requests that fit it lets pass first, 0 to 1000000 (default: 0)",
    )
    made.add_argument("--count", type=number(1, 1_000_000), metavar="N", help="how often, 1 to 1000000 (default: no limit)")
    made.add_argument(
        "--seconds",
        type=decimal(0.001, 86_400),
        metavar="S",
        help="how long from now, 0.001 to 86400 seconds (default: no limit)",
    )
    made.add_argument("--chance", type=decimal(0, 1), metavar="P", help="probability for each request, 0 to 1 (default: 1)")
    made.add_argument(
        "--seed", type=number(0, 2**63 - 1), metavar="N", help="seed of its random numbers, 0 or more (default: 1)"
    )
    if kind.says_undone:
        return
    work = made.add_mutually_exclusive_group()
    now = ("default", "") if kind.done else ("", "default")
    work.add_argument(
        "--after-work",
        dest="done",
        action="store_const",
        const=True,
        help=f"the store does its work, then the answer goes wrong {_default(now[0])}",
    )
    work.add_argument(
        "--no-work", dest="done", action="store_const", const=False, help=f"the store does nothing {_default(now[1])}"
    )


def _default(text: str) -> str:
    return f"({text})" if text else ""


def _add_journal_commands(words) -> None:
    made = add(
        words,
        "journal",
        commands.show_journal,
        "show every request: when, what, with which "
        "certificate and handshake, and its answer. Nothing is hidden: the values are the lab's own",
        epilog="With --json, each entry is one line with all of its members: headers, bodies and certificate too.",
    )
    made.add_argument("--follow", action="store_true", help="go on until Ctrl-C")
    made.add_argument(
        "--last", type=number(0), metavar="N", help="the last N entries, 0 or more (default: all; the newest 10000 are kept)"
    )
    made = add(
        words,
        "calls",
        commands.show_calls,
        "show every call on the lab's bus since the last reset, also one "
        "that sent nothing: arguments, answer, its requests in the journal, the fault that struck it",
    )
    made.add_argument(
        "--last", type=number(0), metavar="N", help="the last N calls, 0 or more (default: all; the newest 2000 are kept)"
    )
    made = add(
        words,
        "check",
        commands.check,
        "say whether requests are exactly what the service sends on this device",
        json=False,
        epilog="Exit status 1 when one is not.",
    )
    made.add_argument(
        "--last", type=number(1), metavar="N", help="of the last N entries of the journal, 1 or more (default: all)"
    )


def main(arguments: list[str]) -> int:
    words = parser()
    options, options.further = words.parse_known_args(arguments)
    if any(word.partition("=")[0] == "--dir" for word in options.further):
        words.error(f"--dir stands before the command: billing-lab --dir DIR {options.command}")
    if options.further and options.run is not commands.doctor:
        words.error(f"unrecognized arguments: {' '.join(options.further)}")
    try:
        return options.run(options)
    except LabError as error:
        for line in str(error).split("\n"):
            print(f"billing-lab: {line}", file=sys.stderr)
        return 1
    except BrokenPipeError:
        # The reader has closed the pipe. Python flushes standard output once more at its exit, which must not fail.
        os.dup2(os.open(os.devnull, os.O_WRONLY), sys.stdout.fileno())
        return 0
