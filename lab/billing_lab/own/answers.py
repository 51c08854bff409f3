"""Stores own answers, chooses the one for a request, and counts how often each was given."""
import sqlite3

from ..shop import state
from ..shop.matching import WORDS, Asked, Match, MatchError, read_match
from . import template

_MEMBERS = ("endpoint", *WORDS[1:], "body", "bodies", "status", "type", "template")


def name_of(match: Match) -> str:
    """The name of an answer, made of its conditions. A new answer replaces one of the same name."""
    words = match.describe()
    return " ".join([words.pop("endpoint"), *(f"{word}={value}" for word, value in words.items())])


def put(db: sqlite3.Connection, wanted: dict) -> str:
    """Sets an own answer; without `body` and `bodies` the built-in answer is restored.

    @param wanted endpoint and further words of matching.WORDS; body, bytes as a latin-1 text, or bodies, one for each
    request in turn and the last for all further ones; status, type; template, true if the bodies are templates
    @return the answer's name
    @throw MatchError, TemplateError
    """
    unknown = sorted(set(wanted) - set(_MEMBERS))
    if unknown:
        raise MatchError(f"an answer takes no {unknown[0]!r}; it takes {', '.join(_MEMBERS)}")
    if wanted.get("endpoint") is None:
        raise MatchError("an answer needs an endpoint")
    match = read_match(wanted)
    answers, name = dict(state.fact(db, "answers", {})), name_of(match)
    # pick() prefers the latest answer: a replaced one moves to the end.
    answers.pop(name, None)
    bodies = wanted.get("bodies") or ([wanted["body"]] if wanted.get("body") is not None else [])
    if bodies:
        answers[name] = {
            "match": match.describe(),
            "bodies": [_checked(body, wanted) for body in bodies],
            "given": 0,
            **{key: wanted[key] for key in ("status", "type", "template") if wanted.get(key) is not None},
        }
    state.set_fact(db, "answers", answers)
    return name


def _checked(body: object, wanted: dict) -> str:
    if not isinstance(body, str):
        raise MatchError(f"a body is {body!r:.40}; it must be a text")
    # Raises if a character does not stand for a byte.
    raw = body.encode("latin-1")
    if wanted.get("template"):
        template.read(raw.decode())
    return body


def pick(db: sqlite3.Connection, asked: Asked) -> dict | None:
    """@return the answer that fits with the most conditions, the latest of several, with the body to send; None if none"""
    answers = state.fact(db, "answers", {})
    fitting = [
        (len(known["match"]), place, name)
        for place, (name, known) in enumerate(_with_matches(answers).items())
        if not read_match(known["match"]).misses(asked)
    ]
    if not fitting:
        return None
    name = max(fitting)[2]
    own = answers[name]
    bodies, given = own.get("bodies") or [own["body"]], own.get("given", 0)
    if len(bodies) > 1 or own.get("template"):
        state.set_fact(db, "answers", {**answers, name: {**own, "given": given + 1}})
    return {**own, "body": bodies[min(given, len(bodies) - 1)], "count": given + 1}


def _with_matches(answers: dict) -> dict:
    """Adds the conditions of answers that come from a catalogue: these have their endpoint as name, and no `match`."""
    return {name: {"match": {"endpoint": name}, **known} for name, known in answers.items()}


def filled(own: dict, values: dict) -> bytes:
    """The body of an answer. @param values the variables of a template"""
    raw = own["body"].encode("latin-1")
    return template.filled(raw.decode(), {**values, "count": own["count"]}) if own.get("template") else raw


def whole(db: sqlite3.Connection) -> list[dict]:
    """The own answers that are set, the latest last, in the form that checked() takes."""
    known = _with_matches(state.fact(db, "answers", {}))
    return [{**own, "given": own.get("given", 0)} for own in known.values()]


def checked(told: list[dict]) -> dict:
    """Checks the answers of an export. @return the answers by their names. @throw MatchError, TemplateError"""
    known = {}
    for each in told:
        match = read_match(each["match"])
        if match.endpoint is None or not isinstance(each["given"], int):
            raise MatchError("an answer needs an endpoint, and how often it was given")
        bodies = each["bodies"] if "bodies" in each else [each["body"]]
        if not bodies or not isinstance(each.get("status", 200), int) or not isinstance(each.get("type", ""), str):
            raise MatchError(f"the answer {name_of(match)} has no body, or a wrong status or type")
        known[name_of(match)] = {**each, "bodies": [_checked(body, each) for body in bodies]}
    return known


def describe(db: sqlite3.Connection) -> dict:
    """The own answers that are set, without their bodies."""
    told = {}
    for name, own in _with_matches(state.fact(db, "answers", {})).items():
        bodies = own.get("bodies") or [own["body"]]
        told[name] = {
            "match": own["match"],
            "status": own.get("status", 200),
            "type": own.get("type", "application/json"),
            "bytes": sum(map(len, bodies)),
            "bodies": len(bodies),
            "template": bool(own.get("template")),
        }
    return told
