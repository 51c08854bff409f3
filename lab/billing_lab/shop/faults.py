"""Faults: what goes wrong with an answer, which requests it strikes, and how often.

Each fault has its own random number generator with its own seed, so that a run can be repeated.
"""
import dataclasses
import random
from collections.abc import Iterable

from .matching import PAYMENTS, WORDS, Asked, Match, MatchError, read_match

# The beginning of product ids that force an outcome; the name is a warning against shipping one.
RESERVED = "NEVER-SHIP."
MOST_CHOICES = 1000
# The most numbers of struck requests that describe() has.
TOLD_STRUCK = 100


@dataclasses.dataclass(frozen=True)
class Option:
    """A number that a kind of fault takes, in `unit`; a list of them if `many`. Without a default it is optional."""

    default: int | None
    least: int
    most: int
    unit: str
    many: bool = False


@dataclasses.dataclass(frozen=True)
class Kind:
    """A kind of fault of answers.

    `done`: by default the store does the request's work first. `says_undone`: the fault tells the client that nothing was
    done, so the store must never do the work. `protocol`: the only protocol that the fault exists in.
    """

    what: str
    options: dict[str, Option]
    done: bool
    says_undone: bool = False
    protocol: str | None = None


KINDS = {
    "status": Kind("an HTTP status with an error body", {"code": Option(500, 200, 599, "HTTP status")}, False),
    "malformed": Kind("the body is JSON that breaks off, in a complete answer", {}, True),
    "invalid-utf8": Kind("the body has bytes that are not UTF-8", {}, True),
    "delay": Kind(
        "the answer comes late",
        {
            "ms": Option(1000, 1, 600_000, "milliseconds"),
            "spread": Option(0, 0, 600_000, "milliseconds: the most that is added, uniformly distributed"),
            "deviation": Option(0, 0, 600_000, "milliseconds: the standard deviation of a normal distribution around ms"),
            "choices": Option(None, 0, 600_000, "milliseconds, of which one is drawn", many=True),
        },
        True,
    ),
    "drip": Kind("the body comes byte by byte, with a pause after each", {"ms": Option(20, 1, 60_000, "milliseconds")}, True),
    "truncate": Kind("the connection ends in the middle of the body", {}, True),
    "reset": Kind("the connection is reset before an answer", {}, False),
    "hang": Kind("no answer; the connection ends when the fault does", {}, False),
    "lost": Kind("no answer; the connection goes silent and does not end", {}, False),
    "goaway": Kind(
        "the server ends the connection without processing the request: HTTP/2 with GOAWAY, HTTP/1.1 by closing it",
        {},
        False,
        says_undone=True,
    ),
    "refuse-stream": Kind(
        "HTTP/2 refuses the stream without processing the request; HTTP/1.1 requests are not struck",
        {},
        False,
        says_undone=True,
        protocol="HTTP/2",
    ),
    "huge": Kind("the body is this long and is no JSON", {"mib": Option(40, 1, 4096, "MiB")}, True),
    "pass": Kind("no fault: the answer is unchanged, and no later fault strikes it", {}, True),
}


@dataclasses.dataclass(frozen=True)
class ConnectionKind:
    """A kind of fault of all connections. `once`: it acts once, and the fault that was set stays set."""

    what: str
    options: dict[str, Option] = dataclasses.field(default_factory=dict)
    once: bool = False


CONNECTION_FAULTS = {
    "none": ConnectionKind("connections work"),
    "refuse-tls": ConnectionKind("every handshake is refused with an alert"),
    "expired": ConnectionKind("the server's certificate has expired"),
    "wrong-host": ConnectionKind("the server's certificate is for another host"),
    "untrusted": ConnectionKind("the server's certificate is of an authority that the device does not know"),
    "idle-close": ConnectionKind(
        "a connection is closed after this time without a request, not after five seconds",
        {"ms": Option(1000, 0, 3_600_000, "milliseconds")},
    ),
    "silent": ConnectionKind("the connections that are open go silent and do not end; new ones work", once=True),
    "restart": ConnectionKind(
        "the store ends with all its connections, and comes back on its port",
        {"ms": Option(500, 0, 60_000, "milliseconds")},
        once=True,
    ),
}


class FaultError(ValueError):
    """The error in the description of a fault, in one line."""


@dataclasses.dataclass
class Fault:
    """One fault. A limit that is None does not restrict it."""

    kind: str
    options: dict[str, int | list[int]]
    match: Match = Match()
    skip: int = 0
    left: int | None = None
    until: float | None = None
    chance: float = 1.0
    seed: int = 1
    done: bool = False
    number: int = 0
    draw: random.Random = dataclasses.field(default_factory=random.Random, repr=False)
    hits: int = 0
    struck: list[int] = dataclasses.field(default_factory=list)

    def is_over(self, now: float) -> bool:
        return self.left == 0 or (self.until is not None and now >= self.until)

    def strikes(self, asked: Asked, protocol: str) -> bool:
        """@return whether the fault strikes this request, which then counts as one of its hits"""
        if KINDS[self.kind].protocol not in (None, protocol) or self.match.misses(asked):
            return False
        if self.skip > 0:
            self.skip -= 1
            return False
        if self.chance < 1 and self.draw.random() >= self.chance:
            return False
        if self.left is not None:
            self.left -= 1
        self.hits += 1
        return True

    def struck_entry(self, seq: int) -> None:
        """Keeps the journal's number of a request that the fault struck."""
        self.struck = [*self.struck, seq][-TOLD_STRUCK:]

    def describe(self, now: float) -> dict:
        """The fault as a JSON object, for the control interface and exports."""
        told = {
            "number": self.number,
            "kind": self.kind,
            **self.options,
            **self.match.describe(),
            "skip": self.skip or None,
            "left": self.left,
            "seconds_left": None if self.until is None else round(max(0.0, self.until - now), 1),
            "chance": self.chance,
            "seed": self.seed,
            "done": self.done,
            "hits": self.hits,
            "struck": self.struck,
        }
        return {key: value for key, value in told.items() if value is not None}


def make(wanted: dict, number: int, now: float) -> Fault:
    """Makes a fault.

    @param wanted kind, its options, the words of matching.WORDS, skip, count, seconds, chance, seed, done
    @throw FaultError
    """
    unknown = set(wanted) - {"kind", *WORDS, "skip", "count", "seconds", "chance", "seed", "done"}
    kind = KINDS.get(wanted.get("kind", ""))
    if kind is None:
        raise FaultError(f"{wanted.get('kind')!r} is no fault; known are {', '.join(KINDS)}")
    if unknown - set(kind.options):
        raise FaultError(f"{wanted['kind']} takes no {sorted(unknown - set(kind.options))[0]!r}")
    try:
        match = read_match(wanted)
    except MatchError as error:
        raise FaultError(str(error)) from None
    _check_target(wanted, kind, match)
    options = _read_options(wanted, kind.options)
    seconds = _number(wanted, "seconds", 0.001, 86_400, None)
    count = _number(wanted, "count", 1, 1_000_000, None)
    seed = int(_number(wanted, "seed", 0, 2**63 - 1, 1))
    done = wanted.get("done")
    return Fault(
        kind=wanted["kind"],
        options=options,
        match=match,
        skip=int(_number(wanted, "skip", 0, 1_000_000, 0)),
        left=None if count is None else int(count),
        until=None if seconds is None else now + seconds,
        chance=_number(wanted, "chance", 0, 1, 1.0),
        seed=seed,
        done=kind.done if done is None else bool(done),
        number=number,
        draw=random.Random(f"{seed}:{wanted['kind']}"),
    )


def restored(told: dict, now: float, base: int) -> Fault:
    """Makes a fault of what describe() returned. Its random numbers begin anew. @param base is added to numbers of the
    journal"""
    known = {"number", "left", "seconds_left", "hits", "struck"}
    wanted = {name: value for name, value in told.items() if name not in known}
    numbers = [told["number"], told["hits"], *told["struck"]]
    if not all(isinstance(number, int) for number in numbers):
        raise FaultError(f"fault {told['number']!r} is not a fault of an export")
    # describe() rounds a rest of some milliseconds to 0, which make() refuses.
    seconds = max(told["seconds_left"], 0.1) if "seconds_left" in told else None
    fault = make({**wanted, "count": told.get("left"), "seconds": seconds}, told["number"], now)
    fault.hits, fault.struck = told["hits"], [base + seq for seq in told["struck"]]
    return fault


def _check_target(wanted: dict, kind: Kind, match: Match) -> None:
    """Refuses a fault that could never strike, or that would tell the client wrongly that nothing was done."""
    payments = match.endpoint in PAYMENTS or match.invoice or match.product or match.custom_id
    if kind.protocol == "HTTP/2" and payments:
        raise FaultError(
            f"{wanted['kind']} cannot strike at {match.endpoint or 'payments'}: the service sends "
            "payments over HTTP/1.1 alone"
        )
    if wanted.get("chance") == 0:
        raise FaultError("chance is 0; such a fault would never strike")
    if kind.says_undone and wanted.get("done"):
        raise FaultError(f"{wanted['kind']} tells the client that nothing was done; it cannot strike after the work")


def read_connection(wanted: dict) -> tuple[str, dict[str, int]]:
    """Reads the description of a fault of all connections: fault, and its options.

    @return the fault's name and its options
    @throw FaultError
    """
    name = wanted.get("fault", "")
    kind = CONNECTION_FAULTS.get(name)
    if kind is None:
        raise FaultError(f"{name!r} is no fault of the connection; known are {', '.join(CONNECTION_FAULTS)}")
    unknown = sorted(set(wanted) - {"fault", *kind.options})
    if unknown:
        raise FaultError(f"{name} takes no {unknown[0]!r}")
    return name, _read_options(wanted, kind.options)


def _read_options(wanted: dict, options: dict[str, Option]) -> dict:
    read = {
        name: _numbers(wanted, name, option)
        if option.many
        else _number(wanted, name, option.least, option.most, option.default)
        for name, option in options.items()
    }
    drawn = [name for name in ("choices", "spread", "deviation") if read.get(name)]
    if len(drawn) > 1 or ("choices" in drawn and wanted.get("ms") is not None):
        raise FaultError(f"{drawn[0]} says how the time is drawn; leave {drawn[1] if len(drawn) > 1 else 'ms'} out")
    if drawn == ["choices"]:
        return {"choices": [int(each) for each in read["choices"]]}
    return {name: int(value) for name, value in read.items() if value is not None}


def _numbers(wanted: dict, name: str, option: Option) -> list | None:
    values = wanted.get(name)
    if values is None:
        return None
    if not isinstance(values, list) or not 1 <= len(values) <= MOST_CHOICES:
        raise FaultError(f"{name} is {values!r}; it must be a list of 1 to {MOST_CHOICES} numbers")
    return [_number({name: value}, name, option.least, option.most, None) for value in values]


def _number(wanted: dict, name: str, least: float, most: float, default: float | None):
    value = wanted.get(name)
    if value is None:
        return default
    if isinstance(value, bool) or not isinstance(value, (int, float)) or not least <= value <= most:
        raise FaultError(f"{name} is {value!r}; it must be a number from {least} to {most}")
    return value


def pick(faults: Iterable[Fault], asked: Asked, now: float, protocol: str = "HTTP/1.1") -> Fault | None:
    """@return the first fault that strikes this request, or None. Later faults do not count the request"""
    return next((fault for fault in faults if not fault.is_over(now) and fault.strikes(asked, protocol)), None)


def of_product(product: str, endpoint: str) -> Fault | None:
    """@return the fault that a reserved product id such as NEVER-SHIP.confirm.status.503 forces at this endpoint, or None"""
    if not product.startswith(RESERVED):
        return None
    where, _, forced = product.removeprefix(RESERVED).partition(".")
    return _forced(where, forced) if where == endpoint else None


def _forced(endpoint: str, text: str) -> Fault:
    name, _, value = text.partition(".")
    wanted: dict = {"kind": name, "endpoint": endpoint}
    if value:
        options = list(KINDS[name].options) if name in KINDS else []
        if not options or not value.isdecimal():
            raise FaultError(f"{name} takes no {value!r}")
        wanted[options[0]] = int(value)
    return make(wanted, 0, 0.0)


def check_product(product: str) -> None:
    """Checks a reserved product id. @throw FaultError if it forces nothing"""
    where, _, forced = product.removeprefix(RESERVED).partition(".")
    if (where, forced) == ("buy", "declined"):
        return
    if where not in PAYMENTS:
        raise FaultError(
            f"{product!r} forces nothing; write {RESERVED}buy.declined, or {RESERVED}apply. or "
            f"{RESERVED}confirm. and a fault, such as {RESERVED}confirm.status.503"
        )
    _forced(where, forced)


def delay_of(fault: Fault) -> float:
    """@return the milliseconds by which to delay an answer, drawn from the fault's distribution"""
    options = fault.options
    if "choices" in options:
        return fault.draw.choice(options["choices"])
    if options["deviation"]:
        return max(0.0, fault.draw.gauss(options["ms"], options["deviation"]))
    return options["ms"] + fault.draw.uniform(0, options["spread"])


def damage(fault: Fault, body: bytes) -> bytes:
    """@return the body made malformed, or invalid UTF-8, at a place that the fault draws"""
    place = fault.draw.randrange(1, len(body)) if len(body) > 1 else 0
    if fault.kind == "malformed":
        # Not in the middle of a character: the body must stay valid UTF-8.
        return body[:place].decode("utf-8", "ignore").encode()
    return body[:place] + b"\xff\xc3(\xed\xa0\x80" + body[place:]
