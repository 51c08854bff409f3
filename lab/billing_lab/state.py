"""The lab's memory: one SQLite file with the catalogue, the invoices and the journal."""
import json
import pathlib
import sqlite3

STEPS = ("bought", "applied", "confirmed", "cancelled", "refunded")

_TABLES = """
CREATE TABLE IF NOT EXISTS facts (name TEXT PRIMARY KEY, value TEXT NOT NULL);
CREATE TABLE IF NOT EXISTS invoices (
    number INTEGER PRIMARY KEY AUTOINCREMENT, id TEXT NOT NULL UNIQUE, user TEXT NOT NULL,
    app TEXT NOT NULL, product TEXT NOT NULL, country TEXT NOT NULL, custom_id TEXT,
    bought TEXT NOT NULL, applied TEXT, confirmed TEXT, cancelled TEXT, refunded TEXT);
CREATE INDEX IF NOT EXISTS invoices_of_user ON invoices (user, number);
CREATE TABLE IF NOT EXISTS journal (seq INTEGER PRIMARY KEY AUTOINCREMENT, entry TEXT NOT NULL);
"""


class _Connection(sqlite3.Connection):
    """With the facts that were read, since parsing a large catalogue for every request would be slow, and with
    the length of all entries of the journal."""

    def __init__(self, *arguments, **options):
        super().__init__(*arguments, **options)
        self.facts: dict[str, object] = {}
        self.journal_bytes = 0


def open_state(file: pathlib.Path | str) -> sqlite3.Connection:
    """Opens or makes it. A crash of the lab loses nothing that was written; one of the machine may."""
    db = sqlite3.connect(file, isolation_level=None, factory=_Connection)
    db.row_factory = sqlite3.Row
    db.executescript("PRAGMA journal_mode=WAL; PRAGMA synchronous=OFF;" + _TABLES)
    db.journal_bytes = db.execute("SELECT COALESCE(SUM(LENGTH(entry)), 0) FROM journal").fetchone()[0]
    return db


def fact(db: sqlite3.Connection, name: str, default: object = None):
    """What it returns belongs to the memory: change a copy, and set that."""
    if name not in db.facts:
        row = db.execute("SELECT value FROM facts WHERE name = ?", (name,)).fetchone()
        if row is None:
            return default
        db.facts[name] = json.loads(row["value"])
    return db.facts[name]


def set_fact(db: sqlite3.Connection, name: str, value: object) -> None:
    text = json.dumps(value)
    db.execute("INSERT OR REPLACE INTO facts VALUES (?, ?)", (name, text))
    db.facts[name] = json.loads(text)


def seed(db: sqlite3.Connection, catalogue: dict) -> None:
    """Puts a catalogue in place of everything that was sold and bought."""
    db.execute("BEGIN")
    set_fact(db, "catalogue", catalogue)
    set_fact(db, "answers", catalogue.get("answers", {}))
    db.execute("DELETE FROM invoices")
    db.execute("DELETE FROM sqlite_sequence WHERE name = 'invoices'")
    for invoice in sorted(catalogue.get("invoices", []), key=lambda made: made["bought"]):
        add_invoice(db, invoice)
    db.execute("COMMIT")


def add_invoice(db: sqlite3.Connection, invoice: dict) -> None:
    columns = ("id", "user", "app", "product", "country", "custom_id", *STEPS)
    db.execute(f"INSERT INTO invoices ({', '.join(columns)}) VALUES ({', '.join('?' * len(columns))})",
               [invoice.get(column) for column in columns])


def next_invoice_id(db: sqlite3.Connection) -> str:
    """Ids count up, so that a run repeats."""
    row = db.execute("SELECT COALESCE(MAX(number), 0) + 1 AS next FROM invoices").fetchone()
    number = row["next"]
    while invoice(db, f"INV-{number:06}") is not None:
        number += 1
    return f"INV-{number:06}"


def invoice(db: sqlite3.Connection, name: str) -> dict | None:
    row = db.execute("SELECT * FROM invoices WHERE id = ?", (name,)).fetchone()
    return None if row is None else _told(row)


def invoices(db: sqlite3.Connection, user: str | None = None, start: int = 1,
             size: int = -1) -> list[dict]:
    """Those of a user or of all, the newest first, from the `start`-th on."""
    rows = db.execute("SELECT * FROM invoices WHERE ?1 IS NULL OR user = ?1 "
                      "ORDER BY number DESC LIMIT ? OFFSET ?", (user, size, start - 1))
    return [_told(row) for row in rows]


def count_invoices(db: sqlite3.Connection, user: str | None = None) -> int:
    """Those of a user or of all."""
    return db.execute("SELECT COUNT(*) FROM invoices WHERE ?1 IS NULL OR user = ?1", (user,)).fetchone()[0]


def mark(db: sqlite3.Connection, name: str, step: str, now: str) -> dict:
    """An invoice takes a step. A step that was taken keeps its time."""
    if step not in STEPS:
        raise ValueError(step)
    db.execute(f"UPDATE invoices SET {step} = COALESCE({step}, ?) WHERE id = ?", (now, name))
    found = invoice(db, name)
    if found is None:
        raise KeyError(name)
    return found


def _told(row: sqlite3.Row) -> dict:
    told = {key: row[key] for key in row.keys() if key != "number" and row[key] is not None}
    told["status"] = next(step for step in ("refunded", "cancelled", "confirmed", "applied", "bought")
                          if step in told)
    return told
