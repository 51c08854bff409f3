"""Makes a scenario of a recording of a real store: the answers in a HAR file, with secrets hidden."""
import base64
import json
import pathlib
import urllib.parse

from ..folder import LabError
from ..shop.store import PATHS
from . import secrets


def scenario_of(file: pathlib.Path) -> dict:
    """Reads a HAR file. @return a scenario with the recorded answers to the five requests, in their order

    @throw LabError for a file that is no HAR, or has none of the five requests in it
    """
    try:
        read = json.loads(file.read_text(encoding="utf-8-sig"))
        entries = read["log"]["entries"]
        answered = [(_endpoint(entry["request"]), entry) for entry in entries]
        hidden = _secrets([entry["request"] for endpoint, entry in answered if endpoint])
        bodies: dict[str, list[dict]] = {}
        for endpoint, entry in answered:
            if endpoint and entry["response"].get("content", {}).get("text") is not None:
                bodies.setdefault(endpoint, []).append(_answer(entry["response"], hidden))
    except OSError as error:
        raise LabError(f"{file}: {error.strerror}; name a HAR file that can be read") from None
    except (ValueError, KeyError, TypeError, AttributeError) as error:
        raise LabError(f"{file} is no HAR file ({error!r})") from None
    if not bodies:
        raise LabError(
            f"{file} has no answer to one of the five requests; their paths are {', '.join(path for _, path in PATHS)}"
        )
    return {
        "scenario": 1,
        "about": f"recorded: {file.name}",
        "answers": [{"endpoint": endpoint, **_one_answer(told)} for endpoint, told in bodies.items()],
    }


def _endpoint(request: dict) -> str | None:
    return PATHS.get((request["method"], urllib.parse.urlsplit(request["url"]).path))


def _secrets(requests: list[dict]) -> dict[str, str]:
    """@return the replacement of each secret value, the longest value first: a value may be a part of another one"""
    said: dict[str, set[str]] = {name: set() for name in secrets.SAID}
    for request in requests:
        headers = [(header["name"], header["value"]) for header in request.get("headers", [])]
        for name, value in secrets.pairs(headers, request["url"], request.get("postData", {}).get("text", "")):
            if name.lower() in said and len(value) >= secrets.SHORTEST:
                said[name.lower()].add(value)
    found: dict[str, str] = {}
    for name, shown in secrets.SAID.items():
        for value in said[name]:
            # The history's request has the user's id as custom id too. The first replacement is kept.
            found.setdefault(value, f"hidden-{shown}")
    return dict(sorted(found.items(), key=lambda pair: -len(pair[0])))


def _answer(response: dict, hidden: dict[str, str]) -> dict:
    content = response["content"]
    body = base64.b64decode(content["text"]) if content.get("encoding") == "base64" else content["text"].encode()
    for secret, shown in hidden.items():
        body = body.replace(secret.encode(), shown.encode())
    status = response.get("status", 200)
    return {
        "body": body.decode("latin-1"),
        "status": status if 200 <= status <= 599 else 200,
        "type": content.get("mimeType") or "application/json",
    }


def _one_answer(told: list[dict]) -> dict:
    """@return one own answer with all bodies in their order, and status and type of the last one"""
    return {"bodies": [answer["body"] for answer in told], "status": told[-1]["status"], "type": told[-1]["type"]}
