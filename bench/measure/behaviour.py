"""What speed costs: how daemon and peers behave where something goes wrong.

Each row is measured with a real server and a service that was started for it. A cell is what was seen, in words; nothing
is judged here.
"""
import contextlib
import json
import statistics
import time

from gi.repository import Gio, GLib
from harness.methods import EVERY_CALL
from harness.store.server import Hang, Reply, Reset, StoreServer

from billing_lab.device import bus

from . import services, stage

GOOD = Reply(b"{}")
LIST, PURCHASE = "get_product_list", "confirm_purchase"
# What a peer of eight workers needs for one connection each.
CONNECTIONS = 8
PATIENCE = 20  # seconds for one answer
HEALTHY_CALLS = 5
# What the system bus lets one app have outstanding, nearly.
CALLS_OF_ONE = 125
TOO_LARGE = 40 * 1024 * 1024
NOT_UTF8 = b'"caf\xe9"'
HEADER = "X-Injected"


class CloseLater:
    """A good answer on a connection that is closed in an orderly way a moment later, without a word in the answer."""

    def perform(self, connection, server):
        GOOD.perform(connection, server)
        connection.finish()
        return False


class Scene:
    """One server of the tests, one service that calls it, and who calls that."""

    def __init__(self, on, service, names=(stage.HOST,)):
        self.on, self.service = on, service
        self.store = StoreServer(on.authority.server_context(*names, clients=on.keys.authority))
        on.reach(self.store.port)
        self.service.start()
        self._callers = []
        self.caller = self.another_caller()

    def another_caller(self):
        self._callers.append(bus.Caller(self.on.bus.address, self.service.bus_name))
        return self._callers[-1]

    def __enter__(self):
        return self

    def __exit__(self, *_):
        for caller in self._callers:
            caller.close()
        if self.service.is_running():
            self.service.stop()
        self.store.stop()

    def start(self, method, arguments=None, timeout=PATIENCE):
        return self.caller.start(method, *(EVERY_CALL[method] if arguments is None else arguments), timeout=timeout)

    def call(self, method, arguments=None):
        """@return the call, answered or given up"""
        call = self.start(method, arguments)
        self.caller.finish([call])
        return call

    def connect_all(self):
        """Each worker of the service gets a connection that stays: so many calls are under way at once."""
        count = len(self.store.requests) + CONNECTIONS

        def together(_):
            end = time.monotonic() + 3
            while len(self.store.requests) < count and time.monotonic() < end:
                time.sleep(0.01)
            return GOOD

        self.store.answer = together
        self.caller.finish([self.start(LIST) for _ in range(CONNECTIONS)])
        self.store.take_requests()

    def purchases_seen(self):
        """@return how often the store has been asked for the purchase, in words"""
        count = sum("confirm" in request.path for request in self.store.requests)
        return f"at the store {count} ×"

    def fate(self):
        """@return whether the service is alive and works, in words"""
        self.store.answer = GOOD
        if self.call(LIST).result is not None:
            return "goes on"
        _run(1)  # it may be about to end
        return "answers no other call" if self.service.is_running() else "the service has ended"


def told(call):
    """@return what a caller was told, in words"""
    if call.result is not None:
        return f"result {call.result[0]}"
    remote = Gio.DBusError.get_remote_error(call.error)
    return f"no answer in {PATIENCE} s" if remote is None else f"error {remote.rpartition('.')[2]}"


def dropped_post(scene):
    """A purchase on a connection that has been used; the store reads it and drops the connection."""
    scene.connect_all()
    scene.store.answer = lambda request: Reset() if request.line.startswith("POST") else GOOD
    return [told(scene.call(PURCHASE)), scene.purchases_seen()]


def idle_close(scene):
    """A purchase a second after the store has closed what was idle."""
    scene.connect_all()
    scene.store.answer = CloseLater()
    scene.caller.finish([scene.start(LIST) for _ in range(CONNECTIONS)])
    time.sleep(1.5)
    scene.store.take_requests()
    scene.store.answer = GOOD
    return [told(scene.call(PURCHASE)), scene.purchases_seen()]


def not_utf8(scene):
    """An answer that D-Bus cannot carry as it is."""
    scene.store.answer = Reply(NOT_UTF8)
    call = scene.call(LIST)
    text = [] if call.result is None else [f"text {call.result[1]!r}"]
    return [told(call), *text, scene.fate()]


def too_large(scene):
    """An answer of 40 MiB, where a message on the bus has 32 at most."""
    scene.store.answer = Reply(b"x" * TOO_LARGE)
    return [told(scene.call(LIST)), scene.fate()]


def wrong_host(scene):
    """A certificate of the right authority for another name."""
    call = scene.call(PURCHASE)
    return [told(call), scene.purchases_seen()]


def control_characters(scene):
    """A line's end and a header in an argument of a GET; control characters and a quote in one of a POST."""
    asked = scene.call(LIST, (f"app HTTP/1.1\r\n{HEADER}: 1\r\n", "1", "check"))
    heads = [request.head.decode("latin-1") for request in scene.store.take_requests()]
    injected = any(line.startswith(HEADER) for head in heads for line in head.split("\r\n"))
    bought = scene.call(PURCHASE, ("app", 'cus"tom\x01\n', "invoice", "1"))
    bodies = [request.body for request in scene.store.take_requests()]
    return [
        f"list: {told(asked)}, {'sent' if heads else 'not sent'}" + (", HEADER INJECTED" if injected else ""),
        f"purchase: {told(bought)}, "
        + (("sent whole" if all(map(_is_whole, bodies)) else "BROKEN JSON") if bodies else "not sent"),
    ]


def _is_whole(body):
    """Does the JSON hold the argument as it was?"""
    with contextlib.suppress(ValueError):
        return json.loads(body)["customId"] == 'cus"tom\x01\n'
    return False


def _hang_lists(scene, count):
    """So many calls of one method by other apps, to a store that answers the other methods only."""
    scene.store.answer = lambda request: Hang() if "products" in request.path else GOOD
    calls = []
    while len(calls) < count:
        caller = scene.another_caller()
        calls += [caller.start(LIST, *EVERY_CALL[LIST], timeout=300) for _ in range(min(CALLS_OF_ONE, count - len(calls)))]
    seen = None
    while seen != len(scene.store.requests):
        seen = len(scene.store.requests)
        _run(2)
    return calls


def _run(seconds):
    """Meanwhile messages on the bus go their ways."""
    end = time.monotonic() + seconds
    GLib.timeout_add(int(seconds * 1000), lambda: False)
    while time.monotonic() < end:
        GLib.MainContext.default().iteration(True)


def _beside(count):
    def measured(scene):
        _hang_lists(scene, count)
        took = []
        for _ in range(HEALTHY_CALLS):
            began = time.monotonic()
            call = scene.call(PURCHASE)
            if call.result is None or call.result[0] != 0:
                return [told(call)]
            took.append((time.monotonic() - began) * 1000)
        return [f"{statistics.median(took):.0f} ms"]

    return measured


def term_while_hung(scene):
    """SIGTERM while a hundred calls hang."""
    calls = _hang_lists(scene, 100)
    began = time.monotonic()
    scene.service.stop()
    took = time.monotonic() - began
    _run(0.5)
    answered = sum(call.result is not None for call in calls)
    return [f"ends after {took * 1000:.0f} ms", f"{answered} of {len(calls)} callers have a result"]


ROWS = {
    "a POST on a connection that is dropped": dropped_post,
    "a purchase after the store closed what was idle": idle_close,
    "invalid UTF-8 in the answer": not_utf8,
    "an answer of 40 MiB": too_large,
    "a purchase beside 8 calls that hang": _beside(8),
    "a purchase beside 1000 calls that hang": _beside(1000),
    "a certificate for another host": wrong_host,
    "control characters in arguments": control_characters,
    "SIGTERM with 100 calls that hang": term_while_hung,
}
OTHER_NAMES = {"a certificate for another host": ("other.example",)}


def measure(on, figures, rows=None):
    """Tells the figures each cell."""
    for name in rows or ROWS:
        for service in services.ours_and_peers(on):
            with Scene(on, service, OTHER_NAMES.get(name, (stage.HOST,))) as scene:
                figures.tell(name, service.label, "; ".join(ROWS[name](scene)))
