#!/usr/bin/python3
"""Checks the models with spin. The whole models must hold. With a rule turned off a model must fail, which proves that
the check can find a fault.
"""

import re
import shutil
import subprocess
import sys
import tempfile
from pathlib import Path

SKIPPED = 77  # Meson's exit status for a skipped test

# Models, rules turned off, and whether the model must still hold.
RUNS = [
    ("connector", (), True),
    ("connector", ("STOP",), True),
    ("connector", ("COUNT_UNFINISHED",), False),
    ("connector", ("OFFER_ONCE",), False),
    ("connector", ("COUNT_UNFINISHED", "OFFER_ONCE"), False),
    ("connector", ("SHUT_GATE",), False),
    ("connector", ("NO_LIST_CHECK",), False),
    ("connector", ("LATE_BOUND",), False),
    ("connector", ("SILENT_END",), False),
    ("connector", ("STOP", "DEAF_TO_STOP"), False),
    ("slots", (), True),
    ("slots", ("NO_TURNS",), False),
    ("slots", ("NO_SHARES",), False),
    ("slots", ("NO_JOIN_SHARES",), False),
    ("slots", ("NO_BOUND",), False),
    ("slots", ("NO_END",), False),
    ("slots", ("LOSE_LANE",), False),
]

# Finds a broken assertion or a deadlock.
SAFETY = ("safety", ["-DSAFETY"])
# Finds an endless execution in which no request is answered.
PROGRESS = ("progress", ["-DNP", "-DNFAIR=4"])
SEARCHES = {
    "connector": [(SAFETY, ["-m200000"]), (PROGRESS, ["-l", "-f", "-m400000"])],
    # No search for progress: the model's environment may do nothing for ever, and a wait that is too long breaks an
    # assertion.
    "slots": [(SAFETY, ["-m1000000"])],
}


def run(command, folder):
    done = subprocess.run(command, cwd=folder, capture_output=True, text=True, timeout=250)
    return done.stdout + done.stderr


def search(folder, name, flags, arguments):
    """Runs one search.
    @return number of errors and number of states
    """
    output = run(["gcc", "-w", *flags, "-o", name, "pan.c"], folder)
    output += run([f"./{name}", *arguments], folder)
    errors = re.search(r"errors: (\d+)", output)
    states = re.search(r"(\d+) states, stored", output)
    if not errors or not states or "max search depth too small" in output:
        sys.exit(f"{name}: the search did not end as it should:\n{output}")
    return int(errors.group(1)), int(states.group(1))


def check(model, rules, optimize):
    """Runs the searches until one finds an error.
    @return name of that search or None, and the numbers of states as text
    """
    source = Path(__file__).resolve().parent / f"{model}.pml"
    counts = []
    with tempfile.TemporaryDirectory() as folder:
        output = run(["spin", "-a", *(f"-D{rule}" for rule in rules), str(source)], folder)
        if not (Path(folder) / "pan.c").exists():
            sys.exit(f"spin does not understand {source.name}:\n{output}")
        for (name, flags), arguments in SEARCHES[model]:
            errors, states = search(folder, name, [*flags, optimize], arguments)
            counts.append(f"{name} {states}")
            if errors:
                return name, ", ".join(counts)
    return None, ", ".join(counts)


def main():
    for tool in ("spin", "gcc"):
        if not shutil.which(tool):
            print(f"skipped: {tool} is not installed, and the models were not checked")
            return SKIPPED
    failed = False
    for model, rules, holds in RUNS:
        # Errors are found quickly, so compiling with optimisation would take longer than the search.
        broken, states = check(model, rules, "-O1" if holds else "-O0")
        right = (broken is None) == holds
        failed |= not right
        print(
            f"{'ok    ' if right else 'FAILED'} {model} {' '.join(rules) or '(every rule)'}: "
            f"{f'broken: {broken}' if broken else 'holds'} (states: {states})"
        )
    return 1 if failed else 0


if __name__ == "__main__":
    sys.exit(main())
