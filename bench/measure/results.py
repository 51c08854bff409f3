"""The figures of a run, on disk and side by side."""
import datetime
import json
import os
import pathlib
import platform
import statistics
import subprocess

from . import TREE

# Less is better, but for these units.
MORE_IS_BETTER = ("calls/s",)

# What is aimed at, by the name of the figure: at most this much.
GOALS = {
    "latency, http1, 512 bytes, 1 in flight: daemon / (bus + HTTPS)": 1.20,
    "latency, http2, 512 bytes, 1 in flight: daemon / (bus + HTTPS)": 1.20,
    "instructions a call, 64 in flight: daemon / (bus + HTTPS)": 1.25,
    "cold burst of 100, http1: signatures": 1,
    "cold burst of 100, http2: signatures": 1,
    "warm burst of 100, http1: signatures": 0,
    "warm burst of 100, http2: signatures": 0,
    "10000 outstanding, http1: unanswered": 0,
    "10000 outstanding, http2: unanswered": 0,
    "10000 outstanding, http1: resident afterwards / before": 1.10,
    "10000 outstanding, http2: resident afterwards / before": 1.10,
    "wake-ups when idle": 0,
    "resident, idle": 25 * 1024,
    "exec to the name": 100,
    "SIGTERM to the end, 100 transfers hang": 100,
}


def machine():
    """What the figures depend on, and nothing that names the machine."""
    text = pathlib.Path("/proc/cpuinfo").read_text(encoding="utf-8")
    model = next(
        (line.split(":")[1].strip() for line in text.splitlines() if line.startswith("model name")), platform.machine()
    )
    pages = os.sysconf("SC_PHYS_PAGES") * os.sysconf("SC_PAGE_SIZE")
    return {
        "processor": model,
        "processors": os.cpu_count(),
        "kernel": platform.release(),
        "memory MiB": pages // 2**20,
        "load before": round(os.getloadavg()[0], 2),
    }


def revision():
    """The commit that was measured, with "+" when the tree had changes."""
    told = subprocess.run(["git", "-C", TREE, "describe", "--always", "--dirty=+"], check=False, capture_output=True, text=True)
    return told.stdout.strip() or "unknown"


class Figures:
    """Named values, several of each: one of each round."""

    def __init__(self):
        self.values = {}
        self.about = {
            "revision": revision(),
            "machine": machine(),
            "when": datetime.datetime.now(datetime.timezone.utc).isoformat(timespec="seconds"),
        }

    def add(self, name, unit, value):
        self.values.setdefault(name, {"unit": unit, "values": []})["values"].append(round(value, 4))

    def write(self, file):
        self.about["load after"] = round(os.getloadavg()[0], 2)
        file.write_text(json.dumps({"about": self.about, "figures": self.values}, indent=1) + "\n", encoding="utf-8")


def read(file):
    """@return (about, {name: Figure})"""
    content = json.loads(pathlib.Path(file).read_text(encoding="utf-8"))
    return content["about"], {name: Figure(name, **figure) for name, figure in content["figures"].items()}


class Figure:
    """The values of one name."""

    def __init__(self, name, unit, values):
        self.name, self.unit, self.values = name, unit, values
        self.goal = GOALS.get(name)

    @property
    def median(self):
        return statistics.median(self.values)

    @property
    def quartiles(self):
        """The middle half lies between them."""
        if len(self.values) < 3:
            return min(self.values), max(self.values)
        low, _, high = statistics.quantiles(self.values, n=4, method="inclusive")
        return low, high

    @property
    def reached(self):
        """None where there is no goal."""
        return None if self.goal is None else self.median <= self.goal


def shown(value):
    """With the digits that mean something."""
    if value == 0 or abs(value) >= 1000:
        return f"{value:,.0f}"
    return f"{value:.3g}"


def table(figures):
    """As text."""
    lines = []
    for figure in figures.values():
        low, high = figure.quartiles
        goal = "" if figure.goal is None else f"   goal {shown(figure.goal)}{'' if figure.reached else ' NOT REACHED'}"
        lines.append(f"{figure.name:68} {shown(figure.median):>10} {figure.unit:9} [{shown(low)} .. {shown(high)}]{goal}")
    return "\n".join(lines)
