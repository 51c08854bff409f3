"""A copy of the tree in which mutants are built and tested."""

import pathlib
import re
import resource
import shutil
import signal
import subprocess

from covering import target, targets

ROOT = pathlib.Path(__file__).resolve().parents[2]
SECONDS = 90  # limit of one test program; the slowest takes 15 s on a busy machine
BYTES = 4 << 30  # limit of address space


class Workshop:
    """Thread: use by one thread. A kept folder makes later runs faster: they build only what changed."""

    def __init__(self, folder):
        self.tree = folder / "tree"
        self.build = folder / "build"

    def prepare(self, programs):
        """Copies the files that git tracks, with their uncommitted changes, and builds the programs."""
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
            subprocess.run(
                ["meson", "setup", str(self.build), str(self.tree), "-Dtests=true", "-Dbuildtype=plain", "-Dcpp_args=-O0"],
                check=True,
                stdout=subprocess.DEVNULL,
            )
        built = self.make(programs)
        if built.returncode != 0:
            raise SystemExit(built.stdout)
        for program in programs:
            killer = self.run(program)
            if killer is not None:
                raise SystemExit(f"{program} fails without a mutant: {killer}")

    def make(self, programs):
        return subprocess.run(
            ["ninja", "-C", str(self.build), *(each for name in programs for each in targets(name))],
            stdout=subprocess.PIPE,
            stderr=subprocess.STDOUT,
            text=True,
        )

    def run(self, program):
        """Runs a program.
        @return the name of the failing test, or None
        """
        process = subprocess.Popen(
            [str(self.build / target(program)), "--gtest_fail_fast", "--gtest_brief=0", "--gtest_color=no"],
            stdout=subprocess.PIPE,
            stderr=subprocess.STDOUT,
            stdin=subprocess.DEVNULL,
            start_new_session=True,
            cwd=self.build,
            preexec_fn=limited,
        )
        try:
            output, _ = process.communicate(timeout=SECONDS)
            ending = "" if process.returncode >= 0 else " (signal %d)" % -process.returncode
        except subprocess.TimeoutExpired:
            process.send_signal(signal.SIGKILL)
            output, _ = process.communicate()
            ending = " (no end)"
        if process.returncode == 0:
            return None
        text = output.decode(errors="replace")
        failed = (
            re.findall(r"^\[  FAILED  \] (\S+)", text, re.MULTILINE)
            or re.findall(r"^\[ RUN      \] (\S+)", text, re.MULTILINE)[-1:]
        )
        return (failed[0] if failed else program) + ending

    def trial(self, mutant, programs):
        """Builds and tests one mutant.
        @return ('killed', test), ('survived', ''), or ('invalid', '') when it does not compile
        """
        source = self.tree / mutant.file
        text = source.read_text()
        source.write_text(mutant.applied(text))
        try:
            # Programs are built one at a time: the first kills most mutants, and the others need not be linked then.
            for program in programs:
                if self.make([program]).returncode != 0:
                    return "invalid", ""
                killer = self.run(program)
                if killer is not None:
                    return "killed", killer
            return "survived", ""
        finally:
            source.write_text(text)


def limited():
    resource.setrlimit(resource.RLIMIT_AS, (BYTES, BYTES))
    resource.setrlimit(resource.RLIMIT_CORE, (0, 0))
