"""billingctl doctor on a service that is dead, hung, stopped, slow, refused or in need of a restart, and on the state
that a service manager reports.
"""
import os
import shutil
import signal
import subprocess
import threading
import time

import pytest
from gi.repository import Gio
from harness.bus.manager import NAME, Manager
from harness.store import server
from harness.tools.doctor import outcomes

from billing_lab.device import bus as message_bus

RESTART = "systemctl restart billing-service"
# Seconds after the start within which the service may still read a file that the test writes.
A_MOMENT = 0.7


# --- services that do not run ---


def test_a_service_that_does_not_run_is_found_out(doctor):
    found, failed = doctor()
    assert failed == ["name"]
    assert found["name"]["finding"] == "the name org.plevo.billingservice has no owner"
    assert found["name"]["cure"] == ("start the service (systemctl start billing-service) and look at its log")
    assert found["call"]["finding"] == "there is no service to answer it"


def test_a_service_that_the_bus_cannot_start_is_found_out(doctor, caller, tmp_path):
    rules = tmp_path / "bus.conf"
    rules.write_text(rules.read_text().replace("<auth>", f"<servicedir>{tmp_path}</servicedir><auth>", 1))
    (tmp_path / "org.plevo.billingservice.service").write_text(
        "[D-BUS Service]\nName=org.plevo.billingservice\nExec=/bin/false\nUser=root\n"
    )
    caller.connection.call_sync(
        "org.freedesktop.DBus", "/", "org.freedesktop.DBus", "ReloadConfig", None, None, Gio.DBusCallFlags.NONE, 10000, None
    )
    found, failed = doctor()
    assert failed == ["ping"]
    assert found["name"]["finding"] == ("org.plevo.billingservice has no owner now; the bus starts it for a call")
    assert found["ping"]["id"] == "ping.not-started"
    assert "exited with status 1" in found["ping"]["finding"]


# --- services that do not answer ---


def test_a_service_that_is_stopped_is_no_hung_one(service, doctor):
    service.send(signal.SIGSTOP)
    found, failed = doctor(seconds="1")
    service.send(signal.SIGCONT)
    assert failed == ["ping"]
    assert found["ping"]["id"] == "ping.stopped"
    assert found["ping"]["cure"] == f"kill -CONT {service.pid}"
    assert found["call"]["outcome"] == "not checked"


class Silence:
    """A process that owns the service's name on the bus and never answers."""

    def __init__(self, address):
        self._process = subprocess.Popen(
            [
                "python3",
                "-c",
                "import sys, time\nfrom gi.repository import Gio, GLib\n"
                "bus = Gio.DBusConnection.new_for_address_sync(sys.argv[1], Gio.DBusConnectionFlags("
                "Gio.DBusConnectionFlags.AUTHENTICATION_CLIENT | "
                "Gio.DBusConnectionFlags.MESSAGE_BUS_CONNECTION), None, None)\n"
                "bus.add_filter(lambda bus, message, incoming: None if incoming and message.get_message_type() "
                "== Gio.DBusMessageType.METHOD_CALL else message)\n"
                "bus.call_sync('org.freedesktop.DBus', '/org/freedesktop/DBus', 'org.freedesktop.DBus', "
                "'RequestName', GLib.Variant('(su)', (sys.argv[2], 4)), None, 0, 10000, None)\n"
                "time.sleep(600)",
                address,
                message_bus.SERVICE,
            ]
        )

    def stop(self):
        self._process.kill()
        self._process.wait()


def test_a_service_that_hangs_is_named(doctor, bus, caller, request):
    silent = Silence(bus.address)
    request.addfinalizer(silent.stop)
    end = time.monotonic() + 20
    while caller.owner() is None and time.monotonic() < end:
        time.sleep(0.01)
    found, failed = doctor(seconds="1")
    assert "ping" in failed
    assert found["ping"]["id"] == "ping.hung"
    assert found["ping"]["cure"].startswith(RESTART)


def test_an_answer_that_takes_long_has_to_be_looked_at(service, doctor, store):
    gate = threading.Event()
    store.answer = server.Reply(b"{}", gate=gate)

    def answer_late():
        store.wait_for_requests(1)
        time.sleep(12.5)
        gate.set()

    late = threading.Thread(target=answer_late)
    late.start()
    found, failed = doctor(seconds="24")
    late.join()
    assert failed == []
    assert outcomes(found, "warning") == {"call"}
    assert found["call"]["id"] == "call.slow"


def activation(caller, folder, program):
    """Makes the bus start this program for the service's name."""
    rules = folder / "bus.conf"
    rules.write_text(rules.read_text().replace("<auth>", f"<servicedir>{folder}</servicedir><auth>", 1))
    (folder / "org.plevo.billingservice.service").write_text(
        f"[D-BUS Service]\nName=org.plevo.billingservice\nExec={program}\nUser=root\n"
    )
    caller.connection.call_sync(
        "org.freedesktop.DBus", "/", "org.freedesktop.DBus", "ReloadConfig", None, None, Gio.DBusCallFlags.NONE, 10000, None
    )


def test_a_start_is_waited_for(doctor, caller, tmp_path):
    program = tmp_path / "slow"
    program.write_text("#!/bin/sh\nsleep 3\nexit 7\n")
    program.chmod(0o755)
    activation(caller, tmp_path, program)
    found, failed = doctor(seconds="1")
    assert failed == ["ping"]
    assert "exited with status 7" in found["ping"]["finding"]


@pytest.fixture
def without_library(tmp_path):
    """A program whose shared library is missing."""
    library = tmp_path / "libbilling-lost.so"
    for source, options in (
        ("int lost(void) { return 0; }", ["-shared", "-o", library]),
        ("int lost(void); int main(void) { return lost(); }", ["-o", tmp_path / "program", f"-L{tmp_path}", "-lbilling-lost"]),
    ):
        subprocess.run(
            ["cc", "-x", "c", "-", *options[:2], *options[2:3], *(["-x", "none"] if len(options) > 3 else []), *options[3:]],
            input=source,
            text=True,
            check=True,
        )
    library.unlink()
    return tmp_path / "program"


def test_a_start_that_fails_for_a_library_names_it(doctor, caller, manager, tmp_path, without_library):
    manager(ActiveState="inactive", SubState="dead", ExecStart=without_library)
    activation(caller, tmp_path, without_library)
    found, failed = doctor()
    assert failed[-1] == "ping"
    assert found["ping"]["id"] == "ping.library"
    assert found["ping"]["cure"] == "install the package that has libbilling-lost.so, or run ldconfig"


# --- the state that a service manager reports ---


@pytest.fixture
def bus(tmp_path):
    running = message_bus.Bus(tmp_path, names=(message_bus.SERVICE, NAME))
    yield running
    running.stop()


@pytest.fixture
def manager(bus, request):
    """A function that puts a simulated service manager on the bus."""

    def make(**unit):
        running = Manager(bus.address, **unit)
        request.addfinalizer(running.stop)

    return make


def test_a_unit_that_runs_is_well(service, doctor, manager):
    manager()
    found, failed = doctor()
    assert failed == []
    assert found["unit"]["finding"] == "billing-service.service is active (running)"


@pytest.mark.parametrize(
    "unit, name, finding",
    [
        ({"LoadState": "not-found"}, "unit.not-installed", "billing-service.service is not-found"),
        ({"LoadState": "masked"}, "unit.masked", "billing-service.service is masked: it cannot be started"),
        (
            {
                "ActiveState": "failed",
                "SubState": "failed",
                "Result": "exit-code",
                "ExecMainCode": 1,
                "ExecMainStatus": 226,
                "NRestarts": 5,
            },
            "unit.failed",
            "billing-service.service is failed (failed), its last process ended with exit status 226, 5 restarts",
        ),
        (
            {"ActiveState": "activating", "SubState": "auto-restart", "ExecMainCode": 2, "ExecMainStatus": 9},
            "unit.restarting",
            "billing-service.service is activating (auto-restart), its last process ended with signal 9",
        ),
        (
            {"ActiveState": "failed", "SubState": "failed", "Result": "timeout"},
            "unit.failed",
            "billing-service.service is failed (failed), its last process ended with timeout",
        ),
    ],
)
def test_what_became_of_the_unit_is_named(doctor, manager, unit, name, finding):
    manager(**unit)
    found, failed = doctor()
    assert "unit" in failed
    assert (found["unit"]["id"], found["unit"]["finding"]) == (name, finding)


def test_a_library_that_is_missing_is_named(doctor, manager, without_library):
    manager(ActiveState="failed", SubState="failed", ExecMainCode=1, ExecMainStatus=127, ExecStart=without_library)
    found, _ = doctor()
    assert found["unit"]["id"] == "unit.library"
    assert found["unit"]["finding"].endswith(": the library libbilling-lost.so is missing")
    assert found["unit"]["cure"] == "install the package that has libbilling-lost.so, or run ldconfig"


def test_the_last_lines_of_the_journal_are_shown(doctor, manager, tmp_path):
    program = tmp_path / "bin" / "journalctl"
    program.parent.mkdir()
    program.write_text("#!/bin/sh\necho first line\necho 'x > Setup SSL options'\necho last line\n")
    program.chmod(0o755)
    manager(ActiveState="failed", SubState="failed", ExecMainCode=1, ExecMainStatus=1)
    found, _ = doctor(PATH=f"{program.parent}:/usr/bin:/bin")
    assert found["unit"]["finding"].endswith("; the journal: first line; the journal: last line")


def test_an_outage_that_only_the_journal_tells_is_named(service, doctor, store, tmp_path):
    program = tmp_path / "bin" / "journalctl"
    program.parent.mkdir()
    program.write_text(f"#!/bin/sh\nsed -n 's,^[WE]/[A-Z_]*: ,,p' {service.log_file}\n")
    program.chmod(0o755)
    store.answer = server.Reply(b'{"error": "later"}', status="503 Service Unavailable")
    found, failed = doctor(PATH=f"{program.parent}:/usr/bin:/bin")
    assert failed == ["call", "request"]
    assert (found["call"]["id"], found["call"]["finding"]) == (
        "call.outage",
        'the store answered the service with HTTP status 503: "{"error": "later"}"',
    )
    assert found["request"]["id"] == "request.outage"
    store.answer = server.Reply(b"{}")
    assert doctor(PATH=f"{program.parent}:/usr/bin:/bin")[1] == []


# --- faults that need a restart ---


def test_a_certificate_that_is_newer_than_the_service_asks_for_a_restart(service, doctor, a_device):
    found, failed = doctor()
    assert (failed, outcomes(found, "warning")) == ([], set())
    time.sleep(A_MOMENT)
    shutil.copy2(a_device.credentials.certificate, a_device.credentials.certificates / "old")
    os.replace(a_device.credentials.certificates / "old", a_device.credentials.certificate)
    found, failed = doctor()
    assert failed == []
    assert (found["restart"]["id"], found["restart"]["cure"]) == ("restart.certificate", RESTART)


def test_a_right_of_the_certificate_that_changes_asks_for_none(service, doctor, a_device):
    a_device.credentials.certificate.chmod(0o600)
    a_device.set("config", "db/comss/atoken", "another-token")
    found, failed = doctor()
    assert (failed, found["restart"]["outcome"]) == ([], "ok")


def test_settings_that_came_too_late_ask_for_a_restart(start_daemon, needs_view, caller, doctor, a_device):
    key = a_device.settings["deployment"]["key_id"]
    a_device.set("deployment", "key_id", None)
    start_daemon().wait_for_name(caller)
    time.sleep(A_MOMENT)
    a_device.set("deployment", "key_id", key)
    found, failed = doctor()
    assert "call" in failed
    assert (found["restart"]["id"], found["restart"]["cure"]) == ("restart.settings", RESTART)
    assert found["request"]["outcome"] == "ok"


def test_a_wrong_pin_is_the_cause_of_a_call_that_failed(start_daemon, needs_view, caller, doctor, a_device):
    (a_device.credentials.folder / "pin").write_text("wrong")
    process = start_daemon()
    process.wait_for_name(caller)
    found, failed = doctor()
    assert failed == ["call", "request"]
    assert found["request"]["id"] == "request.key.pin"
    # The daemon tried this PIN at its start, so the doctor does not try it again.
    assert "was refused before and is not tried again" in found["request"]["finding"]
    assert any("ErrorCode = 35" in text and "the device's key did not sign" in text for text in process.texts("E"))


# --- the environment that the doctor uses ---


def test_the_environment_of_the_unit_is_taken_when_no_process_runs(doctor, manager, a_device):
    manager(ActiveState="inactive", SubState="dead", Environment=[f"PLEVO_DEVICE_CONF={a_device.file}"])
    found, failed = doctor(PLEVO_DEVICE_CONF="/nowhere")
    assert found["identity"]["finding"].endswith("with user, groups and environment of the unit")
    assert found["settings"]["finding"] == f"{a_device.file} is well-formed"
    assert failed == ["token", "name"]  # SOFTHSM2_CONF is not in the unit


def test_a_unit_whose_user_is_missing_is_named(doctor, manager):
    manager(ActiveState="failed", SubState="failed", ExecMainCode=1, ExecMainStatus=217, User="nobody-there")
    found, _ = doctor()
    assert found["identity"]["id"] == "identity.no-user"
    assert found["identity"]["finding"] == "there is no user nobody-there, which the unit names"
