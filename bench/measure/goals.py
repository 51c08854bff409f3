"""What is aimed at, by the name of the figure."""
import dataclasses

# For a reader, where the figure's name does not say it.
_FLOORS = "daemon / (bus + HTTPS)"


@dataclasses.dataclass(frozen=True)
class Goal:
    """A bound of a figure's median."""

    value: float
    at_least: bool = False

    def is_reached(self, median):
        return median >= self.value if self.at_least else median <= self.value

    def __str__(self):
        return f"at {'least' if self.at_least else 'most'} {self.value:,g}"


def at_most(value):
    return Goal(value)


def at_least(value):
    return Goal(value, at_least=True)


GOALS = {
    "latency, http1, 512 bytes, 1 in flight: daemon / both in one": at_most(1.15),
    "latency, one processor, http1, 512 bytes, 1 in flight: daemon / both in one": at_most(1.25),
    f"instructions a call, 1 in flight: {_FLOORS}": at_most(1.12),
    f"instructions a call, 64 in flight: {_FLOORS}": at_most(1.12),
    f"allocations a call, 1 in flight: {_FLOORS}": at_most(1.10),
    f"allocations a call, 64 in flight: {_FLOORS}": at_most(1.10),
    "rate, http1, 512 bytes, 64 in flight: daemon / bus floor": at_least(0.85),
    "rate, 512 bytes, 64 in flight: daemon, http2 / http1": at_least(1),
    "cold burst of 100, http1, all answered: daemon": at_most(45),
    "cold burst of 100, http2, all answered: daemon": at_most(45),
    "cold burst of 100, http1, signatures: daemon": at_most(1),
    "cold burst of 100, http2, signatures: daemon": at_most(1),
    "warm burst of 100, http1, all answered: daemon": at_most(15),
    "warm burst of 100, http2, all answered: daemon": at_most(15),
    "warm burst of 100, http1, signatures: daemon": at_most(0),
    "warm burst of 100, http2, signatures: daemon": at_most(0),
    "first call of a service, http1: daemon / libcurl with the token": at_most(1.10),
    "exec to the name: daemon / both in one": at_most(1.30),
    "exec to the name: daemon": at_most(100),
    "SIGTERM to the end, 100 transfers hang: daemon": at_most(100),
    "private, idle: daemon - both in one": at_most(2 * 1024),
    "resident, idle: daemon": at_most(25 * 1024),
    "private, 1000 outstanding: daemon": at_most(20 * 1000 * 1000 / 1024),
    "peak of one answer of 32 MiB, by its size: daemon": at_most(2.5),
    "10000 outstanding, http1: unanswered": at_most(0),
    "10000 outstanding, http2: unanswered": at_most(0),
    "10000 outstanding, http1: resident afterwards / before": at_most(1.10),
    "10000 outstanding, http2: resident afterwards / before": at_most(1.10),
    "wake-ups when idle": at_most(0),
}
