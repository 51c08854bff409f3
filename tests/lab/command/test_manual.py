"""The manual page: it has every command, and every switch of the device."""
import re

from billing_lab.command import cli as words
from billing_lab.device import device

from conftest import LAB

PAGE = (LAB.parent / "data" / "man" / "billing-lab.1").read_text(encoding="utf-8")


def entries():
    """The texts of the commands' section, by the commands that each entry is about."""
    section = re.sub(r"\\f.", "", PAGE).split(".SH COMMANDS\n")[1].split("\n.SH ")[0]
    found = {}
    for entry in section.split(".TP\n")[1:]:
        head, text = entry.split("\n", 1)
        for name in re.findall(r"\b[a-z]+\b", head):
            found[name] = text
    return found


def test_the_manual_has_every_command():
    assert set(words.parser()._subparsers._group_actions[0].choices) - set(entries()) == set()


def test_the_manual_has_every_switch_of_the_device():
    text = entries()["device"].replace("\\-", "-")
    assert [name for name in device.SWITCHES if not re.search(rf"\b{name}\b", text)] == []
