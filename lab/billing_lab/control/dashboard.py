"""Serves the lab's web page, and the routes of the control interface that only the page uses.

The page's files hold no secret and need no token. The page requests its data with the token in its own address.
"""
import asyncio
import json
import pathlib

from aiohttp import web

from ..device import device, tools
from ..device.methods import METHODS, arguments_of
from ..folder import replace_file
from ..shop import catalogue, faults
from ..shop.matching import ENDPOINT_OF, ENDPOINTS
from .core import Core

PAGE = pathlib.Path(__file__).parents[1] / "page"
CALL_SECONDS = 100
# The page loads nothing from another origin, and no site may show it in a frame.
HEADERS = {
    "Content-Security-Policy": "default-src 'none'; script-src 'self'; style-src 'self' 'unsafe-inline'; "
    "connect-src 'self'; img-src data:; base-uri 'none'; form-action 'none'; "
    "frame-ancestors 'none'",
    "X-Content-Type-Options": "nosniff",
    "Referrer-Policy": "no-referrer",
    "Cache-Control": "no-cache",
    "Cross-Origin-Resource-Policy": "same-origin",
}
TYPES = {".html": "text/html", ".js": "text/javascript", ".css": "text/css"}


def routes() -> list[web.RouteDef]:
    return [
        web.get("/", _index),
        web.get("/page/{name:[A-Za-z.-]+}", _file),
        web.get("/api/meta", _meta),
        web.post("/api/call", _call),
        web.post("/api/catalogue", _seed),
    ]


def is_public(request: web.Request) -> bool:
    """@return whether the request is for one of the page's files, which need no token"""
    return request.method == "GET" and (request.path == "/" or request.path.startswith("/page/"))


def is_foreign(request: web.Request) -> bool:
    """@return whether a browser makes the request for another site"""
    origin = request.headers.get("Origin")
    site = request.headers.get("Sec-Fetch-Site", "none")
    return site not in ("none", "same-origin") or (origin is not None and origin != f"http://{request.headers.get('Host', '')}")


async def _index(_request: web.Request) -> web.StreamResponse:
    return _file_response(PAGE / "index.html")


async def _file(request: web.Request) -> web.StreamResponse:
    return _file_response(PAGE / request.match_info["name"])


def _file_response(file: pathlib.Path) -> web.StreamResponse:
    if not file.is_file() or file.suffix not in TYPES:
        raise web.HTTPNotFound
    return web.Response(body=file.read_bytes(), content_type=TYPES[file.suffix], charset="utf-8", headers=HEADERS)


async def _meta(_request: web.Request) -> web.Response:
    answers, connections = (
        {
            name: {"what": kind.what, "options": {option: vars(bounds) for option, bounds in kind.options.items()}}
            for name, kind in kinds.items()
        }
        for kinds in (faults.KINDS, faults.CONNECTION_FAULTS)
    )
    return web.json_response(
        {
            "methods": {name: list(arguments) for name, arguments in METHODS.items()},
            "endpoints": ENDPOINTS,
            "endpoint_of": ENDPOINT_OF,
            "faults": answers,
            "connection_faults": connections,
            "servers": list(device.SERVERS),
        }
    )


async def _seed(request: web.Request) -> web.Response:
    """Seeds a catalogue that is given as text, and keeps it in the lab's folder."""
    core: Core = request.app["core"]
    file = core.folder.path / "catalogue.json"
    text = (await request.json())["text"].encode()
    checked = file.with_name("catalogue.new.json")
    replace_file(checked, text)
    try:
        read = await asyncio.to_thread(catalogue.load, checked)
    except catalogue.CatalogueError as wrong:
        raise catalogue.CatalogueError(str(wrong).replace(str(checked), "the catalogue")) from None
    finally:
        checked.unlink(missing_ok=True)
    replace_file(file, text)
    return web.json_response(core.take(read, file))


async def _call(request: web.Request) -> web.Response:
    """Calls the service with billingctl. @return the answer, or the reason why there is none"""
    wanted = await request.json()
    method, values = wanted["method"], wanted.get("arguments", {})
    texts = arguments_of(method, values)
    program = tools.tool("billingctl")
    if program is None:
        return web.json_response({"error": "billingctl is not built; build it with `ninja -C build`"}, status=501)
    core: Core = request.app["core"]
    options = [f"{_option(name)}={text}" for name, text in zip(METHODS[method], texts)]
    process = await asyncio.create_subprocess_exec(
        str(program),
        "--bus",
        core.info["bus"],
        "--json",
        "--timeout",
        str(max(1, round(wanted.get("seconds", CALL_SECONDS)))),
        method,
        *options,
        stdin=asyncio.subprocess.DEVNULL,
        stdout=asyncio.subprocess.PIPE,
        stderr=asyncio.subprocess.PIPE,
    )
    told, said = await process.communicate()
    if not told:
        raise ValueError(said.decode(errors="replace").strip())
    return web.json_response(json.loads(told))


def _option(argument: str) -> str:
    """@return the option of billingctl for a method's argument: --item-type for ItemType"""
    return "--" + "".join(
        f"-{letter.lower()}" if letter.isupper() and at else letter.lower() for at, letter in enumerate(argument)
    )
