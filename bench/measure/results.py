"""The figures of a run, on disk and side by side."""
import datetime
import json
import os
import pathlib
import platform
import statistics
import subprocess
import time

from . import TREE, goals

# Less is better, but for these units.
MORE_IS_BETTER = ("calls/s", "x the rate")

# Of the processors, for others. A machine that does nothing else has some daemons.
BUSY_PERCENT = 5


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


def processor_seconds():
    """@return (of everybody, of this process and the children that it has waited for)"""
    user, nice, system = map(int, pathlib.Path("/proc/stat").read_text(encoding="utf-8").split()[1:4])
    return (user + nice + system) / os.sysconf("SC_CLK_TCK"), sum(os.times()[:4])


class Figures:
    """Named values, several of each: one of each round. And how services behaved, in words."""

    def __init__(self):
        self.values, self.behaviour = {}, {}
        self._began = (*processor_seconds(), time.monotonic())
        self.about = {
            "revision": revision(),
            "machine": machine(),
            "when": datetime.datetime.now(datetime.timezone.utc).isoformat(timespec="seconds"),
        }

    def add(self, name, unit, value):
        self.values.setdefault(name, {"unit": unit, "values": []})["values"].append(round(value, 4))

    def tell(self, behaviour, who, words):
        self.behaviour.setdefault(behaviour, {})[who] = words

    def _others_share(self):
        """@return how much of the processors somebody else has had since the beginning, in percent"""
        everybody, ours, now = (after - before for after, before in zip((*processor_seconds(), time.monotonic()), self._began))
        return round(max(everybody - ours, 0) / (now * os.cpu_count()) * 100, 1)

    def write(self, file):
        self.about["minutes"] = round((time.monotonic() - self._began[2]) / 60, 1)
        self.about["percent of others"] = self._others_share()
        content = {"about": self.about, "figures": self.values, "behaviour": self.behaviour}
        file.write_text(_lines(content) + "\n", encoding="utf-8")


def _lines(content):
    """@return JSON with a line for each figure, so that a difference of two files can be read"""
    parts = []
    for name, part in content.items():
        lines = (f"  {json.dumps(key)}: {json.dumps(value, ensure_ascii=False)}" for key, value in part.items())
        parts.append(f" {json.dumps(name)}: {{\n" + ",\n".join(lines) + "\n }")
    return "{\n" + ",\n".join(parts) + "\n}"


def read(file):
    """@return (about, {name: Figure})"""
    content = json.loads(pathlib.Path(file).read_text(encoding="utf-8"))
    return content["about"], {name: Figure(name, **figure) for name, figure in content["figures"].items()}


def read_behaviour(file):
    """@return {behaviour: {who: words}}; empty for a run that did not look"""
    return json.loads(pathlib.Path(file).read_text(encoding="utf-8")).get("behaviour", {})


def is_busy(about):
    """Did others take so much of the machine that times are worth little?"""
    return about.get("percent of others", 0) > BUSY_PERCENT


def circumstances(about):
    """@return machine, time, and whether the machine was busy with something else, as text"""
    machine_text = ", ".join(f"{key}: {value}" for key, value in about["machine"].items())
    share = about.get("percent of others")
    if share is None:
        return f"{machine_text}; {about['when']}."
    care = " The machine was busy with other work: read the times with care." if is_busy(about) else ""
    return f"{machine_text}; {about['when']}; others took {share} % of the processors.{care}"


class Figure:
    """The values of one name."""

    def __init__(self, name, unit, values):
        self.name, self.unit, self.values = name, unit, values
        self.goal = goals.GOALS.get(name)

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
        return None if self.goal is None else self.goal.is_reached(self.median)


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
        goal = "" if figure.goal is None else f"   goal: {figure.goal}{'' if figure.reached else ', NOT REACHED'}"
        lines.append(f"{figure.name:68} {shown(figure.median):>10} {figure.unit:9} [{shown(low)} .. {shown(high)}]{goal}")
    return "\n".join(lines)
