"""billingctl monitor on the real daemon: what is watched, and what stays hidden."""
import json
import subprocess

import pytest
from harness import billingctl
from harness.billingctl import UNREACHABLE


@pytest.fixture
def watch(bus, request):
    """A function that starts a monitor, which then watches."""
    def start(*arguments):
        process = subprocess.Popen([billingctl.program(), "monitor", *arguments], stdout=subprocess.PIPE,
                                   stderr=subprocess.PIPE, text=True, env=billingctl.environment(bus))
        request.addfinalizer(process.communicate)
        request.addfinalizer(process.kill)
        assert process.stderr.readline().startswith("Watching ")
        return process
    return start


def test_calls_are_watched_without_their_private_values(service, caller, store, watch):
    watching = watch()
    store.answer.body = b'{"secret": 1}'
    caller.call("get_product_list", "app-1", "0", "check-1")
    asked, answered = (watching.stdout.readline().rstrip("\n") for _ in range(2))
    assert asked.endswith("-> get_product_list(...)")
    assert "<- get_product_list resp_result 0, 13 bytes (" in answered


def test_calls_are_watched_whole_when_asked_for(service, caller, store, watch):
    watching = watch("--json", "--show-private")
    store.answer.body = b'{"secret": 1}'
    caller.call("get_product_list", "app-1", "0", "check-1")
    asked, answered = (json.loads(watching.stdout.readline()) for _ in range(2))
    assert asked["arguments"] == "('app-1', '0', 'check-1')"
    assert answered["resp_info"] == '{"secret": 1}'
    assert asked["serial"] == answered["serial"]
    assert answered["milliseconds"] > 0


def test_the_end_of_the_bus_ends_the_watching(bus, watch):
    watching = watch()
    bus.kill()
    assert watching.wait(20) == UNREACHABLE
    assert "the bus has closed the connection; start it again" in watching.stderr.read()
