#!/usr/bin/python3
"""Checks the connector's model with spin: as it is, nothing may go wrong; with any of its rules
turned off, something must, or the check itself would be worth nothing."""

import re
import shutil
import subprocess
import sys
import tempfile
from pathlib import Path

SKIPPED = 77  # what the test harness takes for "skipped"

# Rules turned off, and whether the model must then still hold.
RUNS = [
    ((), True),
    (("STOP",), True),
    (("COUNT_UNFINISHED",), False),
    (("OFFER_ONCE",), False),
    (("COUNT_UNFINISHED", "OFFER_ONCE"), False),
    (("SHUT_GATE",), False),
    (("NO_LIST_CHECK",), False),
    (("STOP", "DEAF_TO_STOP"), False),
]

# The two questions: is an assertion broken or does somebody wait for ever, and can the threads run
# for ever without answering anybody.
SEARCHES = {
    "safety": (["-DSAFETY"], ["-m200000"]),
    "progress": (["-DNP", "-DNFAIR=4"], ["-l", "-f", "-m400000"]),
}


def run(command, folder):
    done = subprocess.run(command, cwd=folder, capture_output=True, text=True, timeout=250)
    return done.stdout + done.stderr


def search(folder, name):
    """Returns the number of errors and of states that one search found."""
    flags, arguments = SEARCHES[name]
    output = run(["gcc", "-O1", "-w", *flags, "-o", name, "pan.c"], folder)
    output += run([f"./{name}", *arguments], folder)
    errors = re.search(r"errors: (\d+)", output)
    states = re.search(r"(\d+) states, stored", output)
    if not errors or not states or "max search depth too small" in output:
        sys.exit(f"{name}: the search did not end as it should:\n{output}")
    return int(errors.group(1)), int(states.group(1))


def main():
    for tool in ("spin", "gcc"):
        if not shutil.which(tool):
            print(f"skipped: {tool} is not installed, and the model was not checked")
            return SKIPPED
    model = Path(__file__).resolve().parent / "connector.pml"
    failed = False
    for rules, holds in RUNS:
        with tempfile.TemporaryDirectory() as folder:
            output = run(["spin", "-a", *(f"-D{rule}" for rule in rules), str(model)], folder)
            if not (Path(folder) / "pan.c").exists():
                sys.exit(f"spin does not understand the model:\n{output}")
            found = {name: search(folder, name) for name in SEARCHES}
        broken = [name for name, (errors, _) in found.items() if errors]
        right = not broken if holds else bool(broken)
        failed |= not right
        states = ", ".join(f"{name} {count}" for name, (_, count) in found.items())
        print(f"{'ok    ' if right else 'FAILED'} {' '.join(rules) or '(every rule)'}: "
              f"{'broken: ' + ' and '.join(broken) if broken else 'holds'} (states: {states})")
    return 1 if failed else 0


if __name__ == "__main__":
    sys.exit(main())
