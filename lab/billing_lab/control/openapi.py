"""The OpenAPI description of the control interface. Names and ranges are taken from the code that checks them."""
from .. import __version__
from ..checks.rules import POLLS, RULES
from ..device import device
from ..device.methods import METHODS
from ..life.purchase import STEPS
from ..shop.faults import CONNECTION_FAULTS, KINDS
from ..shop.matching import ENDPOINT_OF, ENDPOINTS, WORDS

_TEXT, _BOOL, _OBJECT = {"type": "string"}, {"type": "boolean"}, {"type": "object"}
_COUNT = {"type": "integer", "minimum": 0}
_SPAN = {"type": ["string", "integer"], "description": "a span of the lab's clock: 30d, 12h, 5m, 90s, or seconds"}


def _one_of(names) -> dict:
    return {"type": "string", "enum": list(names)}


def _list_of(schema: dict) -> dict:
    return {"type": "array", "items": schema}


_MATCH = {"endpoint": _one_of((*ENDPOINTS, *ENDPOINT_OF)), **{word: _TEXT for word in WORDS[1:]}}
_CHECK = {**_MATCH, "times": _COUNT, "at_least": _COUNT, "at_most": _COUNT, "after": _COUNT, "name": _TEXT}
_VERIFY = {
    "rules": _list_of(_one_of(RULES)),
    "more": _list_of(_one_of(RULES)),
    "polls": {"type": "integer", "minimum": 1, "default": POLLS},
}
_BUY = {
    "product": _TEXT,
    "app": _TEXT,
    "user": _TEXT,
    "country": _TEXT,
    "custom_id": _TEXT,
    "pending": _BOOL,
    "approve_after": _SPAN,
    "decline_after": _SPAN,
    "after": _SPAN,
    "period": _SPAN,
    "grace": _SPAN,
}


def _options(kinds: dict) -> dict:
    """The schemas of the faults' options. An option of several faults has bounds that include those of all of them."""
    found: dict[str, dict] = {}
    for name, kind in kinds.items():
        for option, known in kind.options.items():
            told = found.setdefault(
                option, {"type": "integer", "minimum": known.least, "maximum": known.most, "description": ""}
            )
            told["minimum"], told["maximum"] = min(told["minimum"], known.least), max(told["maximum"], known.most)
            told["description"] = "; ".join(
                filter(
                    None, [told["description"], f"{name}: {known.unit}, {known.least} to {known.most}, default {known.default}"]
                )
            )
    many = {option for kind in kinds.values() for option, known in kind.options.items() if known.many}
    return {
        option: _list_of({name: told[name] for name in ("type", "minimum", "maximum")}) | {"description": told["description"]}
        if option in many
        else told
        for option, told in found.items()
    }


_FAULT = {
    "kind": _one_of(KINDS),
    **_options(KINDS),
    **_MATCH,
    "skip": {**_COUNT, "maximum": 1_000_000},
    "count": {"type": "integer", "minimum": 1, "maximum": 1_000_000},
    "seconds": {"type": "number", "minimum": 0.001, "maximum": 86_400},
    "chance": {"type": "number", "exclusiveMinimum": 0, "maximum": 1},
    "seed": _COUNT,
    "done": _BOOL,
}
_ANSWER = {
    **_MATCH,
    "body": {**_TEXT, "description": "bytes as a latin-1 text"},
    "bodies": _list_of(_TEXT),
    "status": {"type": "integer", "minimum": 200, "maximum": 599},
    "type": _TEXT,
    "template": _BOOL,
}
_SCENARIO = {
    "scenario": {"const": 1},
    "about": _TEXT,
    "device": _OBJECT,
    "buy": _list_of({"type": "object", "properties": {**_BUY, "as": _TEXT}}),
    "steps": _list_of(_OBJECT),
    "advance": _SPAN,
    "answers": _list_of({"type": "object", "properties": _ANSWER}),
    "faults": _list_of({"type": "object", "properties": _FAULT}),
    "connection": _OBJECT,
    "expect": _list_of({"type": "object", "properties": _CHECK}),
}

# Method, path, summary, members of the body or None, required members, parameters of the query.
_OPERATIONS = [
    (
        "get",
        "/api/status",
        "The lab's state: addresses, device, catalogue, faults, answers, clock, what is not as usual",
        None,
        (),
        {},
    ),
    ("post", "/api/stop", "Ends the lab", {}, (), {}),
    ("post", "/api/seed", "Replaces all products, users and invoices by a catalogue's", {"file": _TEXT}, ("file",), {}),
    ("get", "/api/catalogue", "The catalogue, in the form of its file", None, (), {}),
    ("post", "/api/catalogue", "Seeds a catalogue that is given as a text", {"text": _TEXT}, ("text",), {}),
    ("post", "/api/reset", "Goes back to the state after the last seed", {}, (), {}),
    ("post", "/api/usual", "Sets back what is not as usual; purchases, journal and clock stay", {}, (), {}),
    ("post", "/api/scenario", "Resets the lab and begins a scenario", _SCENARIO, ("scenario",), {}),
    (
        "post",
        "/api/answers",
        "Sets an own answer; without body and bodies restores the built-in one",
        _ANSWER,
        ("endpoint",),
        {},
    ),
    ("get", "/api/invoices", "The invoices, the newest first", None, (), {"user": _TEXT}),
    ("post", "/api/buy", "Buys a product", _BUY, ("product",), {}),
    (
        "post",
        "/api/step",
        "Lets a purchase take a step",
        {"invoice": _TEXT, "step": _one_of(STEPS), "after": _SPAN},
        ("invoice", "step"),
        {},
    ),
    ("post", "/api/cancel", "The step cancel", {"invoice": _TEXT, "after": _SPAN}, ("invoice",), {}),
    ("post", "/api/refund", "The step refund", {"invoice": _TEXT, "after": _SPAN}, ("invoice",), {}),
    ("get", "/api/clock", "The lab's clock", None, (), {}),
    ("post", "/api/clock", "Moves the clock forward and takes the steps that are due", {"advance": _SPAN}, ("advance",), {}),
    ("get", "/api/device", "The device", None, (), {}),
    (
        "post",
        "/api/device",
        "Sets a switch of the device",
        {"switch": _one_of(device.SWITCHES), "value": _TEXT},
        ("switch",),
        {},
    ),
    ("get", "/api/names", "The names that programs may own on the lab's bus, for mocks of other services", None, (), {}),
    ("post", "/api/names", "Adds names that programs may own", {"names": _list_of(_TEXT)}, ("names",), {}),
    ("delete", "/api/names", "Removes a name that programs may own, or all of them", None, (), {"name": _TEXT}),
    ("get", "/api/faults", "The faults, with what each struck", None, (), {}),
    ("post", "/api/faults", "Adds a fault", _FAULT, ("kind",), {}),
    ("delete", "/api/faults", "Ends all faults, or one", None, (), {"number": {"type": "integer", "minimum": 1}}),
    (
        "post",
        "/api/connection",
        "A fault of all connections",
        {"fault": _one_of(CONNECTION_FAULTS), **_options(CONNECTION_FAULTS)},
        ("fault",),
        {},
    ),
    ("post", "/api/asked", "Counts the requests that fit, and names those that nearly fit", _CHECK, (), {}),
    ("get", "/api/expectations", "The expectations", None, (), {}),
    ("post", "/api/expectations", "Adds an expectation", _CHECK, (), {}),
    ("delete", "/api/expectations", "Removes all expectations", None, (), {}),
    (
        "post",
        "/api/verify",
        "Judges the run by rules and expectations",
        _VERIFY,
        (),
        {"form": _one_of(("json", "junit", "page"))},
    ),
    ("get", "/api/journal", "The journal", None, (), {"after": _COUNT, "last": _COUNT}),
    ("get", "/api/events", "Server-sent events: journal, begun, state", None, (), {"after": _COUNT}),
    (
        "get",
        "/api/calls",
        "The calls on the bus, each with its requests and the fault that struck it",
        None,
        (),
        {"last": _COUNT},
    ),
    ("get", "/api/export", "The lab's whole state and journal, with secrets hidden", None, (), {"last": _COUNT}),
    ("post", "/api/import", "Replaces the lab's whole state by that of an export", {"export": {"const": 1}}, ("export",), {}),
    (
        "post",
        "/api/diff",
        "Compares two runs, or one and this lab: exports, or {journal: entries}",
        {"first": _OBJECT, "second": _OBJECT},
        ("first",),
        {},
    ),
    (
        "post",
        "/api/call",
        "Calls a method of the service, by billingctl",
        {"method": _one_of(METHODS), "arguments": _OBJECT, "seconds": {"type": "number", "minimum": 1}},
        ("method",),
        {},
    ),
    ("get", "/api/meta", "The names and options of methods, endpoints and faults", None, (), {}),
    ("get", "/api/openapi.json", "This description", None, (), {}),
]
_PROBLEM = {
    "description": "refused: `error` says why, in one line for each cause",
    "content": {"application/json": {"schema": {"type": "object", "properties": {"error": _TEXT}}}},
}


def describe() -> dict:
    """@return the whole description, as an object for json.dumps()"""
    paths: dict[str, dict] = {}
    for method, path, what, members, needed, query in _OPERATIONS:
        told: dict = {
            "summary": what,
            "responses": {"200": {"description": "done"}, "400": _PROBLEM, "401": _PROBLEM, "403": _PROBLEM, "422": _PROBLEM},
        }
        if members is not None:
            schema = {"type": "object", "properties": members, "required": list(needed)}
            told["requestBody"] = {"required": True, "content": {"application/json": {"schema": schema}}}
        if query:
            told["parameters"] = [{"name": name, "in": "query", "schema": schema} for name, schema in query.items()]
        paths.setdefault(path, {})[method] = told
    return {
        "openapi": "3.1.0",
        "info": {"title": "billing lab", "version": __version__},
        "paths": paths,
        "components": {"securitySchemes": {"token": {"type": "http", "scheme": "bearer"}}},
        "security": [{"token": []}],
    }
