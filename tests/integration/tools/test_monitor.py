"""billingctl monitor on the real daemon: the calls that it shows and the values that it hides."""
import datetime
import fcntl
import json
import os
import pathlib
import re
import subprocess
import threading
import time

import pytest
from gi.repository import Gio, GLib
from harness.store import server
from harness.tools import billingctl
from harness.tools.billingctl import FAILED, UNREACHABLE

CLOCK = r"\d\d:\d\d:\d\d\.\d{6}"
TIME = r" \(\d+\.\d ms\)"


@pytest.fixture
def watch(bus, request):
    """A function that starts a monitor and returns when it watches."""

    def start(*arguments, stdout=subprocess.PIPE):
        process = subprocess.Popen(
            [billingctl.program(), "monitor", *arguments],
            stdout=stdout,
            stderr=subprocess.PIPE,
            text=True,
            env=billingctl.environment(bus),
        )
        request.addfinalizer(process.communicate)
        request.addfinalizer(process.kill)
        assert process.stderr.readline() == "Watching org.plevo.billingservice; Ctrl-C ends it.\n"
        return process

    return start


def lines_of(process, count):
    """Reads the next lines. After 30 s without one it kills the process, and the test fails."""
    limit = threading.Timer(30, process.kill)
    limit.start()
    lines = [process.stdout.readline().rstrip("\n") for _ in range(count)]
    limit.cancel()
    assert "" not in lines, lines
    return lines


def events_of(process, count):
    return [json.loads(line) for line in lines_of(process, count)]


def test_calls_are_watched_without_their_private_values(service, caller, store, watch):
    watching = watch()
    store.answer.body = b'{"secret": 1}'
    caller.call("get_product_list", "app-1", "0", "check-1")
    name = re.escape(caller.connection.get_unique_name())
    asked, answered = lines_of(watching, 2)
    assert re.fullmatch(rf"{CLOCK} {name} #\d+ -> get_product_list\(\.\.\.\)", asked)
    assert re.fullmatch(rf"{CLOCK} {name} #\d+ <- get_product_list resp_result 0, 13 bytes{TIME}", answered)


def test_json_holds_no_private_values_either(service, caller, store, watch):
    watching = watch("--json")
    caller.call("get_product_list", "app-1", "0", "check-1")
    asked, answered = events_of(watching, 2)
    assert set(asked) == {"event", "time", "caller", "serial", "method"}
    assert set(answered) == {*asked, "milliseconds", "resp_result", "bytes"}


def test_calls_are_watched_whole_when_asked_for(service, caller, store, watch):
    watching = watch("--json", "--show-private")
    store.answer.body = b'{"secret": 1}'
    caller.call("get_product_list", "app-1", "0", "it's")
    asked, answered = events_of(watching, 2)
    for event in (asked, answered):
        assert event["caller"] == caller.connection.get_unique_name()
        seen = datetime.datetime.fromisoformat(event["time"])
        assert abs(datetime.datetime.now(datetime.timezone.utc) - seen).total_seconds() < 300
    assert asked["serial"] == answered["serial"]
    assert (asked["event"], asked["method"]) == ("call", "get_product_list")
    assert asked["arguments"] == ["app-1", "0", "it's"]
    assert (answered["event"], answered["method"]) == ("answer", "get_product_list")
    assert (answered["resp_result"], answered["resp_info"]) == (0, '{"secret": 1}')
    assert answered["bytes"] == 13
    assert answered["milliseconds"] > 0


def test_what_is_shown_cannot_steer_the_terminal(service, caller, store, watch):
    watching = watch("--show-private")
    store.answer.body = b"\x1b[2J\n{}"
    caller.call("get_applied_time", "\x1b[31m", "custom-1", "invoice-1", "0")
    asked, answered = lines_of(watching, 2)
    assert "\x1b" not in asked + answered
    assert asked.endswith(" -> get_applied_time('\\u001b[31m', 'custom-1', 'invoice-1', '0')")
    assert "\\x1b[2J\\x0a{}" in answered


def test_answers_are_told_apart_by_their_calls(service, callers, store, watch):
    watching = watch("--json")
    store.answer = lambda request: server.Reply(b"long" if b"appid=slow" in request.raw else b"s")
    first, second = callers(), callers()
    slow = first.start("get_product_list", "slow", "0", "")
    fast = second.start("get_product_list", "fast", "0", "")
    first.finish([slow, fast])
    answers = {event["caller"]: event["bytes"] for event in events_of(watching, 4) if event["event"] == "answer"}
    assert answers == {first.connection.get_unique_name(): 4, second.connection.get_unique_name(): 1}


def test_a_call_that_nobody_takes_is_shown_with_the_answer_of_the_bus(caller, watch):
    watching = watch("--json")
    with pytest.raises(GLib.Error):
        caller.call("check_server_availability")
    asked, answered = events_of(watching, 2)
    assert asked["event"] == "call"
    assert answered["error"] == "org.freedesktop.DBus.Error.ServiceUnknown"
    assert answered["serial"] == asked["serial"]


def test_a_call_that_dies_with_the_service_is_shown(service, caller, store, watch):
    watching = watch()
    store.answer = server.Hang()
    call = caller.start("check_server_availability")
    store.wait_for_requests(1)
    service.kill()
    caller.finish([call])
    _, answered = lines_of(watching, 2)
    assert re.search(rf" <- check_server_availability error org\.freedesktop\.DBus\.Error\.NoReply{TIME}$", answered)


def test_a_caller_that_leaves_without_its_answer_is_shown(service, callers, store, watch):
    people, programs = watch(), watch("--json")
    store.answer = server.Hang()
    leaving = callers()
    leaving.start("check_server_availability")
    store.wait_for_requests(1)
    leaving.close()
    asked, left = events_of(programs, 2)
    assert (left["event"], left["serial"]) == ("left", asked["serial"])
    assert left["milliseconds"] > 0
    assert re.search(rf" -- check_server_availability: the caller left{TIME}$", lines_of(people, 2)[1])


def test_calls_of_others_are_not_shown(service, caller, watch):
    watching = watch("--json")
    caller.introspect()
    caller.call("check_server_availability")
    assert [event["method"] for event in events_of(watching, 2)] == ["check_server_availability"] * 2


def test_the_end_of_the_bus_ends_the_watching(bus, watch):
    watching = watch()
    bus.kill()
    assert watching.wait(20) == UNREACHABLE
    assert watching.stderr.read() == "monitor: the bus has closed the connection; start it again\n"


def test_lost_output_ends_the_watching(service, caller, watch):
    with open("/dev/full", "w", encoding="utf-8") as full:
        watching = watch(stdout=full)
    caller.call("check_server_availability")
    assert watching.wait(20) == FAILED
    assert watching.stderr.read().startswith("billingctl: the output cannot be written: ")


def is_writing_to(pid, descriptor):
    """@return whether a process's first thread waits in a system call on this descriptor"""
    fields = pathlib.Path(f"/proc/{pid}/task/{pid}/syscall").read_text(encoding="ascii").split()
    return len(fields) > 2 and int(fields[1], 16) == descriptor


def test_output_that_is_lost_before_the_first_wait_ends_the_watching(service, caller, bus, request):
    """The monitor's connection has a thread of its own. A full pipe for its first line holds the main thread up."""
    reading, full = os.pipe()
    request.addfinalizer(lambda: os.close(reading))
    filled = os.write(full, bytes(fcntl.fcntl(full, fcntl.F_GETPIPE_SZ)))
    with open("/dev/full", "wb") as output:
        command = [billingctl.program(), "monitor"]
        watching = subprocess.Popen(command, stdout=output, stderr=full, env=billingctl.environment(bus))
    os.close(full)
    request.addfinalizer(watching.wait)
    request.addfinalizer(watching.kill)
    service.wait_until(lambda: is_writing_to(watching.pid, 2), "the monitor waits to write its first line")
    caller.call("check_server_availability")
    time.sleep(0.5)
    os.read(reading, filled)
    assert watching.wait(20) == FAILED
    first, second = os.read(reading, filled).decode().splitlines()
    assert first == "Watching org.plevo.billingservice; Ctrl-C ends it."
    assert second.startswith("billingctl: the output cannot be written: ")


def test_a_bus_that_does_not_let_itself_be_watched_is_named(bus, caller, tmp_path):
    rules = tmp_path / "bus.conf"
    allowed = '<allow send_destination="org.freedesktop.DBus"/>'
    denied = '<deny send_destination="org.freedesktop.DBus" send_interface="org.freedesktop.DBus.Monitoring"/>'
    rules.write_text(rules.read_text().replace(allowed, allowed + denied))
    caller.connection.call_sync(
        "org.freedesktop.DBus", "/", "org.freedesktop.DBus", "ReloadConfig", None, None, Gio.DBusCallFlags.NONE, 10000, None
    )

    done = billingctl.run(bus, "monitor", "--json")

    assert done.returncode == UNREACHABLE
    error = json.loads(done.stdout)["error"]
    assert error["cause"].startswith("the bus does not let this user watch: ")
    assert error["cure"] == "run this as root"
