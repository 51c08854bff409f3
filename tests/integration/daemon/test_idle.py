"""An idle daemon: no wake-ups, little memory, no further descriptors."""
import time

import pytest
from harness import daemon
from harness.methods import answers

SECONDS = 5


# The runtime of a sanitizer uses more memory and has a thread that wakes up.
if not daemon.is_sanitized():

    @pytest.mark.parametrize("used", [False, True])
    def test_an_idle_daemon_does_not_wake_up(service, caller, store, used):
        if used:
            answers(caller)
        # After this pause the work of the calls is over; their connections stay open.
        time.sleep(1)
        before = service.switches()

        time.sleep(SECONDS)

        switches = service.switches_since(before)
        print(f"{switches} context switches in {SECONDS} s")
        assert switches == 0
        if not used:
            assert store.requests == [], "it asks the store for something of its own accord"

    def test_an_idle_daemon_is_small(service, caller, store):
        answers(caller)
        resident = service.status_field("VmRSS") / 1024
        print(f"{resident:.1f} MiB resident after five calls")
        assert resident < 25


def test_descriptors_do_not_grow_with_calls(service, caller, store):
    def descriptors():
        try:
            return service.descriptors()
        except PermissionError:
            pytest.skip("only root may count the descriptors of a process that hides itself")

    answers(caller)
    before = descriptors()
    for _ in range(20):
        answers(caller)
    # One more was open once. A leak in each call would be a hundred.
    assert descriptors() <= before + 1
