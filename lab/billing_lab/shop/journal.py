"""The journal: every request with its answer, and every failed handshake.

Nothing in it is hidden: tokens, ids and certificates are test values of the lab.
"""
import asyncio
import base64
import json
import sqlite3

KEPT_ENTRIES = 10_000
# The stored length of all entries together.
KEPT_TOTAL_BYTES = 256 << 20
WAITING_ENTRIES = 1000
KEPT_BYTES = 1 << 20


def add(db: sqlite3.Connection, entry: dict) -> int:
    """Adds an entry. @return its number"""
    text = json.dumps(entry)
    cursor = db.execute("INSERT INTO journal (entry) VALUES (?)", (text,))
    db.journal_bytes += len(text)
    seq = cursor.lastrowid or 0
    _bound(db, seq)
    return seq


def newest(db: sqlite3.Connection) -> int:
    """The highest number that an entry has had, also after clear(); 0 if there was none."""
    row = db.execute("SELECT COALESCE(MAX(seq), 0) AS seq FROM sqlite_sequence WHERE name = 'journal'").fetchone()
    return row["seq"]


def put(db: sqlite3.Connection, seq: int, entry: dict) -> None:
    """Adds an entry of another lab. @param seq its number, higher than all others"""
    text = json.dumps({name: value for name, value in entry.items() if name != "seq"})
    db.execute("INSERT INTO journal (seq, entry) VALUES (?, ?)", (seq, text))
    db.journal_bytes += len(text)
    _bound(db, seq)


def _bound(db: sqlite3.Connection, newest: int) -> None:
    """Deletes the oldest entries while there are too many, or all together are too long. The newest stays."""
    while True:
        oldest = db.execute("SELECT seq, LENGTH(entry) AS size FROM journal ORDER BY seq LIMIT 1").fetchone()
        if oldest["seq"] == newest or (db.journal_bytes <= KEPT_TOTAL_BYTES and oldest["seq"] > newest - KEPT_ENTRIES):
            return
        db.execute("DELETE FROM journal WHERE seq = ?", (oldest["seq"],))
        db.journal_bytes -= oldest["size"]


def change(db: sqlite3.Connection, seq: int, entry: dict) -> None:
    """Replaces an entry, if it is still kept."""
    known = db.execute("SELECT LENGTH(entry) AS size FROM journal WHERE seq = ?", (seq,)).fetchone()
    if known is not None:
        text = json.dumps(entry)
        db.execute("UPDATE journal SET entry = ? WHERE seq = ?", (text, seq))
        db.journal_bytes += len(text) - known["size"]


def entries(db: sqlite3.Connection, after: int = 0, last: int | None = None) -> list[dict]:
    """The entries with higher numbers than `after`, the oldest first. @param last at most so many, the newest of them"""
    rows = db.execute(
        "SELECT seq, entry FROM journal WHERE seq > ? ORDER BY seq DESC LIMIT ?", (after, -1 if last is None else last)
    )
    return [{"seq": row["seq"], **json.loads(row["entry"])} for row in rows][::-1]


def span(db: sqlite3.Connection) -> dict:
    """The number of entries, and the numbers of the first and the last one, all 0 if there is none; and `newest`, the highest
    number that an entry has had."""
    row = db.execute("SELECT COUNT(*), COALESCE(MIN(seq), 0), COALESCE(MAX(seq), 0) FROM journal").fetchone()
    return {**dict(zip(("entries", "first", "last"), row)), "newest": newest(db)}


def last_before(db: sqlite3.Connection, moment: str) -> int:
    """The number of the last entry that is older than a moment. Only the last 20 are searched: if all of them are newer, it
    is the number before them."""
    row = db.execute(
        "SELECT MIN(seq) - 1 AS seq FROM (SELECT seq, entry FROM journal ORDER BY seq DESC LIMIT 20)"
        " WHERE json_extract(entry, '$.time') >= ?",
        (moment,),
    ).fetchone()
    return span(db)["last"] if row["seq"] is None else row["seq"]


def clear(db: sqlite3.Connection) -> None:
    """Deletes all entries. Numbers continue, so that a follower misses no entry."""
    db.execute("DELETE FROM journal")
    db.journal_bytes = 0


def body_of(data: bytes) -> dict:
    """@return bytes, the body's length, and its first MiB as text, or as base64 if it is not UTF-8"""
    kept = data[:KEPT_BYTES]
    told: dict = {"bytes": len(data)}
    try:
        told["text"] = kept.decode()
    except UnicodeDecodeError:
        told["base64"] = base64.b64encode(kept).decode()
    return told


def line_of(entry: dict) -> str:
    """An entry as one line for a terminal."""
    start = f"{entry['seq']:>5}  {entry['time']}"
    if entry["kind"] == "handshake":
        return f"{start}  no connection: {entry['reason']}"
    answer = entry["answer"]
    parts = [
        start,
        f"{entry['method']:<4} {entry['endpoint'] or entry['url']}",
        str(answer["status"] or "-"),
        f"{answer['bytes']} bytes",
        answer["end"],
        # Entries of older versions of the lab name no protocol.
        entry.get("protocol", "HTTP/1.1"),
        f"connection {entry['connection']} ({entry['handshake']})",
    ]
    if entry["fault"]:
        parts.append(f"fault {entry['fault']}")
    if entry["differences"]:
        parts.append("NOT EXACT: " + "; ".join(entry["differences"]))
    return "  ".join(parts)


class Followers:
    """The queues of those who follow the lab. Each gets every event as a pair of its name and its object."""

    def __init__(self) -> None:
        self._queues: set[asyncio.Queue] = set()

    def add(self) -> asyncio.Queue:
        """@return a queue of the events from now on. None in it is the end: the lab ends, or the reader was too slow"""
        queue: asyncio.Queue = asyncio.Queue()
        self._queues.add(queue)
        return queue

    def remove(self, queue: asyncio.Queue) -> None:
        self._queues.discard(queue)

    def tell(self, event: str, about: dict) -> None:
        for queue in list(self._queues):
            if queue.qsize() < WAITING_ENTRIES:
                queue.put_nowait((event, about))
            else:
                queue.put_nowait(None)
                self.remove(queue)

    def end(self) -> None:
        for queue in self._queues:
            queue.put_nowait(None)
