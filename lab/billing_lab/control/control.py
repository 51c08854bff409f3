"""The control interface: HTTP on 127.0.0.1 for the command line, test programs and browsers.

Every request must carry the lab's token, as `Authorization: Bearer …` or as `?token=…`, and name this
server in its Host line, so that no web page can use it behind its user's back.
"""
import asyncio
import hmac
import json
import logging
import os
import pathlib
import socket
import sqlite3
from collections.abc import Awaitable, Callable

from aiohttp import web

from ..checks import asked, report, scenario
from ..device.device import DeviceError
from ..folder import LabError
from ..life import clock, purchase
from ..own.template import TemplateError
from ..runs import compare, export
from ..shop import catalogue, journal, state
from ..shop.catalogue import CatalogueError
from ..shop.faults import FaultError
from ..shop.matching import MatchError
from ..shop.store import Refusal
from . import dashboard, openapi
from .core import Core

Handler = Callable[[web.Request], Awaitable[web.StreamResponse]]

_WRONG = (
    CatalogueError,
    DeviceError,
    FaultError,
    LabError,
    clock.LifeError,
    export.ExportError,
    MatchError,
    Refusal,
    scenario.ScenarioError,
    TemplateError,
)
# Exceptions in a handler that come from a missing member of the request, or from a value of a wrong type.
_OF_ANOTHER_KIND = (AttributeError, KeyError, OverflowError, TypeError, ValueError, sqlite3.ProgrammingError)
HEARTBEAT_SECONDS = 15
# Bytes: two exports with full journals fit.
LARGEST_REQUEST = 640 << 20


def application(core: Core, token: str) -> web.Application:
    made = web.Application(middlewares=[_guard(token)], client_max_size=LARGEST_REQUEST)
    made["core"] = core
    made.add_routes(
        [
            web.get("/api/status", _status),
            web.post("/api/stop", _stop),
            web.post("/api/seed", _seed),
            web.post("/api/reset", _reset),
            web.post("/api/usual", _usual),
            web.post("/api/scenario", _scenario),
            web.get("/api/catalogue", _catalogue),
            web.post("/api/answers", _answers),
            web.get("/api/invoices", _invoices),
            web.post("/api/buy", _buy),
            web.post("/api/step", _step),
            web.post("/api/cancel", _one_step("cancel")),
            web.post("/api/refund", _one_step("refund")),
            web.get("/api/clock", _clock),
            web.post("/api/clock", _advance),
            web.get("/api/device", _device),
            web.post("/api/device", _switch),
            web.get("/api/names", _names),
            web.post("/api/names", _allow),
            web.delete("/api/names", _forbid),
            web.get("/api/faults", _faults),
            web.post("/api/faults", _add_fault),
            web.delete("/api/faults", _clear_faults),
            web.post("/api/connection", _connection),
            web.post("/api/asked", _asked),
            web.get("/api/expectations", _expectations),
            web.post("/api/expectations", _expect),
            web.delete("/api/expectations", _forget),
            web.post("/api/verify", _verify),
            web.get("/api/journal", _journal),
            web.get("/api/events", _events),
            web.get("/api/openapi.json", _openapi),
            web.get("/api/calls", _calls),
            web.get("/api/export", _export),
            web.post("/api/import", _import),
            web.post("/api/diff", _diff),
            *dashboard.routes(),
        ]
    )
    return made


def _guard(token: str):
    @web.middleware
    async def guard(request: web.Request, handler: Handler) -> web.StreamResponse:
        given = request.headers.get("Authorization", "").removeprefix("Bearer ")
        given = given or request.query.get("token", "")
        host = request.headers.get("Host", "").rpartition(":")[0]
        if host not in ("127.0.0.1", "localhost") or dashboard.is_foreign(request):
            return _problem(403, "another site may not use the lab")
        if not dashboard.is_public(request) and not hmac.compare_digest(given.encode(errors="surrogateescape"), token.encode()):
            return _problem(401, "the lab's token is missing or wrong")
        try:
            answer = await handler(request)
            if request.method != "GET":
                request.app["core"].changed()
            return answer
        except _WRONG as wrong:
            return _problem(422, str(wrong))
        except _OF_ANOTHER_KIND as wrong:
            return _problem(400, f"the request has a wrong form: {wrong!r}")
        except web.HTTPException:
            raise
        except Exception as wrong:
            logging.exception("%s %s failed", request.method, request.path)
            more = request.app["core"].folder.command("logs lab")
            return _problem(500, f"the lab failed at {request.path}: {wrong!r}; more in {more}")

    return guard


def _problem(status: int, text: str) -> web.Response:
    return web.json_response({"error": text}, status=status)


def _core(request: web.Request) -> Core:
    return request.app["core"]


async def _body(request: web.Request) -> dict:
    told = await request.json()
    if not isinstance(told, dict):
        raise ValueError("the body must be an object")
    return told


async def _status(request: web.Request) -> web.Response:
    return web.json_response(_core(request).status())


async def _stop(request: web.Request) -> web.Response:
    _core(request).end()
    return web.json_response({})


async def _seed(request: web.Request) -> web.Response:
    file = pathlib.Path((await _body(request))["file"])
    if not file.is_absolute():
        raise ValueError("the file's path must be absolute")
    return web.json_response(await _core(request).seed(file))


async def _reset(request: web.Request) -> web.Response:
    await _core(request).reset_whole()
    return web.json_response(_core(request).summary())


async def _usual(request: web.Request) -> web.Response:
    await _core(request).usual()
    return web.json_response({})


async def _catalogue(request: web.Request) -> web.Response:
    return web.json_response(catalogue.as_file(state.fact(_core(request).db, "catalogue")))


async def _answers(request: web.Request) -> web.Response:
    _core(request).set_answer(await _body(request))
    return web.json_response({})


async def _invoices(request: web.Request) -> web.Response:
    user = request.query.get("user")
    purchase.happen(_core(request).db)
    return web.json_response(state.invoices(_core(request).db, user))


async def _buy(request: web.Request) -> web.Response:
    return web.json_response(_core(request).buy(await _body(request)))


async def _step(request: web.Request) -> web.Response:
    return web.json_response(_core(request).step(await _body(request)))


def _one_step(name: str) -> Handler:
    async def take_step(request: web.Request) -> web.Response:
        return web.json_response(_core(request).step({**await _body(request), "step": name}))

    return take_step


async def _clock(request: web.Request) -> web.Response:
    return web.json_response(clock.describe(_core(request).db))


async def _advance(request: web.Request) -> web.Response:
    return web.json_response(_core(request).advance((await _body(request))["advance"]))


async def _scenario(request: web.Request) -> web.Response:
    return web.json_response(await scenario.begin(_core(request), await _body(request)))


async def _device(request: web.Request) -> web.Response:
    return web.json_response(_core(request).device())


async def _switch(request: web.Request) -> web.Response:
    wanted = await _body(request)
    return web.json_response(await _core(request).turn(wanted["switch"], wanted.get("value", "")))


async def _names(request: web.Request) -> web.Response:
    return web.json_response(_core(request).names())


async def _allow(request: web.Request) -> web.Response:
    return web.json_response(await _core(request).allow(*(await request.json())["names"]))


async def _forbid(request: web.Request) -> web.Response:
    return web.json_response(await _core(request).forbid(*request.query.getall("name", [])))


async def _faults(request: web.Request) -> web.Response:
    return web.json_response(_core(request).status()["faults"])


async def _add_fault(request: web.Request) -> web.Response:
    fault = _core(request).simulator.add_fault(await _body(request))
    return web.json_response(fault.describe(asyncio.get_running_loop().time()))


async def _clear_faults(request: web.Request) -> web.Response:
    number = request.query.get("number")
    ended = _core(request).simulator.clear_faults(None if number is None else int(number))
    if number is not None and not ended:
        raise FaultError(f"there is no fault number {number}")
    return web.json_response({"ended": ended})


async def _connection(request: web.Request) -> web.Response:
    connections = _core(request).simulator.connections
    connections.switch(**(await _body(request)))
    await connections.dropped()
    return web.json_response({})


async def _asked(request: web.Request) -> web.Response:
    wanted = asked.read_expectation(await _body(request))
    return web.json_response(asked.judge(journal.entries(_core(request).db, wanted.after), wanted))


async def _expectations(request: web.Request) -> web.Response:
    return web.json_response([each.describe() for each in _core(request).expectations])


async def _expect(request: web.Request) -> web.Response:
    wanted = asked.read_expectation(await _body(request))
    _core(request).expectations.append(wanted)
    return web.json_response(wanted.describe())


async def _forget(request: web.Request) -> web.Response:
    core = _core(request)
    forgotten, core.expectations = len(core.expectations), []
    return web.json_response({"forgotten": forgotten})


async def _verify(request: web.Request) -> web.Response:
    made, entries = _core(request).report(await _body(request))
    form = request.query.get("form", "json")
    if form == "junit":
        return web.Response(text=report.junit(made), content_type="application/xml")
    if form == "page":
        return web.Response(text=report.page(made, entries), content_type="text/html")
    return web.json_response(made)


async def _journal(request: web.Request) -> web.Response:
    last = request.query.get("last")
    return web.json_response(
        journal.entries(_core(request).db, int(request.query.get("after", 0)), None if last is None else int(last))
    )


async def _calls(request: web.Request) -> web.Response:
    last = request.query.get("last")
    book = await _core(request).all_calls()
    return web.json_response(book.describe(None if last is None else int(last)))


async def _export(request: web.Request) -> web.Response:
    last = request.query.get("last")
    return web.json_response(await export.make(_core(request), None if last is None else int(last)))


async def _import(request: web.Request) -> web.Response:
    return web.json_response(await export.take(_core(request), await _large(request)))


async def _diff(request: web.Request) -> web.Response:
    wanted = await _large(request)
    second = wanted.get("second") or await export.make(_core(request))
    return web.json_response(await asyncio.to_thread(compare.compare, wanted["first"], second))


async def _large(request: web.Request) -> dict:
    """The JSON of a large body. It is parsed in a thread, so that the store answers meanwhile."""
    return await asyncio.to_thread(json.loads, await request.read())


async def _openapi(_request: web.Request) -> web.Response:
    return web.json_response(openapi.describe())


async def _events(request: web.Request) -> web.StreamResponse:
    """Sends server-sent events: "journal", each new entry, and first the entries after `after` or Last-Event-ID if one is
    given; "begun", an entry whose answer a fault starts to act on; "state", the answer of GET /api/status after a change."""
    core = _core(request)
    after = request.query.get("after") or request.headers.get("Last-Event-ID")
    response = web.StreamResponse(headers={"Content-Type": "text/event-stream", "Cache-Control": "no-store"})
    queue = core.followers.add()
    try:
        told = journal.entries(core.db, int(after)) if after else []
        seen = {entry["seq"] for entry in told}
        await response.prepare(request)
        for entry in told:
            await response.write(_event("journal", entry))
        while not core.ending.is_set():
            try:
                told_now = await asyncio.wait_for(queue.get(), HEARTBEAT_SECONDS)
            except asyncio.TimeoutError:
                await response.write(b":\n\n")
                continue
            if told_now is None:
                break
            event, about = told_now
            if about.get("seq") not in seen:
                await response.write(_event(event, about))
    except ConnectionError:
        pass
    finally:
        core.followers.remove(queue)
    return response


def _event(event: str, about: dict) -> bytes:
    # A browser that reconnects sends the last id as Last-Event-ID.
    number = f"id: {about['seq']}\n" if event == "journal" else ""
    return f"{number}event: {event}\ndata: {json.dumps(about)}\n\n".encode()


async def serve(core: Core, token: str, listener: socket.socket) -> web.AppRunner:
    """Starts the control interface on a listening socket."""
    runner = web.AppRunner(application(core, token), access_log=None)
    await runner.setup()
    await web.SockSite(runner, listener, shutdown_timeout=1).start()
    return runner


def new_token() -> str:
    return os.urandom(16).hex()
