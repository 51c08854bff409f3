#!/usr/bin/python3
"""Sends signals to main_loop_target at random moments and counts the ends that are not clean.

usage: main_loop_torture.py TARGET [--rounds N] [--seed N]

A clean end after SIGTERM: exit status 0 within ten seconds, the handler ran, nothing was dispatched after the loop
was quit. SIGTERM is blocked when the target starts, so that it is not delivered before the first line of main. SIGINT
must end the target by its default action.
"""
import argparse
import collections
import random
import re
import signal
import subprocess
import sys
import time

LIMIT = 10.0
END = re.compile(r"handled (\d+) dispatched \d+ \+ \d+ late (\d+)\n")


def start(target, mode):
    return subprocess.Popen(
        [target, mode],
        stdout=subprocess.PIPE,
        stderr=subprocess.DEVNULL,
        text=True,
        preexec_fn=lambda: signal.pthread_sigmask(signal.SIG_BLOCK, {signal.SIGTERM}),
    )


def pause(seconds):
    """Sleeps for a random time below that number of seconds."""
    time.sleep(random.random() * seconds)


def send_while_starting(process):
    pause(0.012)
    process.send_signal(signal.SIGTERM)


def send_when_ready(process):
    if process.stdout.readline() != "ready\n":
        return
    pause(0.005)
    process.send_signal(signal.SIGTERM)


def send_twice(process):
    send_when_ready(process)
    pause(0.002)
    process.send_signal(signal.SIGTERM)


def interrupt(process):
    process.stdout.readline()
    pause(0.005)
    process.send_signal(signal.SIGINT)


# name, mode of the target, function that sends the signals, correct numbers of handler runs, share of the rounds
KINDS = [
    ("start-up", "idle", send_while_starting, {1}, 0.30),
    ("start-up, busy", "busy", send_while_starting, {1}, 0.20),
    ("idle", "idle", send_when_ready, {1}, 0.10),
    ("busy", "busy", send_when_ready, {1}, 0.15),
    ("second while the first is handled", "again", send_when_ready, {2}, 0.05),
    # The kernel merges two pending signals of one kind into one.
    ("twice, idle", "idle", send_twice, {1, 2}, 0.05),
    ("twice, busy", "busy", send_twice, {1, 2}, 0.10),
    ("SIGINT", "idle", interrupt, set(), 0.05),
]


def fault(process, handler_runs):
    """Description of an unclean end of the target; None for a clean end."""
    try:
        out, _ = process.communicate(timeout=LIMIT)
    except subprocess.TimeoutExpired:
        process.kill()
        process.communicate()
        return "hung"
    if not handler_runs:
        return None if process.returncode == -signal.SIGINT else f"ended with {process.returncode}"
    if process.returncode != 0:
        return f"ended with {process.returncode}"
    end = END.search(out)
    if end is None:
        return "said nothing at its end"
    handled, late = int(end[1]), int(end[2])
    if handled not in handler_runs:
        return f"handler ran {handled} times"
    return f"{late} dispatched after the end" if late else None


def main():
    parser = argparse.ArgumentParser()
    parser.add_argument("target")
    parser.add_argument("--rounds", type=int, default=400)
    parser.add_argument("--seed", type=int, default=random.randrange(1 << 30))
    options = parser.parse_args()
    random.seed(options.seed)
    print(f"seed {options.seed}")
    bad = 0
    for name, mode, send, handler_runs, share in KINDS:
        faults = collections.Counter()
        count = max(1, round(options.rounds * share))
        for _ in range(count):
            process = start(options.target, mode)
            send(process)
            found = fault(process, handler_runs)
            if found:
                faults[found] += 1
        clean = count - sum(faults.values())
        print(f"{name}: {clean} of {count} clean {dict(faults) or ''}".rstrip(), flush=True)
        bad += count - clean
    return 1 if bad else 0


if __name__ == "__main__":
    sys.exit(main())
