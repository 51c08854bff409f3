"""How long calls take, and how many there are in a second: daemon, floors and peers by turns, so that what disturbs the
machine disturbs all alike."""
import statistics

from billing_lab.device import bus

from . import services, stage

# Size of the body, calls in flight, calls in a round.
LOADS = (
    (512, 1, 500),
    (512, 8, 1_500),
    (512, 64, 3_000),
    (512, 512, 4_000),
    (32 * 1024, 1, 300),
    (32 * 1024, 64, 1_000),
    (1024 * 1024, 1, 40),
    (1024 * 1024, 8, 80),
)
ONE, OF_PROTOCOLS = LOADS[0], LOADS[2]
# With more in flight the other services wait for their few connections.
MOST_OF_ALL = 64
WARM_UP = 20


def percentile(values, share):
    ordered = sorted(values)
    return ordered[min(int(len(ordered) * share), len(ordered) - 1)]


def _called(on, service, count, in_flight, size):
    """@return what stage.call does, and the processor time of a call in us"""
    before = services.processor_seconds(service.pid)
    run = on.call(service.bus_name, count, in_flight, size)
    return {**run, "processor": (services.processor_seconds(service.pid) - before) / count * 1e6}


def turn(on, callable_services, size, in_flight, count):
    """@return by its label, what was measured of each"""
    count += WARM_UP
    measured = {
        "bus floor": on.call(stage.floor_name(size), count, in_flight, size),
        "HTTPS floor": on.fetch(count, in_flight, size),
    }
    for service in callable_services:
        measured[service.label] = _called(on, service, count, in_flight, size)
    return measured


def _of_load(size, in_flight, running):
    """@return the services that a load is for: all for small bodies, else the daemon"""
    if size != stage.SMALL or in_flight > MOST_OF_ALL:
        return [service for service in running if service.label == services.DAEMON]
    return [service for service in running if in_flight == 1 or service.label != services.WORKER]


def measure(on, figures, rounds, loads=LOADS, protocols=stage.PROTOCOLS, where=""):
    """Adds to the figures the times of each load on each protocol.

    @param where  stands in the names of the figures
    """
    for protocol in protocols:
        on.use(protocol)
        running = [services.both_and_worker(on), *services.everyone(on)]
        for service in running:
            service.start()
        on.settle()
        for size, in_flight, count in loads:
            for _ in range(rounds):
                measured = turn(on, _of_load(size, in_flight, running), size, in_flight, count)
                _note(figures, f"{where}{protocol}, {size} bytes, {in_flight} in flight", in_flight, measured)
        for service in running:
            service.stop()


def _note(figures, load, in_flight, measured):
    medians, rates = {}, {}
    for who, run in measured.items():
        times = run["us"][WARM_UP:]
        medians[who] = statistics.median(times)
        figures.add(f"latency, {load}: {who}", "us", medians[who])
        figures.add(f"p99, {load}: {who}", "us", percentile(times, 0.99))
        if in_flight > 1:
            rates[who] = len(run["us"]) / run["seconds"]
            figures.add(f"rate, {load}: {who}", "calls/s", rates[who])
        if "processor" in run:
            figures.add(f"processor time a call, {load}: {who}", "us", run["processor"])
    if in_flight == 1:
        floors = medians["bus floor"] + medians["HTTPS floor"]
        figures.add(f"latency, {load}: daemon / (bus + HTTPS)", "", medians[services.DAEMON] / floors)
    else:
        figures.add(f"rate, {load}: daemon / bus floor", "x the rate", rates[services.DAEMON] / rates["bus floor"])
    for floor, name in ((services.BOTH, "both in one"), (services.WORKER, "both and a worker")):
        if floor in medians:
            figures.add(f"latency, {load}: daemon / {name}", "", medians[services.DAEMON] / medians[floor])


def compare_protocols(on, figures, rounds):
    """Adds the daemon's rate over HTTP/2 by that over HTTP/1.1, the two by turns."""
    size, in_flight, count = OF_PROTOCOLS
    for _ in range(rounds):
        rates = {}
        for protocol in stage.PROTOCOLS:
            on.use(protocol)
            on.start_daemon()
            on.settle()
            on.call(bus.SERVICE, WARM_UP * in_flight, in_flight, size)
            rates[protocol] = count / on.call(bus.SERVICE, count, in_flight, size)["seconds"]
            on.stop_daemon()
        name = f"rate, {size} bytes, {in_flight} in flight: daemon, http2 / http1"
        figures.add(name, "x the rate", rates["http2"] / rates["http1"])
