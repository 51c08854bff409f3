"""The gate: does a call take more instructions or allocations than it did when the figures were recorded?

Counted, not timed: a busy machine changes nothing. What compiles and what is linked does, so each figure is recorded for
a processor family, a compiler and the libraries that most instructions are spent in.
"""
import json
import os
import subprocess

from harness import daemon

from . import TREE, counts, results, services, stage

# By what is counted: where the figures stand, and how much more is allowed.
FILES = {kind: TREE / "bench" / f"{kind}.json" for kind in ("instructions", "allocations")}
ALLOWED = {"instructions": 1.05, "allocations": 1.02}
# The threads' order differs from run to run, and with it some waiting for locks: 1.3 % between the
# largest and the smallest of ten runs. Worse than allowed counts when it is so each time.
TRIES = 3
LIBRARIES = ("glib-2.0", "libcurl", "libssl", "ecore")


def build_folder():
    return daemon.binary().parents[1]


def _introspect(what):
    told = subprocess.run(["meson", "introspect", what, str(build_folder())], check=True, capture_output=True, text=True)
    return json.loads(told.stdout)


def _compiler():
    """@return the first line that the build's C++ compiler says of itself"""
    sources = (source for target in _introspect("--targets") for source in target["target_sources"])
    command = next(source["compiler"] for source in sources if source["language"] == "cpp")
    told = subprocess.run([*command, "--version"], check=True, capture_output=True, text=True)
    return told.stdout.splitlines()[0]


def _versions():
    for library in LIBRARIES:
        told = subprocess.run(["pkg-config", "--modversion", library], check=True, capture_output=True, text=True)
        yield f"{library} {told.stdout.strip()}"


def machine():
    """@return what a figure holds for, as one line"""
    options = {option["name"]: option["value"] for option in _introspect("--buildoptions")}
    return ", ".join([os.uname().machine, _compiler(), f"-O{options['optimization']}", *_versions()])


def recorded(file):
    """@return {machine: figure}"""
    return json.loads(file.read_text(encoding="utf-8")) if file.exists() else {}


def figures_of(where):
    """@return {kind: the figure of this machine}, of the kinds that have one"""
    figures = {kind: recorded(file).get(where) for kind, file in FILES.items()}
    return {kind: figure for kind, figure in figures.items() if figure is not None}


def record(where, figure, file):
    file.write_text(json.dumps({**recorded(file), where: figure}, indent=1, sort_keys=True) + "\n", encoding="utf-8")


def count(on):
    """@return {kind: of one call of the daemon, one at a time}"""
    on.settle()
    return counts.of(on, services.DAEMON, 1, stage.SMALL)


def passes(found, figures):
    """Is each count within what is allowed?"""
    return all(found[kind] <= figures[kind] * ALLOWED[kind] for kind in figures)


def tried(counting, figures):
    """Counts until all pass at once, TRIES times at most. @return (did they, all counts)"""
    found = []
    while len(found) < TRIES:
        found.append(counting())
        if passes(found[-1], figures):
            return True, found
    return False, found


def shown(found, figures):
    """@return a line for each kind"""
    lines = []
    for kind, figure in figures.items():
        numbers = [one[kind] for one in found]
        lines.append(
            f"{', '.join(results.shown(number) for number in numbers)} {kind} a call, {results.shown(figure)} "
            f"recorded: x{min(numbers) / figure:.3f}, x{ALLOWED[kind]} allowed"
        )
    return "\n".join(lines)
