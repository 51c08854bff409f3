"""What the daemon costs beside its calls: start, stop, memory, wake-ups, cold servers, many calls at once."""
import json
import pathlib
import re
import time

from billing_lab import bus

from . import stage

BURST = 100
AUTHORITIES = 140
HUNG = 100
HELD = 1_000
MANY = 10_000
SETTLED_SECONDS = 17  # GLib keeps a spare thread for 15 of them, whose end is a wake-up


def memory(on):
    """@return (resident, unique) KiB; unique is None for who may not know"""
    resident = on.daemon.status_field("VmRSS")
    try:
        text = pathlib.Path(f"/proc/{on.daemon.pid}/smaps_rollup").read_text(encoding="utf-8")
    except PermissionError:
        return resident, None
    return resident, sum(int(size) for size in re.findall(r"^Private_\w+:\s*(\d+)", text, re.MULTILINE))


def starts(on, figures, count):
    """Exec to the name, the first call of a daemon's life, and the way to the end."""
    for _ in range(count):
        figures.add("exec to the name", "ms", on.start_daemon(view=False) * 1000)
        figures.add("SIGTERM to the end, idle", "ms", on.stop_daemon() * 1000)
    for protocol in stage.PROTOCOLS:
        on.use(protocol)
        for _ in range(count):
            on.start_daemon()
            first = on.call(bus.SERVICE, 1, 1)["us"][0]
            figures.add(f"first call of a daemon, {protocol}", "ms", first / 1000)
            on.stop_daemon()


def bursts(on, figures, count):
    """A hundred calls at once to a server that no connection leads to, and what the token signs for them."""
    for protocol in stage.PROTOCOLS:
        on.use(protocol)
        for _ in range(count):
            on.start_daemon()
            before = on.proxy.count("sign")
            burst = on.call(bus.SERVICE, BURST, BURST)
            figures.add(f"cold burst of {BURST}, {protocol}: all answered", "ms", burst["seconds"] * 1000)
            figures.add(f"cold burst of {BURST}, {protocol}: signatures", "", on.proxy.count("sign") - before)
            before = on.proxy.count("sign")
            on.call(bus.SERVICE, BURST, BURST)
            figures.add(f"warm burst of {BURST}, {protocol}: signatures", "", on.proxy.count("sign") - before)
            on.stop_daemon()


def bundles(on, figures, count):
    """The same over HTTP/1.1, where each call takes a connection, with a bundle as long as a distribution's."""
    on.use("http1")
    on.trust(AUTHORITIES)
    for _ in range(count):
        on.start_daemon()
        burst = on.call(bus.SERVICE, BURST, BURST)
        figures.add(f"cold burst of {BURST}, http1, bundle of {AUTHORITIES}: all answered", "ms", burst["seconds"] * 1000)
        on.stop_daemon()
    on.trust()


def stops(on, figures, count):
    """The end with transfers that hang."""
    on.use("http1")
    for _ in range(count):
        on.start_daemon()
        on.call(bus.SERVICE, 1, 1)
        with stage.Hanging(on):
            callers = on.call(bus.SERVICE, HUNG, HUNG, wait=False)
            time.sleep(1.5)
            figures.add(f"SIGTERM to the end, {HUNG} transfers hang", "ms", on.stop_daemon() * 1000)
        callers.kill()
        callers.communicate()


def idle(on, figures, seconds):
    """Memory and wake-ups of a daemon that has been used."""
    on.use("http1")
    on.start_daemon()
    figures.add("resident, unused", "KiB", memory(on)[0])
    on.call(bus.SERVICE, 200, 1)
    time.sleep(SETTLED_SECONDS)
    before = on.daemon.switches()
    time.sleep(seconds)
    figures.add("wake-ups when idle", "a second", on.daemon.switches_since(before) / seconds)
    _note_memory(figures, "idle", *memory(on))
    _held(on, figures)
    on.stop_daemon()


def _note_memory(figures, when, resident, unique):
    figures.add(f"resident, {when}", "KiB", resident)
    if unique is not None:
        figures.add(f"unique, {when}", "KiB", unique)


def _held(on, figures):
    before = memory(on)
    with stage.Hanging(on):
        callers = on.call(bus.SERVICE, HELD, HELD, wait=False)
        time.sleep(3)
        after = memory(on)
    callers.communicate()
    _note_memory(
        figures, f"per call of {HELD} in flight", *(None if a is None else (a - b) / HELD for a, b in zip(after, before))
    )


def outstanding(on, figures):
    """Ten thousand calls that no server answers, and then it does."""
    for protocol in stage.PROTOCOLS:
        on.use(protocol)
        on.start_daemon()
        on.call(bus.SERVICE, 1_000, 64)
        time.sleep(1)
        before = memory(on)
        with stage.Hanging(on):
            callers = on.call(bus.SERVICE, MANY, MANY, wait=False)
            time.sleep(5)
            most = memory(on)
        began = time.monotonic()
        output, _ = callers.communicate(timeout=300)
        name = f"{MANY} outstanding, {protocol}"
        figures.add(f"{name}: answered after the server went on", "s", time.monotonic() - began)
        answered = 0 if callers.returncode else len(json.loads(output)["us"])
        figures.add(f"{name}: unanswered", "", MANY - answered)
        figures.add(f"{name}: most resident seen", "KiB", most[0])
        time.sleep(2)
        figures.add(f"{name}: resident afterwards / before", "", memory(on)[0] / before[0])
        on.stop_daemon()
