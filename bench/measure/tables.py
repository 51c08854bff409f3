"""The tables of docs/PERFORMANCE.md, from a results file: no cell is written by hand."""
import re

from . import TREE, results, services

DOCUMENT = TREE / "docs" / "PERFORMANCE.md"
FILE = TREE / "bench" / "results.json"  # what the document's tables are from
COLUMNS = (services.DAEMON, services.BOTH, *services.PEERS)
GIVEN = ("bus floor", services.BOTH, services.WORKER, services.DAEMON)
NOTHING = "-"
TIMES = ("us", "ms", "s", *results.MORE_IS_BETTER)

# What a row says: the figure's name without its last part, and the number of its unit that makes one of the row's.
ROWS = {
    "one call, µs": ("latency, http1, 512 bytes, 1 in flight", 1),
    "one call, all on one processor, µs": ("latency, one processor, http1, 512 bytes, 1 in flight", 1),
    "one call, HTTP/2, µs": ("latency, http2, 512 bytes, 1 in flight", 1),
    "instructions a call, 1 in flight": ("instructions a call, 1 in flight", 1),
    "instructions a call, 64 in flight": ("instructions a call, 64 in flight", 1),
    "allocations a call, 1 in flight": ("allocations a call, 1 in flight", 1),
    "allocations a call, 64 in flight": ("allocations a call, 64 in flight", 1),
    "calls a second, 8 in flight": ("rate, http1, 512 bytes, 8 in flight", 1),
    "calls a second, 64 in flight": ("rate, http1, 512 bytes, 64 in flight", 1),
    "calls a second, 64 in flight, HTTP/2": ("rate, http2, 512 bytes, 64 in flight", 1),
    "processor time a call, 64 in flight, µs": ("processor time a call, http1, 512 bytes, 64 in flight", 1),
    "resident, idle, MiB": ("resident, idle", 1024),
    "private, idle, MiB": ("private, idle", 1024),
    "written, idle, MiB": ("written, idle", 1024),
    "resident, 1,000 outstanding, MiB": ("resident, 1000 outstanding", 1024),
    "private, 1,000 outstanding, MiB": ("private, 1000 outstanding", 1024),
    "peak of one answer of 32 MiB, by its size": ("peak of one answer of 32 MiB, by its size", 1),
    "exec to the name, ms": ("exec to the name", 1),
    "first call, ms": ("first call of a service, http1", 1),
    "first call, HTTP/2, ms": ("first call of a service, http2", 1),
    "cold burst of 100, ms": ("cold burst of 100, http1, all answered", 1),
    "cold burst of 100, signatures": ("cold burst of 100, http1, signatures", 1),
    "cold burst of 100, HTTP/2, ms": ("cold burst of 100, http2, all answered", 1),
    "warm burst of 100, ms": ("warm burst of 100, http1, all answered", 1),
    "SIGTERM to the end, idle, ms": ("SIGTERM to the end, idle", 1),
    "SIGTERM to the end, 100 transfers hang, ms": ("SIGTERM to the end, 100 transfers hang", 1),
}


def _table(head, rows):
    if not rows:
        return "Not measured in this run."
    lines = [head, ["---"] * len(head), *rows]
    return "\n".join(f"| {' | '.join(line)} |" for line in lines)


def _cell(figures, name, who, scale):
    """@return the median, and its ratio to the daemon's"""
    figure, ours = figures.get(f"{name}: {who}"), figures.get(f"{name}: {services.DAEMON}")
    if figure is None:
        return NOTHING
    shown = results.shown(figure.median / scale)
    if who == services.DAEMON or ours is None or ours.median == 0:
        return shown
    return f"{shown} ({results.shown(figure.median / ours.median)})"


def beside_peers(figures):
    """One row a figure, one column a service; rows without any figure are left out."""
    rows = ([label, *(_cell(figures, name, who, scale) for who in COLUMNS)] for label, (name, scale) in ROWS.items())
    return _table(["", *COLUMNS], [row for row in rows if set(row[1:]) != {NOTHING}])


def given(figures):
    """How much of a call the floors take; in the bus floor nothing but the bus library works."""
    rows = []
    for label, (name, scale) in ROWS.items():
        floor = figures.get(f"{name}: {GIVEN[0]}")
        if floor is not None and floor.unit not in results.MORE_IS_BETTER:
            rows.append([label, *(_cell(figures, name, who, scale) for who in GIVEN)])
    return _table(["", *GIVEN], rows)


def behaviour(found):
    """One row a behaviour, one column a service that was looked at."""
    who = [label for label in COLUMNS if any(label in row for row in found.values())]
    return _table(["", *who], [[name, *(row.get(label, NOTHING) for label in who)] for name, row in found.items()])


def goals(figures):
    """One row a goal."""
    rows = []
    for figure in figures.values():
        if figure.goal is not None:
            low, high = map(results.shown, figure.quartiles)
            now = f"{results.shown(figure.median)} {figure.unit}".strip()
            met = "met" if figure.reached else "**not met**"
            rows.append([figure.name, str(figure.goal), now, f"{low} to {high}", met])
    return _table(["figure", "goal", "now", "middle half", ""], rows)


def run(about):
    """@return which run it was"""
    minutes = f" {about['minutes']} minutes." if "minutes" in about else ""
    left_out = " They are left out below." if results.is_busy(about) else ""
    return f"Revision {about['revision']}. {results.circumstances(about)}{left_out}{minutes}"


def _without_times(figures):
    """@return those that do not stand beside a time or a rate"""
    timed = {name.partition(": ")[0] for name, figure in figures.items() if figure.unit in TIMES}
    return {name: figure for name, figure in figures.items() if name.partition(": ")[0] not in timed}


def all_of(file):
    """@return {name: text} for the blocks of the document; without times when the machine was busy"""
    about, figures = results.read(file)
    if results.is_busy(about):
        figures = _without_times(figures)
    return {
        "run": run(about),
        "goals": goals(figures),
        "peers": beside_peers(figures),
        "behaviour": behaviour(results.read_behaviour(file)),
        "given": given(figures),
    }


def written(document, tables):
    """@return the document with its blocks renewed. A block stands between two comments with its name"""
    for name, text in tables.items():
        block = re.compile(rf"(<!-- bench/table: {name} -->\n).*?(<!-- end -->)", re.DOTALL)
        document, count = block.subn(lambda match, text=text: f"{match[1]}\n{text}\n\n{match[2]}", document)
        if count != 1:
            raise ValueError(f"{count} blocks for {name}")
    return document
