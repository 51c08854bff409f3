"""The daemon under extreme loads and faults; each test prints its figures.

Each test has a short form; BILLING_LONG=1 asks for the long one (scripts/test --long).
"""
import functools
import os
import resource

import pytest
from harness import daemon

# Limits of a process on a TV with 32 bits: 3 GiB of address space, and 1,024 descriptors.
SMALL = ["prlimit", f"--as={3 << 30}", "--nofile=1024:1024", "--"]

LONG = os.environ.get("BILLING_LONG") == "1"


@pytest.fixture(scope="session", autouse=True)
def many_descriptors():
    """Raises the limit of descriptors, because a test's server may need thousands."""
    _, most = resource.getrlimit(resource.RLIMIT_NOFILE)
    resource.setrlimit(resource.RLIMIT_NOFILE, (most, most))


@pytest.fixture
def size():
    """A function that returns its first argument in the short form, its second in the long one."""
    return lambda short, long: long if LONG else short


@pytest.fixture
def figure(request, capsys):
    """A function that prints a figure, also when the test passes, and appends it to $BILLING_FIGURES."""

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
    """start_daemon with the limits of a process on a TV. A sanitizer needs more address space, so it runs without them."""
    return functools.partial(start_daemon, tool=None if daemon.is_sanitized() else SMALL)


@pytest.fixture
def small_service(needs_view, start_small_daemon, caller):
    """A daemon with the limits of a process on a TV. It lives to the end of the test, or ends in the regular way."""
    process = start_small_daemon()
    process.wait_for_name(caller)
    yield process
    assert process.is_running() or process.wait(1) == 0
