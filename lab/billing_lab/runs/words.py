"""The commands for whole runs: export, import, diff."""
import argparse
import json
import pathlib

from ..client import Lab
from ..command.words import add, number
from ..folder import LabError, named_errors
from . import compare, export


def add_all(words) -> None:
    made = add(
        words,
        "export",
        _export,
        "write the lab's state and journal into one file, for a bug report; tokens and ids of device and users are hidden",
        json=False,
        epilog="Each id is replaced by one name everywhere, so that the file can be imported. Read it before you pass it "
        "on: texts keep ids of fewer than four characters, and ids that are in no member for ids.",
    )
    made.add_argument("file", nargs="?", metavar="FILE", help="the file to write (default: standard output)")
    made.add_argument(
        "--last", type=number(0), metavar="N", help="only the last N entries of the journal, 0 or more (default: all)"
    )
    made = add(words, "import", _import, "replace the lab's whole state by that of an export")
    made.add_argument("file", metavar="FILE", help="the export")
    made = add(
        words,
        "diff",
        _diff,
        "say what is different between two runs: settings, requests and their answers; times are not compared",
        epilog="Requests are paired by what they ask for: ~ has another answer, - is only in the first run, + only in the "
        "second.\n\nExit status 1 when the runs differ.",
    )
    made.add_argument("first", metavar="FIRST", help="an export, or what `journal --json` printed")
    made.add_argument("second", nargs="?", metavar="SECOND", help="another (default: the lab that is up)")


def _export(options: argparse.Namespace) -> int:
    told = json.dumps(Lab(options.dir).export(last=options.last), ensure_ascii=False, indent=1)
    if options.file is None:
        print(told)
        return 0
    with named_errors():
        pathlib.Path(options.file).write_text(told + "\n", encoding="utf-8")
    print(f"{options.file}: {len(told.encode()) + 1} bytes")
    return 0


def _import(options: argparse.Namespace) -> int:
    told = Lab(options.dir).import_(options.file)
    if options.json:
        print(json.dumps(told, indent=2))
        return 0
    print(", ".join(f"{count} {name}" for name, count in told.items() if name != "left_out"))
    for text in told["left_out"]:
        print(f"left out: {text}")
    return 0


def _diff(options: argparse.Namespace) -> int:
    first = export.read_file(pathlib.Path(options.first))
    second = Lab(options.dir).export() if options.second is None else export.read_file(pathlib.Path(options.second))
    try:
        told = compare.compare(first, second)
    except ValueError as error:
        raise LabError(str(error)) from None
    print(json.dumps(told, indent=2, ensure_ascii=False) if options.json else compare.text(told))
    return 0 if told["same"] else 1
