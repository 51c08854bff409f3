"""Runs test programs within limits."""

import os
import pathlib
import re
import resource
import signal
import subprocess
import tempfile
import time

SECONDS = 150  # limit of one program; the slowest takes 45 s
IDLE_SECONDS = 12  # limit of a program that waits and computes nothing; the longest pause of a test is 3 s
PROCESSOR_SECONDS = 30
BYTES = 4 << 30  # limit of address space
PAUSE = 0.05
NO_END = "(no end)"


def limited():
    resource.setrlimit(resource.RLIMIT_AS, (BYTES, BYTES))
    resource.setrlimit(resource.RLIMIT_CORE, (0, 0))
    resource.setrlimit(resource.RLIMIT_CPU, (PROCESSOR_SECONDS, PROCESSOR_SECONDS))


def activity(pid):
    """@return what changes while a process works: processor time and switches of its threads; None while one of
    them waits for a processor
    """
    seen = []
    for task in pathlib.Path(f"/proc/{pid}/task").iterdir():
        try:
            state, *fields = (task / "stat").read_text().rpartition(")")[2].split()
            if state == "R":
                return None
            seen.append((task.name, fields[10], fields[11], (task / "status").read_text().rpartition("voluntary")[0][-40:]))
        except OSError:
            return None
    return sorted(seen)


def ended(process):
    """Waits for the end of a process.
    @return whether it ended by itself
    """
    began = changed = time.monotonic()
    before = None
    while time.monotonic() - began < SECONDS and time.monotonic() - changed < IDLE_SECONDS:
        try:
            process.wait(PAUSE)
            return True
        except subprocess.TimeoutExpired:
            pass
        try:
            now = activity(process.pid)
        except OSError:
            continue
        if now is None or now != before:
            before, changed = now, time.monotonic()
    return False


def run(path, tests=None, number=0, arguments=()):
    """Runs a test program, or only these of its tests, with one mutant.
    @return exit status and output; status None when the program had no end
    """
    command = [str(path), *arguments, "--gtest_color=no"]
    if number >= 0:
        command.append("--gtest_fail_fast")
    if tests is not None:
        command.append("--gtest_filter=" + ":".join(tests))
    with tempfile.TemporaryFile() as output:
        process = subprocess.Popen(
            command,
            stdout=output,
            stderr=subprocess.STDOUT,
            stdin=subprocess.DEVNULL,
            start_new_session=True,
            env={**os.environ, "BILLING_MUTANT": str(number)},
            preexec_fn=limited,
        )
        has_ended = ended(process)
        try:
            # A child process of a test may have stayed behind.
            os.killpg(process.pid, signal.SIGKILL)
        except ProcessLookupError:
            pass
        status = process.wait()
        output.seek(0)
        return status if has_ended else None, output.read().decode(errors="replace")


def killer(status, output, name):
    """@return the name of the failing test, or None"""
    if status == 0:
        return None
    ending = " " + NO_END if status is None or status == -signal.SIGXCPU else f" (signal {-status})" if status < 0 else ""
    failed = (
        re.findall(r"^\[  FAILED  \] ([^\s,]+)", output, re.MULTILINE)
        or re.findall(r"^\[ RUN      \] (\S+)", output, re.MULTILINE)[-1:]
    )
    return (failed[0] if failed else name) + ending
