"""How long calls take, and how many there are in a second: the daemon and its floors by turns, so that what disturbs the
machine disturbs all alike."""
import statistics

from billing_lab import bus

from . import stage

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
WARM_UP = 20


def percentile(values, share):
    ordered = sorted(values)
    return ordered[min(int(len(ordered) * share), len(ordered) - 1)]


def turn(on, size, in_flight, count):
    """@return for the floors and the daemon what was measured"""
    count += WARM_UP
    measured = {
        "bus floor": on.call(stage.floor_name(size), count, in_flight, size),
        "HTTPS floor": on.fetch(count, in_flight, size),
        "daemon": on.call(bus.SERVICE, count, in_flight, size),
    }
    if (size, in_flight) == (stage.SMALL, 1):
        measured["both floors in one"] = on.call(stage.BOTH, count, in_flight)
    return measured


def measure(on, figures, rounds, loads=LOADS):
    """Adds to the figures the times of each load on each protocol."""
    for protocol in stage.PROTOCOLS:
        on.use(protocol)
        both = on.start_both_floor()
        on.settle()
        for size, in_flight, count in loads:
            for _ in range(rounds):
                _note(figures, f"{protocol}, {size} bytes, {in_flight} in flight", in_flight, turn(on, size, in_flight, count))
        both.terminate()
        both.wait()


def _note(figures, load, in_flight, measured):
    medians = {}
    for who, run in measured.items():
        times = run["us"][WARM_UP:]
        medians[who] = statistics.median(times)
        figures.add(f"latency, {load}: {who}", "us", medians[who])
        figures.add(f"p99, {load}: {who}", "us", percentile(times, 0.99))
        if in_flight > 1:
            figures.add(f"rate, {load}: {who}", "calls/s", len(run["us"]) / run["seconds"])
    if in_flight == 1:
        figures.add(
            f"latency, {load}: daemon / (bus + HTTPS)", "", medians["daemon"] / (medians["bus floor"] + medians["HTTPS floor"])
        )
    if "both floors in one" in medians:
        figures.add(f"latency, {load}: daemon / both in one", "", medians["daemon"] / medians["both floors in one"])
