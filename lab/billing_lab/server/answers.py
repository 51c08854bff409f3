"""Sends the store's answers, as they are or as a fault spoils them.

Each function of _WAYS sends an answer with one fault, and returns how that ended in a few words, for the journal.
"""
import asyncio
import json

from ..shop.faults import Fault, damage, delay_of
from ..shop.store import Reply
from .connection import Exchange

_CHUNK = b"x" * (1 << 20)
_HANG_STEP = 0.05  # seconds
# Statuses whose answers have no body by the rules of HTTP.
_BODILESS = (204, 304)
# Faults that send no answer.
WITHOUT_ANSWER = ("reset", "hang", "goaway", "refuse-stream", "lost")


async def send(exchange: Exchange, reply: Reply, fault: Fault | None) -> str:
    """Sends an answer. @return how that ended, in a few words"""
    way = _whole if fault is None else _WAYS.get(fault.kind, _whole)
    try:
        return await way(exchange, reply, fault)
    except ConnectionError:
        return _lost_client(exchange)


def _lost_client(exchange: Exchange) -> str:
    return "the connection is silent" if exchange.link.silent else "the client left"


def spoilt(reply: Reply, fault: Fault | None) -> Reply:
    """@return the answer with status and body changed by the fault"""
    if fault is None:
        return reply
    if fault.kind == "status":
        body = {"status": "error", "code": "fault", "message": "a fault of the lab"}
        return Reply(fault.options["code"], json.dumps(body).encode())
    if fault.kind in ("malformed", "invalid-utf8"):
        return Reply(reply.status, damage(fault, reply.body), reply.type)
    return reply


async def _whole(exchange, reply, _fault):
    body = b"" if reply.status in _BODILESS else reply.body
    await exchange.head(reply.status, reply.type, len(body))
    await exchange.end(body)
    return "whole"


async def _delay(exchange, reply, fault):
    if await exchange.left_within(delay_of(fault) / 1000):
        return "the client left"
    return await _whole(exchange, reply, fault)


async def _drip(exchange, reply, fault):
    await exchange.head(reply.status, reply.type, len(reply.body))
    for i in range(len(reply.body)):
        await exchange.write(reply.body[i : i + 1])
        if await exchange.left_within(fault.options["ms"] / 1000):
            return f"the client left after {i + 1} bytes"
    await exchange.end()
    return "whole"


async def _truncate(exchange, reply, fault):
    place = fault.draw.randrange(len(reply.body)) if reply.body else 0
    await exchange.head(reply.status, reply.type, max(1, len(reply.body)))
    await exchange.write(reply.body[:place])
    exchange.link.cut()
    return f"cut after {place} bytes"


async def _reset(exchange, _reply, _fault):
    exchange.link.reset()
    return "reset"


async def _hang(exchange, _reply, _fault):
    while not exchange.is_over():
        if await exchange.left_within(_HANG_STEP):
            return "the client left"
    exchange.link.cut()
    return "ended without an answer"


async def _huge(exchange, reply, fault):
    sent = 0
    try:
        await exchange.head(reply.status, reply.type, fault.options["mib"] * len(_CHUNK))
        for _ in range(fault.options["mib"]):
            await exchange.write(_CHUNK)
            sent += 1
            # If the client reads fast, write() never waits: other connections get their turn here.
            await asyncio.sleep(0)
        await exchange.end()
    except ConnectionError:
        return f"{_lost_client(exchange)} after {sent} MiB"
    return "whole"


async def _goaway(exchange, _reply, _fault):
    exchange.go_away()
    return "told to go away"


async def _refuse(exchange, _reply, _fault):
    exchange.refuse()
    return "refused"


async def _lost(exchange, _reply, _fault):
    exchange.link.silence()
    return "the connection is silent"


_WAYS = {
    "delay": _delay,
    "drip": _drip,
    "truncate": _truncate,
    "reset": _reset,
    "hang": _hang,
    "huge": _huge,
    "goaway": _goaway,
    "refuse-stream": _refuse,
    "lost": _lost,
}
