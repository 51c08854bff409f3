"""A copy of the tree in which mutants are built and tested."""

import concurrent.futures
import os
import pathlib
import shutil
import subprocess
import threading

import programs
import schemata
from covering import ARGUMENTS, EARLY, SHARED, target, targets

ROOT = pathlib.Path(__file__).resolve().parents[2]
# Tests that have killed most mutants of a function run before its other tests.
FIRST = 4
# Number of tries: a busy machine may fail a test that measures time.
TRIES = 2


def text_of(output, limit=4000):
    return output[-limit:]


class Workshop:
    """Thread: use by one thread. A kept folder makes later runs faster: they build only what changed."""

    def __init__(self, folder, jobs):
        self.tree = folder / "tree"
        self.build = folder / "build"
        self.jobs = jobs

    def prepare(self):
        """Copies the files that git tracks, with their uncommitted changes."""
        listed = subprocess.run(
            ["git", "ls-files", "-z", "--cached", "--others", "--exclude-standard"],
            cwd=ROOT,
            check=True,
            stdout=subprocess.PIPE,
        ).stdout
        kept = set()
        for name in listed.decode().split("\0"):
            source, copy = ROOT / name, self.tree / name
            if not name or not source.is_file():
                continue
            kept.add(copy)
            if not copy.is_file() or copy.read_bytes() != source.read_bytes():
                copy.parent.mkdir(parents=True, exist_ok=True)
                shutil.copy(source, copy)
        for copy in self.tree.rglob("*"):
            if copy.is_file() and copy not in kept:
                copy.unlink()
        if not (self.build / "build.ninja").exists():
            linker = ["-Dcpp_link_args=-fuse-ld=lld"] if shutil.which("ld.lld") else []
            subprocess.run(
                ["meson", "setup", str(self.build), str(self.tree), "-Dtests=true", "-Dbuildtype=plain"]
                + ["-Dcpp_args=-O0 -g0 -w", *linker],
                check=True,
                stdout=subprocess.DEVNULL,
            )

    def make(self, names):
        return subprocess.run(
            ["ninja", "-C", str(self.build), *(each for name in names for each in targets(name))],
            stdout=subprocess.PIPE,
            stderr=subprocess.STDOUT,
            text=True,
            env={**os.environ, "CCACHE_DISABLE": "1"},
        )

    def run(self, name, tests=None, number=0):
        return programs.run(self.build / target(name), tests, number, ARGUMENTS.get(name, ()))

    def traced(self, name):
        """Runs a program without a mutant; it passes, or the run ends.
        @return its output with the functions that it reaches
        """
        for _ in range(TRIES):
            status, output = self.run(name, None, schemata.TRACE)
            if status == 0:
                return output
        raise SystemExit(f"{name} fails without a mutant: {text_of(output)}")

    def check(self, names):
        """@return traced output of each program"""
        with concurrent.futures.ThreadPoolExecutor(self.jobs) as pool:
            return dict(zip(names, pool.map(self.traced, names)))

    def trials(self, file, mutants, names):
        """Builds and tests the mutants of one file with these programs.
        @return yields (mutant, 'killed', test), (mutant, 'survived', '') or (mutant, 'invalid', '')
        """
        source = self.tree / file
        text = source.read_text()
        found = [] if file in EARLY else schemata.bodies(text)
        numbered = {number: mutant for number, mutant in enumerate(mutants, 1) if schemata.body_of(mutant, found) is not None}
        try:
            yield from self.together(source, text, numbered, names)
            for mutant in [mutant for mutant in mutants if mutant not in numbered.values()]:
                yield mutant, *self.alone(source, text, mutant, names)
        finally:
            source.write_text(text)

    def alone(self, source, text, mutant, names):
        """One mutant that lies outside of a function's body."""
        source.write_text(mutant.applied(text))
        # Programs are built one at a time: the first kills most mutants, and the others need not be linked then.
        for name in names:
            if self.make([name]).returncode != 0:
                return "invalid", ""
            killer = programs.killer(*self.run(name), name)
            if killer is not None:
                return "killed", killer
        return "survived", ""

    def together(self, source, text, numbered, names):
        valid = dict(numbered)
        file = str(source.relative_to(self.tree))
        while valid:
            source.write_text(schemata.combined(file, text, valid))
            built = self.make(names)
            if built.returncode == 0:
                break
            refused = schemata.refused(built.stdout) & set(valid)
            if not refused:
                raise SystemExit(f"{file} does not compile with its mutants: {text_of(built.stdout)}")
            for number in refused:
                yield valid.pop(number), "invalid", ""
        if not valid:
            return
        plan = Plan(schemata.bodies(text), self.check(names))
        with concurrent.futures.ThreadPoolExecutor(self.jobs) as pool:
            waiting = {pool.submit(self.trial, number, mutant, plan): mutant for number, mutant in valid.items()}
            for done in concurrent.futures.as_completed(waiting):
                killer = done.result()
                yield waiting[done], *(("killed", killer) if killer is not None else ("survived", ""))

    def trial(self, number, mutant, plan):
        """@return the test that kills the mutant, or None"""
        for name, tests in plan.runs(mutant):
            for _ in range(TRIES):
                killer = programs.killer(*self.run(name, tests, number), name)
                if killer is None:
                    break
                if self.fails_again(name, killer, number):
                    plan.killed(mutant, name, killer)
                    return killer
        return None

    def fails_again(self, name, killer, number):
        """@return whether a failing test fails a second time with the mutant, alone: one that fails by chance kills nothing"""
        test, _, ending = killer.partition(" ")
        alone = [test] if test != name else None
        return ending == programs.NO_END or programs.killer(*self.run(name, alone, number), name) is not None


class Plan:
    """Which tests run for a mutant, and in which order.
    Thread: use by any thread.
    """

    def __init__(self, found, traces):
        """@param traces  output of each program in a traced run"""
        self._found = found
        self._reached = {name: schemata.reached(trace) for name, trace in traces.items()}
        self._slow = {name: schemata.slow(trace) for name, trace in traces.items()}
        self._kills = {}
        self._lock = threading.Lock()

    def runs(self, mutant):
        """@return yields a program with its tests, None for all of them, the likeliest to kill first"""
        function = schemata.body_of(mutant, self._found)
        tests = {name: reached[function] for name, reached in self._reached.items() if function in reached}
        with self._lock:
            kills = self._kills.get(function, {})
            likely = sorted(kills, key=kills.get, reverse=True)[:FIRST]
        for name in tests:
            chosen = [test for of, test in likely if of == name]
            if chosen:
                yield name, chosen
        for slow in (False, True):
            for name, each in tests.items():
                rest = [test for test in each if (name, test) not in likely and (test in self._slow[name]) == slow]
                if None in rest:
                    # The function runs outside of the tests as well: any test may show the mutant.
                    yield name, None
                elif rest:
                    yield name, rest
        for name in tests:
            if name in SHARED:
                yield name, None

    def killed(self, mutant, name, killer):
        function = schemata.body_of(mutant, self._found)
        test = killer.split()[0]
        with self._lock:
            known = any(test in tests for tests in self._reached[name].values())
            if known:
                kills = self._kills.setdefault(function, {})
                kills[name, test] = kills.get((name, test), 0) + 1
