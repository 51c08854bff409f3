"""The table of docs/TROUBLESHOOTING.md: symptom, journal, the doctor's id, cure."""
import re

from . import daemon


class Row:
    """What stands in code spans: the words of the journal and of the doctor's cure."""

    def __init__(self, line):
        self.symptom, journal, ids, cure = (cell.strip() for cell in line.strip().strip("|").split("|"))
        self.journal, self.ids, self.cure = (re.findall(r"`([^`]+)`", cell) for cell in (journal, ids, cure))


def table(head):
    """The lines of the table that begins so."""
    page = (daemon.TREE / "docs/TROUBLESHOOTING.md").read_text(encoding="utf-8")
    return page.split(f"\n{head}\n")[1].split("\n\n")[0].splitlines()[1:]


ROWS = {name: row for row in map(Row, table("| symptom | the journal | id | cure |")) for name in row.ids}
# What stands for libcurl's numbers.
NUMBERS = {int(line.split("|")[1]) for line in table("| number | what it means here | cure |")}
