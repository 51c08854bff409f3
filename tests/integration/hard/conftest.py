"""The daemon under loads and misfortunes that no ordinary day has, with the figures that come of it.

Each runs in a short form; BILLING_LONG=1 asks for the whole of it (scripts/test --long).
"""
import functools
import os
import resource

import pytest
from harness import daemon

# What a process of a TV with 32 bits has: 3 GiB of addresses, and 1,024 descriptors.
SMALL = ["prlimit", f"--as={3 << 30}", "--nofile=1024:1024", "--"]

LONG = os.environ.get("BILLING_LONG") == "1"


@pytest.fixture(scope="session", autouse=True)
def many_descriptors():
    """The server of a test may need thousands."""
    _, most = resource.getrlimit(resource.RLIMIT_NOFILE)
    resource.setrlimit(resource.RLIMIT_NOFILE, (most, most))


@pytest.fixture
def size():
    """A function that chooses a number: for the short form, or for the long one."""
    return lambda short, long: long if LONG else short


@pytest.fixture
def figure(request, capsys):
    """A function that shows a figure, also when the test passes, and keeps it in $BILLING_FIGURES."""

    def show(text):
        line = f"{request.node.name}: {text}"
        with capsys.disabled():
            print(f"\n  {line}", end="")
        if "BILLING_FIGURES" in os.environ:
            with open(os.environ["BILLING_FIGURES"], "a", encoding="utf-8") as file:
                file.write(line + "\n")

    return show


@pytest.fixture
def start_small_daemon(start_daemon):
    """start_daemon, with what a process of a TV has. A sanitizer takes more addresses."""
    return functools.partial(start_daemon, tool=None if daemon.is_sanitized() else SMALL)


@pytest.fixture
def small_service(needs_view, start_small_daemon, caller):
    """The daemon with what a process of a TV has. It lives to the end of the test, or ends in order."""
    process = start_small_daemon()
    process.wait_for_name(caller)
    yield process
    assert process.is_running() or process.wait(1) == 0
