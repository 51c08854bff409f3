"""A fleet of TVs that comes back after a power cut, second by second.

Expected values, not chance: of a million TVs nothing else is seen. A TV that calls makes a burst of calls at once. The
store works off what comes in the order of its coming, with so much processor time a second; whoever waits too long gives
up, and a client that repeats comes back.
"""
import collections
import dataclasses
import math


@dataclasses.dataclass(frozen=True)
class Costs:
    """Processor time of the store's server, in seconds a connection, its one call included. bench/run measures it."""

    full: float = 1411e-6
    resumed: float = 767e-6


@dataclasses.dataclass(frozen=True)
class Fleet:
    """How the TVs come back."""

    size: int
    calling: float = 0.25  # the share of them whose apps call when they start
    burst: int = 4  # calls at once of such a TV
    boot: float = 45.0  # seconds from power to the first call: median,
    deviation: float = 12.0  # and how far they differ
    switched: float = 60.0  # seconds in which the grid comes back, street by street


@dataclasses.dataclass(frozen=True)
class Client:
    """What a daemon does, or another one would."""

    name: str
    gate: bool = True  # one call of a burst goes ahead, the others find its session
    sessions: bool = False  # TLS sessions from before the cut are still there
    shared: bool = False  # HTTP/2: a burst goes over one connection
    patience: int = 90  # seconds until it gives up
    repeats: int = 0  # how often it tries again then


CLIENTS = (
    Client("this daemon, after a power cut"),
    Client("the same with a store in HTTP/2", shared=True),
    Client("this daemon, after a cut of the network", sessions=True),
    Client("as if it repeated, 3 times after 10 s", patience=10, repeats=3),
    Client("as if it had no leader's gate", gate=False),
    Client("as if both", gate=False, patience=10, repeats=3),
)


def _share_up(fleet, second):
    """The share of the TVs that have made their first call by then: boot times around the median, over the switching."""

    def boots(after):
        return 0.5 * (1 + math.erf((after - fleet.boot) / (fleet.deviation * math.sqrt(2))))

    steps = 60
    return sum(boots(second - fleet.switched * (i + 0.5) / steps) for i in range(steps)) / steps


def arrivals(fleet):
    """@return the TVs that begin to call, second by second, until all have"""
    end = math.ceil(fleet.switched + fleet.boot + 5 * fleet.deviation)
    up = [_share_up(fleet, second) for second in range(end + 1)]
    callers = fleet.size * fleet.calling
    return [callers * (after - before) / (up[-1] - up[0]) for before, after in zip(up, up[1:])]


def handshakes(fleet, client):
    """@return (full, resumed) of one TV's burst"""
    if client.shared:
        return (0, 1) if client.sessions else (1, 0)
    if client.sessions:
        return 0, fleet.burst
    return (1, fleet.burst - 1) if client.gate else (fleet.burst, 0)


def work(fleet, client, costs):
    """@return seconds of the store's processor for one TV's burst"""
    full, resumed = handshakes(fleet, client)
    return full * costs.full + resumed * costs.resumed


@dataclasses.dataclass
class Outcome:
    peak_full: float = 0
    peak_resumed: float = 0
    cores: float = 0  # that would do the peak's work as it comes
    served: float = 0  # TVs
    failed: float = 0
    waited: int = 0  # the last second at which somebody did
    total: float = 0  # bursts that came, repeats included


def run(fleet, client, costs=Costs(), cores=math.inf):
    """@return what the store sees of the fleet, with so many processors"""
    outcome = Outcome()
    full, resumed = handshakes(fleet, client)
    each = work(fleet, client, costs)
    coming = collections.defaultdict(lambda: [0.0] * (client.repeats + 1))
    for second, number in enumerate(arrivals(fleet)):
        coming[second][0] = number
    waiting = collections.deque()
    second = 0
    while coming or waiting:
        new = coming.pop(second, [0.0])
        offered = sum(new)
        outcome.total += offered
        outcome.peak_full = max(outcome.peak_full, offered * full)
        outcome.peak_resumed = max(outcome.peak_resumed, offered * resumed)
        waiting.extend((second, tries, number) for tries, number in enumerate(new) if number > 0)
        _serve(waiting, cores / each, outcome)
        _give_up(waiting, second, client, coming, outcome)
        second += 1
        if waiting:
            outcome.waited = second
    outcome.cores = outcome.peak_full * costs.full + outcome.peak_resumed * costs.resumed
    return outcome


def _serve(waiting, room, outcome):
    """The oldest first."""
    while waiting and room > 0:
        since, tries, number = waiting.popleft()
        done = min(number, room)
        room -= done
        outcome.served += done
        if done < number:
            waiting.appendleft((since, tries, number - done))


def _give_up(waiting, second, client, coming, outcome):
    while waiting and second + 1 - waiting[0][0] >= client.patience:
        _, tries, number = waiting.popleft()
        if tries < client.repeats:
            coming[second + 1][tries + 1] += number
        else:
            outcome.failed += number
