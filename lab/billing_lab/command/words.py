"""Helpers with which each part of the command line adds its commands, options and ranges of numbers."""
import argparse

from ..shop.matching import ENDPOINT_OF, ENDPOINTS


class Parser(argparse.ArgumentParser):
    """Takes options and other arguments in any order if any_order is set. It cannot be set where another command follows."""

    any_order = False

    def parse_known_args(self, args=None, namespace=None):
        if not self.any_order:
            return super().parse_known_args(args, namespace)
        # In Python 3.11, parse_known_intermixed_args() calls this method again.
        self.any_order = False
        try:
            return self.parse_known_intermixed_args(args, namespace)
        finally:
            self.any_order = True


def add(words, name: str, run, what: str, json: bool = True, any_order: bool = True, **options) -> Parser:
    """Adds a command. @param any_order False if another command, or a command's kind, follows"""
    made = words.add_parser(
        name,
        help=what,
        description=what[0].upper() + what[1:] + ".",
        formatter_class=argparse.RawDescriptionHelpFormatter,
        **options,
    )
    made.any_order = any_order
    made.set_defaults(run=run)
    if json:
        made.add_argument("--json", action="store_true", help="print JSON")
    return made


def match_options(made: argparse.ArgumentParser, endpoint: bool = True) -> None:
    """Adds the options that choose requests: the conditions of matching.py."""
    if endpoint:
        made.add_argument(
            "--endpoint",
            choices=(*ENDPOINTS, *ENDPOINT_OF),
            metavar="ENDPOINT",
            help=f"only at this endpoint: {', '.join(ENDPOINTS)}, or the method's name (default: every one)",
        )
    made.add_argument("--app", metavar="ID", help="only of this app (default: every app)")
    made.add_argument("--user", metavar="UID", help="only of this user (default: every user)")
    made.add_argument("--invoice", metavar="ID", help="only for this invoice (default: every one)")
    made.add_argument("--product", metavar="ID", help="only for invoices of this product (default: every one)")
    made.add_argument("--custom-id", metavar="ID", help="only with this customId (default: every one)")
    made.add_argument("--header", metavar="NAME[: VALUE]", help="only with this header (default: any headers)")


def number(least: int, most: int | None = None):
    return _ranged(int, least, most)


def numbers(least: int, most: int):
    each = number(least, most)

    def read(text: str) -> list[int]:
        return [each(part) for part in text.split(",")]

    return read


def decimal(least: float, most: float):
    return _ranged(float, least, most)


def _ranged(kind, least, most):
    def read(text: str):
        try:
            value = kind(text)
        except ValueError:
            value = None
        if value is None or not (least <= value and (most is None or value <= most)):
            bounds = f"of {least} or more" if most is None else f"from {least} to {most}"
            raise argparse.ArgumentTypeError(f"{text!r} is no number {bounds}")
        return value

    return read
