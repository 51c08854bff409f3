"""The lab's state: one SQLite file with the catalogue, the invoices and the journal."""
import json
import pathlib
import sqlite3

STEPS = ("bought", "applied", "confirmed", "cancelled", "refunded")
COLUMNS = ("id", "user", "app", "product", "country", "custom_id", *STEPS)

# The status of an invoice: that of the first of these members (the values) that it has.
_STATUSES = {
    "later": "appears",
    "refunded": "refunded",
    "cancelled": "cancelled",
    "declined": "declined",
    "pending": "pending",
    "expired": "expired",
    "grace": "in_grace",
    "confirmed": "confirmed",
    "applied": "applied",
    "bought": "bought",
}

_TABLES = """
CREATE TABLE IF NOT EXISTS facts (name TEXT PRIMARY KEY, value TEXT NOT NULL);
CREATE TABLE IF NOT EXISTS invoices (
    number INTEGER PRIMARY KEY AUTOINCREMENT, id TEXT NOT NULL UNIQUE, user TEXT NOT NULL,
    app TEXT NOT NULL, product TEXT NOT NULL, country TEXT NOT NULL, custom_id TEXT,
    bought TEXT NOT NULL, applied TEXT, confirmed TEXT, cancelled TEXT, refunded TEXT, life TEXT NOT NULL DEFAULT '{}');
CREATE TABLE IF NOT EXISTS events (
    number INTEGER PRIMARY KEY AUTOINCREMENT, at TEXT NOT NULL, invoice TEXT NOT NULL, step TEXT NOT NULL);
CREATE INDEX IF NOT EXISTS invoices_of_user ON invoices (user, number);
CREATE TABLE IF NOT EXISTS journal (seq INTEGER PRIMARY KEY AUTOINCREMENT, entry TEXT NOT NULL);
"""


class _Connection(sqlite3.Connection):
    """A connection with two caches: the facts that were read, since parsing a large catalogue for each request is slow, and
    the length of all entries of the journal."""

    def __init__(self, *arguments, **options):
        super().__init__(*arguments, **options)
        self.facts: dict[str, object] = {}
        self.journal_bytes = 0


def open_state(file: pathlib.Path | str) -> sqlite3.Connection:
    """Opens or makes the file. A crash of the lab loses no write; a crash of the machine may."""
    db = sqlite3.connect(file, isolation_level=None, factory=_Connection)
    db.row_factory = sqlite3.Row
    db.executescript("PRAGMA journal_mode=WAL; PRAGMA synchronous=OFF;" + _TABLES)
    if "life" not in [column["name"] for column in db.execute("PRAGMA table_info(invoices)")]:
        # The folder is of an older lab.
        db.execute("ALTER TABLE invoices ADD COLUMN life TEXT NOT NULL DEFAULT '{}'")
    db.journal_bytes = db.execute("SELECT COALESCE(SUM(LENGTH(entry)), 0) FROM journal").fetchone()[0]
    return db


def fact(db: sqlite3.Connection, name: str, default: object = None):
    """@return a value by its name. It belongs to the cache: change a copy of it, and set that"""
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
    """Replaces catalogue, own answers, clock and all purchases by those of a catalogue."""
    db.execute("BEGIN")
    set_fact(db, "catalogue", catalogue)
    set_fact(db, "answers", catalogue.get("answers", {}))
    set_fact(db, "clock_ahead", 0)
    set_fact(db, "scenario", None)
    forget_purchases(db)
    for invoice in sorted(catalogue.get("invoices", []), key=lambda made: made["bought"]):
        add_invoice(db, invoice)
    db.execute("COMMIT")


def forget_purchases(db: sqlite3.Connection) -> None:
    """Deletes all invoices, and the steps that are planned for them."""
    db.execute("DELETE FROM events")
    db.execute("DELETE FROM invoices")
    db.execute("DELETE FROM sqlite_sequence WHERE name = 'invoices'")


_SEEN = "json_extract(life, '$.appears') IS NULL"


def set_life(db: sqlite3.Connection, name: str, **changes: object) -> None:
    """Sets members of an invoice's life; None removes one."""
    row = db.execute("SELECT life FROM invoices WHERE id = ?", (name,)).fetchone()
    life = {key: value for key, value in {**json.loads(row["life"]), **changes}.items() if value is not None}
    db.execute("UPDATE invoices SET life = ? WHERE id = ?", (json.dumps(life), name))


def make_newest(db: sqlite3.Connection, name: str, bought: str) -> None:
    db.execute("UPDATE invoices SET number = (SELECT MAX(number) + 1 FROM invoices), bought = ? WHERE id = ?", (bought, name))


def add_event(db: sqlite3.Connection, at: str, name: str, step: str) -> None:
    db.execute("INSERT INTO events (at, invoice, step) VALUES (?, ?, ?)", (at, name, step))


def next_event(db: sqlite3.Connection, now: str) -> dict | None:
    """Removes the earliest event that is due. @return the event, or None"""
    row = db.execute("SELECT * FROM events WHERE at <= ? ORDER BY at, number LIMIT 1", (now,)).fetchone()
    if row is not None:
        db.execute("DELETE FROM events WHERE number = ?", (row["number"],))
    return None if row is None else dict(row)


def drop_events(db: sqlite3.Connection, name: str, *steps: str) -> None:
    for step in steps:
        db.execute("DELETE FROM events WHERE invoice = ? AND step = ?", (name, step))


def events(db: sqlite3.Connection) -> list[dict]:
    """The steps that are planned, the next first."""
    return [dict(row) for row in db.execute("SELECT at, invoice, step FROM events ORDER BY at, number")]


def add_invoice(db: sqlite3.Connection, invoice: dict) -> None:
    db.execute(
        f"INSERT INTO invoices ({', '.join(COLUMNS)}) VALUES ({', '.join('?' * len(COLUMNS))})",
        [invoice.get(column) for column in COLUMNS],
    )


def next_invoice_id(db: sqlite3.Connection) -> str:
    """@return a new id. Ids count up, so that a run can be repeated"""
    row = db.execute("SELECT COALESCE(MAX(number), 0) + 1 AS next FROM invoices").fetchone()
    number = row["next"]
    while invoice(db, f"INV-{number:06}") is not None:
        number += 1
    return f"INV-{number:06}"


def invoice(db: sqlite3.Connection, name: str) -> dict | None:
    row = db.execute("SELECT * FROM invoices WHERE id = ?", (name,)).fetchone()
    return None if row is None else _invoice_of(row)


def invoices(db: sqlite3.Connection, user: str | None = None, start: int = 1, size: int = -1) -> list[dict]:
    """The invoices of a user, or all if None: the newest first, beginning with number `start`. Those of a user are without
    the ones that have not appeared yet."""
    rows = db.execute(
        f"SELECT * FROM invoices WHERE ?1 IS NULL OR (user = ?1 AND {_SEEN}) ORDER BY number DESC LIMIT ? OFFSET ?",
        (user, size, start - 1),
    )
    return [_invoice_of(row) for row in rows]


def count_invoices(db: sqlite3.Connection, user: str | None = None) -> int:
    """The number of a user's invoices, or of all, as invoices() has them."""
    return db.execute(f"SELECT COUNT(*) FROM invoices WHERE ?1 IS NULL OR (user = ?1 AND {_SEEN})", (user,)).fetchone()[0]


def mark(db: sqlite3.Connection, name: str, step: str, now: str) -> dict:
    """Sets the time of an invoice's step, if it has none. @return the invoice"""
    if step not in STEPS:
        raise ValueError(step)
    db.execute(f"UPDATE invoices SET {step} = COALESCE({step}, ?) WHERE id = ?", (now, name))
    found = invoice(db, name)
    if found is None:
        raise KeyError(name)
    return found


def _invoice_of(row: sqlite3.Row) -> dict:
    told = {key: row[key] for key in row.keys() if key not in ("number", "life") and row[key] is not None}
    told.update(json.loads(row["life"]))
    told["status"] = next(status for status, key in _STATUSES.items() if key in told)
    return told
