"""The commands that check an app: asked, expect, scenario, record, verify, run."""
import argparse
import os
import pathlib
import sys

from ..client import Lab
from ..command.words import add, match_options, number
from ..folder import LabError, named_errors
from ..own import recording
from ..shop.matching import ENDPOINT_OF, ENDPOINTS, WORDS
from . import report, run
from .rules import POLLS, RULES, USUAL, what

_RULES = "Rules:\n" + "\n".join(
    f"  {name:<15} {what(name)}" + ("" if name in USUAL else " Not one of the usual rules.") for name in RULES
)
_NO_REQUEST = "the command made no request; an app calls the service on the bus of DBUS_SYSTEM_BUS_ADDRESS"
_FORMS = ("junit", "page")
_COUNTS = ("times", "at_least", "at_most", "after")


def add_all(words) -> None:
    for name, command, help_text, how in (
        (
            "asked",
            _asked,
            "count the requests that fit, and compare with the wanted number",
            "Exit status 1 when the number is wrong; requests that differ in one condition are then named.",
        ),
        ("expect", _expect, "demand that requests are made; `verify` and the end of a `run` judge it", None),
    ):
        made = add(words, name, command, help_text, epilog=how)
        made.add_argument(
            "endpoint",
            nargs="?",
            choices=(*ENDPOINTS, *ENDPOINT_OF),
            metavar="ENDPOINT",
            help=f"{', '.join(ENDPOINTS)}, or the method's name (default: every one)",
        )
        match_options(made, endpoint=False)
        made.add_argument("--times", type=number(0), metavar="N", help="exactly so often, 0 or more")
        made.add_argument(
            "--at-least",
            type=number(0),
            metavar="N",
            help="so often or more, 0 or more (default: 1 without --times and --at-most)",
        )
        made.add_argument("--at-most", type=number(0), metavar="N", help="so often or less, 0 or more")
        made.add_argument(
            "--after", type=number(0), metavar="N", help="only entries after this number of the journal, 0 or more (default: 0)"
        )
        made.add_argument("--name", help="its name in reports (default: the conditions)")
    made = add(
        words,
        "scenario",
        _scenario,
        "reset the lab and begin a scenario: device, purchases, faults, answers, and what is expected",
        epilog="A scenario is a JSON file beside a test; docs/LAB.md shows one.",
    )
    made.add_argument("file", metavar="FILE", help="the scenario")
    made = add(
        words,
        "record",
        _record,
        "make a scenario of a HAR file, the recording of a real store; tokens and ids of device and user are hidden",
        json=False,
        epilog="Replay it with `scenario`, or `run --scenario`: each "
        "endpoint gives its recorded bodies one after the other. Read the file before you pass it on: only secrets "
        "that a request has in a known place are hidden.",
    )
    made.add_argument("har", metavar="HAR", help="the recording")
    made.add_argument("file", metavar="FILE", help="the scenario to write")
    made = add(
        words,
        "verify",
        _verify,
        "judge the app's requests since the last reset by rules and expectations",
        epilog=f"{_RULES}\n\nExit status 1 when something is bad, or a report was not written.",
    )
    report_options(made)
    made = add(
        words,
        "run",
        _run,
        "start a lab and a command that uses it, end both, and judge the command's requests",
        json=False,
        any_order=False,
        epilog=f"""\
The command finds the lab's bus in DBUS_SYSTEM_BUS_ADDRESS and its folder in BILLING_LAB_DIR.

{_RULES}

Exit status: the command's when it is not 0 (128 and the signal's number after one); 1 when a check is bad
or a report was not written; 124 when the command took too long; 0 otherwise.""",
    )
    made.add_argument("--seed", metavar="FILE", help="read this catalogue first, as `seed` does")
    made.add_argument("--scenario", metavar="FILE", help="begin this scenario, as `scenario` does; it may have expectations")
    made.add_argument(
        "--timeout", type=number(1), metavar="SECONDS", help="end the command after so long, 1 or more (default: never)"
    )
    report_options(made)
    made.add_argument("app", nargs=argparse.REMAINDER, metavar="-- COMMAND", help="the command and its arguments")


def report_options(made: argparse.ArgumentParser) -> None:
    made.add_argument(
        "--rule",
        dest="rules",
        action="append",
        choices=RULES,
        metavar="RULE",
        help=f"only this rule; may be repeated (default: {', '.join(USUAL)})",
    )
    made.add_argument("--more", action="append", choices=RULES, metavar="RULE", help="this rule too; may be repeated")
    made.add_argument(
        "--polls", type=number(1), metavar="N", help=f"the most requests to an endpoint within a minute (default: {POLLS})"
    )
    made.add_argument("--junit", metavar="FILE", help="write the report there in JUnit's form")
    made.add_argument("--page", metavar="FILE", help="write the report there as a page, with the journal")


def given(options: argparse.Namespace, *names: str) -> dict:
    return {name: getattr(options, name) for name in names if getattr(options, name, None) is not None}


def check_places(options: argparse.Namespace) -> None:
    """@throw LabError if a file of --junit or --page cannot be written"""
    for form, file in given(options, *_FORMS).items():
        place = file if os.path.exists(file) else os.path.dirname(os.path.abspath(file))
        if os.path.isdir(file) or not os.access(place, os.W_OK):
            raise LabError(f"--{form} {file} cannot be written; name a file in a folder that you may write to")


def write_reports(lab: Lab, options: argparse.Namespace) -> bool:
    """Writes the files of --junit and --page. @return whether all were written; an error is printed"""
    written = True
    for form, file in given(options, *_FORMS).items():
        text = lab.report(form, **_wanted(options))
        try:
            pathlib.Path(file).write_text(text, encoding="utf-8")
        except OSError as error:
            print(f"billing-lab: --{form} {file}: {error.strerror}", file=sys.stderr)
            written = False
    return written


def _wanted(options: argparse.Namespace) -> dict:
    return given(options, "rules", "more", "polls")


def _asked(options: argparse.Namespace) -> int:
    told = Lab(options.dir).asked(options.endpoint, **given(options, *WORDS[1:], *_COUNTS))
    print(report.as_json(told) if options.json else told["message"])
    return 0 if told["ok"] else 1


def _expect(options: argparse.Namespace) -> int:
    told = Lab(options.dir).expect(options.endpoint, **given(options, *WORDS[1:], *_COUNTS, "name"))
    print(report.as_json(told) if options.json else "expected: " + ", ".join(f"{name} {value}" for name, value in told.items()))
    return 0


def _scenario(options: argparse.Namespace) -> int:
    told = Lab(options.dir).scenario(options.file)
    if options.json:
        print(report.as_json(told))
        return 0
    for name, invoice in told["invoices"].items():
        print(f"{name}  {invoice}")
    print(f"{told['faults']} faults, {told['expectations']} expectations")
    return 0


def _record(options: argparse.Namespace) -> int:
    made = recording.scenario_of(pathlib.Path(options.har))
    with named_errors():
        pathlib.Path(options.file).write_text(report.as_json(made) + "\n", encoding="utf-8")
    print(", ".join(f"{answer['endpoint']}: {len(answer['bodies'])}" for answer in made["answers"]))
    return 0


def _verify(options: argparse.Namespace) -> int:
    lab = Lab(options.dir)
    told = lab.verify(**_wanted(options))
    print(report.as_json(told) if options.json else report.text(told), flush=True)
    return 0 if write_reports(lab, options) and told["ok"] else 1


def _run(options: argparse.Namespace) -> int:
    check_places(options)

    def judge(lab: Lab) -> bool:
        told = lab.verify(**_wanted(options))
        print(report.text(told), file=sys.stderr)
        if told["requests"] == 0:
            print(f"billing-lab: {_NO_REQUEST}", file=sys.stderr)
        return write_reports(lab, options) and told["ok"]

    def begin(lab: Lab) -> None:
        if options.seed is not None:
            lab.seed(options.seed)
        lab.reset()
        if options.scenario is not None:
            lab.scenario(options.scenario)

    return run.run(options.app, options.dir, options.timeout, begin, judge)
