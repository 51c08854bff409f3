"""The control interface with generated requests: each is answered or refused, and the lab goes on.

A longer run: `BILLING_FUZZ_SECONDS=600 BILLING_FUZZ_SEED=5 python3 -m pytest tests/lab/control/test_control_fuzz.py`
"""
import http.client
import json
import os
import random
import time

from billing_lab.control import openapi

# Requests that would end the lab, never end themselves, or wait for a call of the daemon.
LEFT_OUT = {"/api/stop", "/api/events", "/api/call"}
OPERATIONS = [
    (method.upper(), path, told)
    for path, methods in openapi.describe()["paths"].items()
    if path not in LEFT_OUT
    for method, told in methods.items()
]
ODD = [
    None,
    True,
    False,
    0,
    -1,
    1,
    1.5,
    -0.0,
    1e308,
    1 << 31,
    1 << 63,
    1 << 64,
    -(1 << 63),
    "",
    " ",
    "0",
    "-1",
    "1e9",
    "\0",
    "\n",
]
ODD += [
    "ä",
    "\U0001f600",
    "\ud800",
    "../../etc/passwd",
    "'; DROP TABLE invoices; --",
    "{}",
    "x" * 70000,
    [],
    {},
    [[]],
    [None],
    {"": None},
]
TEXTS = [each for each in ODD if isinstance(each, str)]
ENOUGH = 200


class Generator:
    """Makes requests that are close to the interface's description. The same seed makes the same requests."""

    def __init__(self, seed):
        self._chance = random.Random(seed)

    def request(self):
        """@return method, path with query, body or None"""
        method, path, told = self._chance.choice(OPERATIONS)
        parameters = told.get("parameters", [])
        query = "&".join(
            f"{each['name']}={self._in_query(each['schema'])}" for each in parameters if self._chance.random() < 0.7
        )
        body = None
        if "requestBody" in told:
            body = self._body(told["requestBody"]["content"]["application/json"]["schema"])
        return method, path + ("?" + query if query else ""), body

    def _body(self, schema):
        dice = self._chance.random()
        if dice < 0.05:
            return bytes(self._chance.randrange(256) for _ in range(self._chance.randrange(40)))
        value = self._chance.choice(ODD) if dice < 0.1 else self._value(schema)
        text = json.dumps(value).encode()
        return text[: self._chance.randrange(len(text) + 1)] if dice > 0.95 else text

    def _in_query(self, schema):
        value = self._value(schema) if self._chance.random() < 0.5 else self._chance.choice(ODD)
        return "".join(f"%{byte:02x}" for byte in str(value)[:200].encode(errors="replace"))

    def _value(self, schema, depth=0):
        if self._chance.random() < 0.15 or depth > 4:
            return self._chance.choice(ODD)
        for form in ("anyOf", "oneOf"):
            if form in schema:
                return self._value(self._chance.choice(schema[form]), depth + 1)
        if "const" in schema:
            return schema["const"]
        if "enum" in schema:
            return self._chance.choice(list(schema["enum"]))
        kind = schema.get("type", "string")
        return getattr(self, "_" + (kind if isinstance(kind, str) else self._chance.choice(kind)))(schema, depth)

    def _object(self, schema, depth):
        needed = schema.get("required", ())
        made = {
            name: self._value(of, depth + 1)
            for name, of in schema.get("properties", {}).items()
            if self._chance.random() < (0.95 if name in needed else 0.4)
        }
        if self._chance.random() < 0.1:
            made["no-such-member"] = self._chance.choice(ODD)
        return made

    def _array(self, schema, depth):
        return [self._value(schema.get("items", {}), depth + 1) for _ in range(self._chance.randrange(4))]

    def _string(self, _schema, _depth):
        return self._chance.choice(["coins-100", "app-1", "lab@example.org", "INV-SEED-2", "confirm", "1h", "US", *TEXTS])

    def _integer(self, schema, _depth):
        least = schema.get("minimum", 0)
        return self._chance.choice([least, least + 1, self._chance.randrange(1000), schema.get("maximum", 10)])

    def _number(self, schema, depth):
        return self._integer(schema, depth) * self._chance.choice([1, 0.5])

    def _boolean(self, _schema, _depth):
        return self._chance.random() < 0.5

    def _null(self, _schema, _depth):
        return None


def ask(lab, method, path, body):
    """@return status and body"""
    control = lab.info["control"]
    connection = http.client.HTTPConnection(control["address"].removeprefix("http://"), timeout=60)
    try:
        connection.request(method, path, body, {"Authorization": f"Bearer {control['token']}"})
        response = connection.getresponse()
        return response.status, response.read()
    finally:
        connection.close()


def test_no_request_is_too_odd_for_the_lab(lab):
    seconds = float(os.environ.get("BILLING_FUZZ_SECONDS", 0))
    seed = int(os.environ.get("BILLING_FUZZ_SEED", 22))
    generator = Generator(seed)
    end = time.monotonic() + seconds
    done, statuses = 0, {}
    while done < ENOUGH or time.monotonic() < end:
        method, path, body = generator.request()
        status, answer = ask(lab, method, path, body)
        asked = f"seed {seed}, request {done}: {method} {path} {body!r:.500}"
        assert status in (200, 400, 422), f"{asked}: {status} {answer!r:.500}"
        assert status == 200 or json.loads(answer)["error"], asked
        statuses[status] = statuses.get(status, 0) + 1
        done += 1
    print(f"seed {seed}: {done} requests, {statuses}")
    assert len(statuses) == 3, "it makes requests of every kind"
    lab.reset()
    assert lab.status()
