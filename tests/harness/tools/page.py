"""The table of docs/TROUBLESHOOTING.md: symptom, journal, the doctor's id, cure."""
import re

from .. import daemon


class Row:
    """The code spans of a cell: texts of the journal and of the doctor's cure."""

    def __init__(self, line):
        self.symptom, journal, ids, cure = (cell.strip() for cell in line.strip().strip("|").split("|"))
        self.journal, self.ids, self.cure = (re.findall(r"`([^`]+)`", cell) for cell in (journal, ids, cure))


PAGE = (daemon.TREE / "docs/TROUBLESHOOTING.md").read_text(encoding="utf-8")


def tables(head):
    """The rows of the tables with this beginning."""
    return [line for part in PAGE.split(f"\n{head}\n")[1:] for line in part.split("\n\n")[0].splitlines()[1:]]


ROWS = {name: row for row in map(Row, tables("| symptom | the journal | id | cure |")) for name in row.ids}
# Placeholder of libcurl's numbers.
NUMBERS = {int(line.split("|")[1]) for line in tables("| number | what it means here | cure |")}
# Texts of the journal in the other tables.
SAID = [
    words for line in tables("| the journal says | cause | cure |") for words in re.findall(r"`([^`]+)`", line.split("|")[1])
]
