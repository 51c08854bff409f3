"""The store: an HTTPS server that demands the device's certificate, keeps a journal, and answers as the
catalogue and the faults want it."""
import asyncio
import contextlib
import datetime
import json
import pathlib
import socket
import sqlite3
import ssl
import time
import urllib.parse
from collections.abc import Callable

from aiohttp import web

from . import answers, check, faults, journal, state, store, tls
from .connection import Connection
from .device import DeviceError

LARGEST_REQUEST = 64 << 20
HANDSHAKE_SECONDS = 30
# handshake_failure, as a record of its own.
_ALERT = b"\x15\x03\x03\x00\x02\x02\x28"


def listen() -> socket.socket:
    """A listening socket on a free port."""
    return socket.create_server(("127.0.0.1", 0), backlog=512)


class Simulator:
    """The server. All of it runs in one event loop.

    @param certificates the folder that tls.server_context wants
    @param device what the device is like at this moment, as check.differences wants it
    @param tell called with every new or changed entry of the journal
    """

    def __init__(self, db: sqlite3.Connection, listener: socket.socket, certificates: pathlib.Path,
                 device: Callable[[], dict], tell: Callable[[dict], None]):
        self.db = db
        self.faults: list[faults.Fault] = []
        self.connection_fault = "none"
        self._listener = listener
        self._certificates = certificates
        self._device = device
        self._tell = tell
        self._context = tls.server_context("none", certificates)
        self._fault_number = 0
        self._cleared = 0
        self._connection_number = 0
        self._connections: set[Connection] = set()
        self._opening: set[asyncio.Task] = set()
        self._manager: web.Server | None = None

    # Connections

    async def run(self) -> None:
        """Serves until it is cancelled."""
        self._manager = web.Server(self._handle, request_factory=_large_request)
        self._listener.setblocking(False)
        loop = asyncio.get_running_loop()
        try:
            while True:
                accepted, _ = await loop.sock_accept(self._listener)
                task = loop.create_task(self._open(accepted))
                self._opening.add(task)
                task.add_done_callback(self._opening.discard)
        finally:
            self.drop_connections()
            self._listener.close()

    async def _open(self, accepted: socket.socket) -> None:
        if self.connection_fault == "refuse-tls":
            with contextlib.closing(accepted):
                await self._refuse(accepted)
            return
        try:
            await asyncio.get_running_loop().connect_accepted_socket(
                self._new_connection, accepted, ssl=self._context,
                ssl_handshake_timeout=HANDSHAKE_SECONDS)
        except (OSError, asyncio.TimeoutError) as error:
            self._handshake_failed(_reason(error))

    async def _refuse(self, accepted: socket.socket) -> None:
        loop = asyncio.get_running_loop()
        with contextlib.suppress(OSError, asyncio.TimeoutError):
            await asyncio.wait_for(loop.sock_recv(accepted, 65536), HANDSHAKE_SECONDS)
            await loop.sock_sendall(accepted, _ALERT)
        self._handshake_failed("refused, as the fault refuse-tls wants it")

    def _new_connection(self) -> Connection:
        self._connection_number += 1
        return Connection(self, self._connection_number, self._manager, access_log=None,
                          max_line_size=LARGEST_REQUEST, max_field_size=LARGEST_REQUEST)

    def opened(self, connection: Connection) -> None:
        self._connections.add(connection)

    def gone(self, connection: Connection) -> None:
        self._connections.discard(connection)

    def drop_connections(self) -> None:
        for task in list(self._opening):
            task.cancel()
        for connection in list(self._connections):
            connection.transport.abort()

    async def dropped(self) -> None:
        """Waits until the other sides can see that their connections were dropped."""
        going = [connection for connection in self._connections
                 if connection.transport.is_closing()]
        for connection in going:
            await connection.left_within(HANDSHAKE_SECONDS)
        await asyncio.sleep(0)

    def switch_connection_fault(self, fault: str) -> None:
        """Drops what is connected. No TLS session of before is taken up again."""
        if fault not in faults.CONNECTION_FAULTS:
            raise faults.FaultError(f"{fault!r} is no fault of the connection; known are "
                                    f"{', '.join(faults.CONNECTION_FAULTS)}")
        self._context = tls.server_context(fault, self._certificates)
        self.connection_fault = fault
        self.drop_connections()

    # Faults

    def add_fault(self, wanted: dict) -> faults.Fault:
        self._fault_number += 1
        made = faults.make(wanted, self._fault_number, time.monotonic())
        self.faults.append(made)
        return made

    def clear_faults(self, number: int | None = None) -> int:
        """Ends one or all of them, and the hanging answers that they hold. @return how many"""
        kept = [fault for fault in self.faults if number not in (None, fault.number)]
        ended = len(self.faults) - len(kept)
        self.faults = kept
        self._cleared += 1
        return ended

    def reset(self) -> None:
        """As it was at the start."""
        self.clear_faults()
        self._fault_number = 0
        self.switch_connection_fault("none")

    def end_of(self, fault: faults.Fault) -> Callable[[], bool]:
        """A question: is it over? One that was forced by a product ends when any is cleared."""
        cleared = self._cleared

        def is_over() -> bool:
            late = fault.until is not None and time.monotonic() >= fault.until
            return late or (fault not in self.faults and self._cleared != cleared)
        return is_over

    def _fault_for(self, ask: store.Ask) -> faults.Fault | None:
        if ask.endpoint in ("apply", "confirm"):
            invoice = state.invoice(self.db, ask.values.get("invoiceId", ""))
            forced = invoice and faults.of_product(invoice["product"], ask.endpoint)
            if forced:
                return forced
        return faults.pick(self.faults, ask.endpoint, ask.app, ask.user, time.monotonic())

    # Requests

    async def _handle(self, request: web.BaseRequest) -> web.StreamResponse:
        connection = request.protocol
        body = await request.read()
        raw = connection.take_received()
        entry = self._entry_of(request, connection, raw, body)
        ask = _ask_of(request, entry["endpoint"], body)
        fault = None
        if isinstance(ask, store.Ask):
            fault = self._fault_for(ask)
            done = fault is None or fault.done
            reply = store.answer(self.db, ask) if done else store.Reply(200, b"{}")
        else:
            reply = ask
        reply = answers.spoilt(reply, fault)
        entry["fault"] = fault.kind if fault else None
        # The caller may look into the journal as soon as it has its answer.
        end = "under way" if fault else "whole"
        entry["answer"] = {"status": reply.status, "end": end, **journal.body_of(reply.body)}
        if fault and fault.kind in ("reset", "hang"):
            entry["answer"].update(status=None, **journal.body_of(b""))
        return await self._answer(request, reply, fault, entry)

    async def _answer(self, request, reply, fault, entry) -> web.StreamResponse:
        seq = journal.add(self.db, entry)
        began = time.monotonic()
        response, end = await answers.send(request, request.protocol, reply, fault)
        entry["answer"].update(end=end, milliseconds=round((time.monotonic() - began) * 1000, 3))
        journal.change(self.db, seq, entry)
        self._tell({"seq": seq, **entry})
        return response

    def _entry_of(self, request, connection, raw: bytes, body: bytes) -> dict:
        endpoint = store.PATHS.get((request.method, request.path))
        return {
            "time": _now(), "kind": "request", "endpoint": endpoint, "method": request.method,
            "url": f"https://{request.headers.get('Host', '')}{request.raw_path}",
            "headers": [[name.decode("latin-1"), value.decode("latin-1")]
                        for name, value in request.raw_headers],
            "body": journal.body_of(body), "connection": connection.number,
            "handshake": connection.handshake, "tls": connection.version,
            "certificate": connection.certificate,
            "differences": self._differences(raw, endpoint, connection.certificate)}

    def _differences(self, raw: bytes, endpoint: str | None, certificate: dict | None) -> list[str]:
        try:
            return check.differences(raw, endpoint, self._device(), certificate)
        except DeviceError as error:
            return [str(error)]

    def refused(self, connection: Connection, error: BaseException | None) -> None:
        """What came is no request, or none that can be answered."""
        raw = connection.take_received()
        self._file({"time": _now(), "kind": "request", "endpoint": None, "method": "?",
                    "url": "?", "headers": [], "body": journal.body_of(raw),
                    "connection": connection.number, "handshake": connection.handshake,
                    "tls": connection.version, "certificate": connection.certificate,
                    "differences": [f"it cannot be read: {error!r}"], "fault": None,
                    "answer": {"status": 400, "end": "whole", "bytes": 0, "text": ""}})

    def _handshake_failed(self, reason: str) -> None:
        self._file({"time": _now(), "kind": "handshake", "reason": reason})

    def _file(self, entry: dict) -> None:
        self._tell({"seq": journal.add(self.db, entry), **entry})


def _large_request(message, payload, protocol, writer, task) -> web.BaseRequest:
    return web.BaseRequest(message, payload, protocol, writer, task, asyncio.get_running_loop(),
                           client_max_size=LARGEST_REQUEST)


def _now() -> str:
    moment = datetime.datetime.now(datetime.timezone.utc)
    return moment.isoformat(timespec="milliseconds").replace("+00:00", "Z")


def _reason(error: BaseException) -> str:
    if isinstance(error, ssl.SSLError):
        return (error.reason or str(error)).lower().replace("_", " ")
    return str(error) or "the client did not finish the handshake"


def _ask_of(request: web.BaseRequest, endpoint: str | None, body: bytes) -> store.Ask | store.Reply:
    """The request as the store understands it, or what it answers to one that it does not."""
    if endpoint is None:
        return store.failure(404, "unknown_request", f"no {request.method} {request.path} here")
    if endpoint in ("apply", "confirm"):
        try:
            values = json.loads(body)
        except (ValueError, RecursionError):
            values = None
        if not isinstance(values, dict) or not all(isinstance(v, str) for v in values.values()):
            return store.failure(400, "bad_request", "the body is no JSON object of texts")
    else:
        query = request.raw_path.partition("?")[2]
        values = dict(urllib.parse.parse_qsl(query, keep_blank_values=True, errors="replace"))
    return store.Ask(endpoint, values, request.headers.get("Atoken", ""))
