"""Sends an answer, or what a fault makes of it. Each way returns how it ended, in a few words."""
import asyncio
import json
import socket
import struct

from aiohttp import web

from .connection import Connection
from .faults import Fault, damage
from .store import Reply

_CHUNK = b"x" * (1 << 20)
_HANG_STEP = 0.05  # seconds


async def send(request: web.BaseRequest, connection: Connection, reply: Reply,
               fault: Fault | None) -> tuple[web.StreamResponse, str]:
    """@return what the HTTP server must see as the answer, and how it ended"""
    way = _whole if fault is None else _WAYS.get(fault.kind, _whole)
    try:
        return await way(request, connection, reply, fault)
    except ConnectionError:
        return web.Response(), "the client left"


def spoilt(reply: Reply, fault: Fault | None) -> Reply:
    """The answer as this fault wants it to be sent."""
    if fault is None:
        return reply
    if fault.kind == "status":
        body = {"status": "error", "code": "fault", "message": "a fault of the lab"}
        return Reply(fault.options["code"], json.dumps(body).encode())
    if fault.kind in ("malformed", "invalid-utf8"):
        return Reply(reply.status, damage(fault, reply.body), reply.type)
    return reply


async def _whole(request, _connection, reply, _fault):
    response = web.Response(status=reply.status, body=reply.body,
                            headers={"Content-Type": reply.type})
    await response.prepare(request)
    await response.write_eof()
    return response, "whole"


async def _delay(request, connection, reply, fault):
    if await connection.left_within(fault.options["ms"] / 1000):
        return web.Response(), "the client left"
    return await _whole(request, connection, reply, fault)


def _stream(reply: Reply, length: int | None) -> web.StreamResponse:
    response = web.StreamResponse(status=reply.status, headers={"Content-Type": reply.type})
    response.content_length = length
    return response


async def _drip(request, connection, reply, fault):
    response = _stream(reply, len(reply.body))
    await response.prepare(request)
    for i in range(len(reply.body)):
        await response.write(reply.body[i:i + 1])
        if await connection.left_within(fault.options["ms"] / 1000):
            return response, f"the client left after {i + 1} bytes"
    await response.write_eof()
    return response, "whole"


async def _truncate(_request, connection, reply, fault):
    place = fault.draw.randrange(len(reply.body)) if reply.body else 0
    head = (f"HTTP/1.1 {reply.status} Fault\r\nContent-Type: {reply.type}\r\n"
            f"Content-Length: {max(1, len(reply.body))}\r\n\r\n").encode()
    connection.transport.write(head + reply.body[:place])
    connection.transport.abort()
    return web.Response(), f"cut after {place} bytes"


async def _reset(_request, connection, _reply, _fault):
    # Closing then drops what is unsent and sends a reset.
    raw = connection.transport.get_extra_info("socket")
    raw.setsockopt(socket.SOL_SOCKET, socket.SO_LINGER, struct.pack("ii", 1, 0))
    connection.transport.abort()
    return web.Response(), "reset"


async def _hang(_request, connection, _reply, fault):
    is_over = connection.server.end_of(fault)
    while not is_over():
        if await connection.left_within(_HANG_STEP):
            return web.Response(), "the client left"
    connection.transport.abort()
    return web.Response(), "ended without an answer"


async def _huge(request, _connection, reply, fault):
    response = _stream(reply, fault.options["mib"] * len(_CHUNK))
    sent = 0
    try:
        await response.prepare(request)
        for _ in range(fault.options["mib"]):
            await response.write(_CHUNK)
            sent += 1
            # A reader that keeps up must not keep the others out.
            await asyncio.sleep(0)
        await response.write_eof()
    except ConnectionError:
        return response, f"the client left after {sent} MiB"
    return response, "whole"


_WAYS = {"delay": _delay, "drip": _drip, "truncate": _truncate, "reset": _reset, "hang": _hang,
         "huge": _huge}
