"""The store: an HTTPS server that demands the device's certificate, writes a journal, and answers from the catalogue and
the faults that are set."""
import asyncio
import datetime
import json
import pathlib
import socket
import sqlite3
import time
import urllib.parse
from collections.abc import Callable

from ..device.device import DeviceError
from ..life import purchase
from ..shop import check, faults, journal, matching, state, store
from . import answers, http1, http2
from .connection import Exchange, Link
from .connections import Connections


class Simulator:
    """The server. Its methods are called from one event loop only.

    @param certificates the folder that tls.server_context wants
    @param device returns the device's present settings, in the form that check.differences takes
    @param tell called with ("begun", entry) when a fault starts to act on the answer of an entry of the journal, and with
    ("journal", entry) when an entry is complete
    """

    def __init__(
        self,
        db: sqlite3.Connection,
        listener: socket.socket,
        certificates: pathlib.Path,
        device: Callable[[], dict],
        tell: Callable[[str, dict], None],
    ):
        self.db = db
        self.faults: list[faults.Fault] = []
        self.connections = Connections(listener, certificates, self._speak, self._handshake_failed)
        self._device = device
        self._tell = tell
        self._fault_number = 0
        self._cleared = 0
        self._manager = http1.manager_of(self._handle)

    def _speak(self, link: Link) -> asyncio.Protocol:
        if link.protocol == "HTTP/2":
            return http2.Http2(link, self._handle, self._refused)
        return http1.Http1(link, self._manager, self._refused)

    # Faults

    def add_fault(self, wanted: dict) -> faults.Fault:
        self._fault_number += 1
        made = faults.make(wanted, self._fault_number, time.monotonic())
        self.faults.append(made)
        return made

    def clear_faults(self, number: int | None = None) -> int:
        """Removes one fault or all, and so ends the answers that they hold back. @return how many were removed"""
        kept = [fault for fault in self.faults if number not in (None, fault.number)]
        ended = len(self.faults) - len(kept)
        self.faults = kept
        self._cleared += 1
        return ended

    def restore_faults(self, kept: list[faults.Fault]) -> None:
        """Replaces the faults by those of another lab; their order and their numbers are kept."""
        self.faults = kept
        self._fault_number = max([self._fault_number, *(fault.number for fault in kept)])

    def reset(self) -> None:
        """Removes all faults, also that of the connections. The next fault has the number 1."""
        self.clear_faults()
        self._fault_number = 0
        self.connections.switch("none")

    def end_of(self, fault: faults.Fault) -> Callable[[], bool]:
        """@return a function that tells whether the fault is over. A fault forced by a product id is in no list: it is
        over when any fault is cleared."""
        cleared = self._cleared

        def is_over() -> bool:
            late = fault.until is not None and time.monotonic() >= fault.until
            return late or (fault not in self.faults and self._cleared != cleared)

        return is_over

    def _asked(self, ask: store.Ask, exchange: Exchange) -> matching.Asked:
        invoice = ask.values.get("invoiceId", "")
        known = state.invoice(self.db, invoice) if invoice else None
        return matching.Asked(
            ask.endpoint,
            ask.app,
            ask.user,
            invoice,
            known["product"] if known else "",
            ask.values.get("customId", ""),
            tuple((name, value) for name, value in exchange.headers),
        )

    def _fault_for(self, asked: matching.Asked, protocol: str) -> faults.Fault | None:
        forced = faults.of_product(asked.product, asked.endpoint)
        return forced or faults.pick(self.faults, asked, time.monotonic(), protocol)

    # Requests

    async def _handle(self, exchange: Exchange) -> None:
        entry = self._entry_of(exchange)
        ask = _ask_of(exchange, entry["endpoint"])
        fault = None
        if isinstance(ask, store.Ask):
            purchase.happen(self.db)
            asked = self._asked(ask, exchange)
            entry["asked"] = asked.describe()
            fault = self._fault_for(asked, exchange.link.protocol)
            done = fault is None or fault.done
            reply = store.answer(self.db, ask, asked) if done else store.Reply(200, b"{}", done=False)
            entry["work"] = reply.done
        else:
            reply = ask
        reply = answers.spoilt(reply, fault)
        entry["fault"] = fault.kind if fault else None
        # The entry is complete before the answer is sent: a caller may read the journal as soon as it has the answer.
        end = "under way" if fault else "whole"
        entry["answer"] = {"status": reply.status, "end": end, **journal.body_of(reply.body)}
        if fault:
            entry["fault_number"] = fault.number
            exchange.is_over = self.end_of(fault)
            if fault.kind in answers.WITHOUT_ANSWER:
                entry["answer"].update(status=None, **journal.body_of(b""))
        await self._answer(exchange, reply, fault, entry)

    async def _answer(self, exchange: Exchange, reply: store.Reply, fault: faults.Fault | None, entry: dict) -> None:
        seq = journal.add(self.db, entry)
        if fault:
            fault.struck_entry(seq)
            # A request whose answer hangs is shown while it hangs.
            self._tell("begun", {"seq": seq, **entry})
        began = time.monotonic()
        end = await answers.send(exchange, reply, fault)
        if exchange.sent_bytes != len(reply.body):
            entry["answer"].update(journal.body_of(reply.body[: exchange.sent_bytes]), bytes=exchange.sent_bytes)
        entry["answer"].update(end=end, milliseconds=round((time.monotonic() - began) * 1000, 3))
        journal.change(self.db, seq, entry)
        self._tell("journal", {"seq": seq, **entry})

    def _entry_of(self, exchange: Exchange) -> dict:
        endpoint = store.PATHS.get((exchange.method, exchange.path))
        link = exchange.link
        return {
            "time": _now(),
            "kind": "request",
            "endpoint": endpoint,
            "method": exchange.method,
            "url": f"https://{exchange.authority}{exchange.target}",
            "headers": exchange.headers,
            "body": journal.body_of(exchange.body),
            **_connection_members(link),
            "differences": self._differences(exchange.sent, endpoint, link.certificate),
        }

    def _differences(self, sent: check.Sent, endpoint: str | None, certificate: dict | None) -> list[str]:
        try:
            return check.differences(sent, endpoint, self._device(), certificate)
        except DeviceError as error:
            return [str(error)]

    def _refused(self, link: Link, raw: bytes, error: BaseException | None) -> None:
        """Adds an entry for bytes that are not a valid request."""
        self._file(
            {
                "time": _now(),
                "kind": "request",
                "endpoint": None,
                "method": "?",
                "url": "?",
                "headers": [],
                "body": journal.body_of(raw),
                **_connection_members(link),
                "differences": [f"it cannot be read: {error!r}"],
                "fault": None,
                "answer": {"status": 400 if link.protocol == "HTTP/1.1" else None, "end": "whole", "bytes": 0, "text": ""},
            }
        )

    def _handshake_failed(self, reason: str) -> None:
        self._file({"time": _now(), "kind": "handshake", "reason": reason})

    def _file(self, entry: dict) -> None:
        self._tell("journal", {"seq": journal.add(self.db, entry), **entry})


def _connection_members(link: Link) -> dict:
    """The members of a journal entry that describe its connection."""
    return {
        "connection": link.number,
        "protocol": link.protocol,
        "handshake": link.handshake,
        "tls": link.version,
        "certificate": link.certificate,
    }


def _now() -> str:
    moment = datetime.datetime.now(datetime.timezone.utc)
    return moment.isoformat(timespec="milliseconds").replace("+00:00", "Z")


def _ask_of(exchange: Exchange, endpoint: str | None) -> store.Ask | store.Reply:
    """@return the request's values for the store, or the error answer to a request that the store cannot read"""
    if endpoint is None:
        return store.failure(404, "unknown_request", f"no {exchange.method} {exchange.path} here")
    if endpoint in matching.PAYMENTS:
        try:
            values = json.loads(exchange.body)
        except (ValueError, RecursionError):
            values = None
        if not isinstance(values, dict) or not all(isinstance(v, str) for v in values.values()):
            return store.failure(400, "bad_request", "the body is no JSON object of texts")
    else:
        query = exchange.target.partition("?")[2]
        values = dict(urllib.parse.parse_qsl(query, keep_blank_values=True, errors="replace"))
    return store.Ask(endpoint, values, exchange.token)
