"""The gate: does a call take more instructions than it did when the figure was recorded?

Counted, not timed: a busy machine changes nothing. What compiles and what is linked does, so each figure is recorded for
a processor family, a compiler and the libraries that most instructions are spent in.
"""
import json
import os
import subprocess

from harness import daemon

from . import TREE, counts, results, stage

FILE = TREE / "bench" / "instructions.json"
ALLOWED = 1.05
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


def recorded(file=FILE):
    """@return {machine: instructions a call}"""
    return json.loads(file.read_text(encoding="utf-8")) if file.exists() else {}


def record(where, instructions, file=FILE):
    file.write_text(json.dumps({**recorded(file), where: instructions}, indent=1, sort_keys=True) + "\n", encoding="utf-8")


def count(on):
    """@return the instructions of one call of the daemon, one at a time"""
    on.settle()
    return counts.of(on, "daemon", 1, stage.SMALL)["instructions"]


def passes(instructions, figure):
    """Is the count within what is allowed?"""
    return instructions <= figure * ALLOWED


def tried(counting, figure):
    """Counts until it passes, TRIES times at most. @return (did it pass, all counts)"""
    found = []
    while len(found) < TRIES:
        found.append(counting())
        if passes(found[-1], figure):
            return True, found
    return False, found


def shown(found, figure):
    return (
        f"{', '.join(results.shown(number) for number in found)} instructions a call, {results.shown(figure)} "
        f"recorded: x{min(found) / figure:.3f}, x{ALLOWED} allowed"
    )
