"""The table of docs/TROUBLESHOOTING.md: symptom, journal, the doctor's id, cure."""
import re

from . import daemon


class Row:
    """What stands in code spans: the words of the journal and of the doctor's cure."""

    def __init__(self, line):
        self.symptom, journal, ids, cure = (cell.strip() for cell in line.strip().strip("|").split("|"))
        self.journal, self.ids, self.cure = (re.findall(r"`([^`]+)`", cell) for cell in (journal, ids, cure))


def rows():
    page = (daemon.TREE / "docs/TROUBLESHOOTING.md").read_text(encoding="utf-8")
    table = page.split("\n| symptom | the journal | id | cure |\n|---|---|---|---|\n")[1].split("\n\n")[0]
    return [Row(line) for line in table.splitlines()]


ROWS = {name: row for row in rows() for name in row.ids}
