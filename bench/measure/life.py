"""What a service costs beside its calls: start, stop, memory, wake-ups, cold servers, many calls at once."""
import json
import time

from billing_lab.device import bus

from . import services, stage

BURST = 100
AUTHORITIES = 140
HUNG = 100
HELD = 1_000
MANY = 10_000
LARGE_SECONDS = 20  # a service that has not answered by then has no figure
LARGE = 32 * 1024 * 1024 - 1024  # nearly the largest answer that the daemon takes
SETTLED_SECONDS = 17  # GLib keeps a spare thread for 15 of them, whose end is a wake-up


def starts(on, figures, count):
    """Exec to the name, the first call of a service's life, and the way to the end."""
    for _ in range(count):
        took = {}
        for service in services.everyone(on):
            took[service.label] = service.start(view=False) * 1000
            figures.add(f"exec to the name: {service.label}", "ms", took[service.label])
            figures.add(f"SIGTERM to the end, idle: {service.label}", "ms", service.stop() * 1000)
        figures.add("exec to the name: daemon / both in one", "", took[services.DAEMON] / took[services.BOTH])
    for protocol in stage.PROTOCOLS:
        on.use(protocol)
        for _ in range(count):
            _first_calls(on, figures, protocol)


def _first_calls(on, figures, protocol):
    title, took = f"first call of a service, {protocol}", {}
    for service in services.everyone(on):
        service.start()
        took[service.label] = on.call(service.bus_name, 1, 1)["us"][0] / 1000
        figures.add(f"{title}: {service.label}", "ms", took[service.label])
        service.stop()
    if stage.has_engine():
        bare = on.fetch_with_token()["us"][0] / 1000
        figures.add(f"{title}: libcurl with the token", "ms", bare)
        figures.add(f"{title}: daemon / libcurl with the token", "", took[services.DAEMON] / bare)


def bursts(on, figures, count):
    """A hundred calls at once to a server that no connection leads to, and once more; what the token signs for them."""
    for protocol in stage.PROTOCOLS:
        on.use(protocol)
        for _ in range(count):
            for service in services.everyone(on):
                service.start()
                for kind in ("cold", "warm"):
                    before = on.proxy.count("sign")
                    burst = on.call(service.bus_name, BURST, BURST)
                    title = f"{kind} burst of {BURST}, {protocol}"
                    figures.add(f"{title}, all answered: {service.label}", "ms", burst["seconds"] * 1000)
                    if service.label != services.BOTH:  # its key is in a file
                        figures.add(f"{title}, signatures: {service.label}", "", on.proxy.count("sign") - before)
                service.stop()


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
        for service in services.ours_and_peers(on):
            service.start()
            on.call(service.bus_name, 1, 1)
            with stage.Hanging(on):
                callers = on.call(service.bus_name, HUNG, HUNG, wait=False)
                time.sleep(1.5)
                figures.add(f"SIGTERM to the end, {HUNG} transfers hang: {service.label}", "ms", service.stop() * 1000)
            callers.kill()
            callers.communicate()


def idle(on, figures, seconds):
    """Memory and wake-ups of services that have been used, with and without calls that hang.

    One service at a time: what two of them have mapped is private to none.
    """
    on.use("http1")
    found = {}
    for service in services.everyone(on):
        service.start()
        _note_memory(figures, "unused", service.label, services.memory(service.pid))
        on.call(service.bus_name, 200, 1)
        time.sleep(SETTLED_SECONDS)
        if service.label == services.DAEMON:
            before = on.daemon.switches()
            time.sleep(seconds)
            figures.add("wake-ups when idle", "a second", on.daemon.switches_since(before) / seconds)
        found[service.label] = services.memory(service.pid)
        _note_memory(figures, "idle", service.label, found[service.label])
        if service.label != services.BOTH:  # it takes one call at a time
            _held(on, figures, service)
        service.stop()
    for kind, size in found[services.DAEMON].items():
        figures.add(f"{kind}, idle: daemon - both in one", "KiB", size - found[services.BOTH][kind])


def _note_memory(figures, when, who, sizes):
    for kind, size in sizes.items():
        figures.add(f"{kind}, {when}: {who}", "KiB", size)


def _held(on, figures, service):
    before = services.memory(service.pid)
    with stage.Hanging(on):
        callers = on.call(service.bus_name, HELD, HELD, wait=False)
        time.sleep(3)
        after = services.memory(service.pid)
    callers.communicate()
    _note_memory(figures, f"{HELD} outstanding", service.label, after)
    each = {kind: (size - before[kind]) / HELD for kind, size in after.items()}
    _note_memory(figures, f"per call of {HELD} outstanding", service.label, each)


def large(on, figures, count):
    """One answer of nearly 32 MiB: the peak that it adds, by its size."""
    on.use("http1")
    (on.folder / f"body-{LARGE}").write_bytes(b"x" * LARGE)
    for _ in range(count):
        for service in services.ours_and_peers(on):
            service.start()
            on.call(service.bus_name, 1, 1)
            before = services.status(service.pid, "VmHWM")
            if on.is_answered(service.bus_name, LARGE, LARGE_SECONDS):
                peak = services.status(service.pid, "VmHWM") - before
                figures.add(f"peak of one answer of 32 MiB, by its size: {service.label}", "", peak * 1024 / LARGE)
            service.stop()


def outstanding(on, figures):
    """Ten thousand calls that no server answers, and then it does."""
    for protocol in stage.PROTOCOLS:
        on.use(protocol)
        on.start_daemon()
        on.call(bus.SERVICE, 1_000, 64)
        time.sleep(1)
        before = services.memory(on.daemon.pid)["resident"]
        with stage.Hanging(on):
            callers = on.call(bus.SERVICE, MANY, MANY, wait=False)
            time.sleep(5)
            most = services.memory(on.daemon.pid)["resident"]
        began = time.monotonic()
        output, _ = callers.communicate(timeout=300)
        name = f"{MANY} outstanding, {protocol}"
        figures.add(f"{name}: answered after the server went on", "s", time.monotonic() - began)
        answered = 0 if callers.returncode else len(json.loads(output)["us"])
        figures.add(f"{name}: unanswered", "", MANY - answered)
        figures.add(f"{name}: most resident seen", "KiB", most)
        time.sleep(2)
        after = services.memory(on.daemon.pid)["resident"]
        figures.add(f"{name}: resident afterwards / before", "", after / before)
        on.stop_daemon()
