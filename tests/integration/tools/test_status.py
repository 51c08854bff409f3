"""billingctl status on the real daemon, with a journal of the test instead of the machine's."""
import json
import subprocess
import time

import pytest
from harness import daemon
from harness.tools import billingctl
from harness.tools.billingctl import DONE, UNREACHABLE
from harness.tools.doctor import VERSION

JOURNAL = """#!/bin/sh
case "$*" in
    *BILLING_RESULT=0*) echo a; echo b; echo c ;;
    *BILLING_RESULT=-1*) echo a ;;
    *BILLING_RESULT=1160003*) ;;
    *--lines=1*) echo something ;;
    *--priority=warning*) printf '%s\\n' 'day one ErrorCode = 6' 'day two transfer 3: https://s, curl 0, HTTP 503' 'other' ;;
esac
"""


@pytest.fixture
def status(needs_view, bus, a_device):
    """A function that runs billingctl status in the daemon's environment.
    @return exit code, and lines by name
    """

    def asked(**variables):
        view = daemon.bubblewrap(a_device.certificates, a_device.credentials.certificates)
        done = subprocess.run(
            [*view, billingctl.program(), "--json", "status"],
            capture_output=True,
            text=True,
            check=False,
            timeout=60,
            env={**billingctl.environment(bus), "PLEVO_DEVICE_CONF": str(a_device.file), **variables},
        )
        assert done.stderr == ""
        return done.returncode, json.loads(done.stdout)

    return asked


@pytest.fixture
def journal(tmp_path):
    """The variable that selects the test's journal."""
    program = tmp_path / "bin" / "journalctl"
    program.parent.mkdir()
    program.write_text(JOURNAL)
    program.chmod(0o755)
    return {"PATH": f"{program.parent}:/usr/bin:/bin"}


def test_a_service_that_runs_is_described(service, status, journal, a_device):
    code, lines = status(**journal)
    host = a_device.settings["deployment"]["production_host"]
    assert code == DONE
    assert lines["billingctl"] == VERSION
    assert f"process {service.pid}" in lines["service"]
    began = time.mktime(time.strptime(lines["since"][:19], "%Y-%m-%d %H:%M:%S")) - time.timezone
    assert abs(time.time() - began) < 30
    assert lines["since"].endswith(" (0 h 0 min)")
    assert lines["server"] == f"production, {host}"
    assert lines["account"] == "signed in"
    assert lines["settings"] == str(a_device.file)
    assert lines["certificate"].startswith('"Billing lab device", ')
    assert lines["calls"] == "3 answered (0), 1 failed (-1), 0 refused (1160003)"
    assert lines["last failure"] == "day two transfer 3: https://s, curl 0, HTTP 503"


def test_what_the_settings_say_is_followed(service, status, a_device):
    a_device.set("account", "guid", None)
    a_device.set("system", "vantor_server_type", "2")
    _, lines = status()
    assert lines["account"] == "no user is signed in"
    assert lines["server"].startswith("sandbox, sandbox.localhost:")


def test_without_a_journal_nothing_is_made_up(service, status, journal, tmp_path):
    (tmp_path / "bin" / "journalctl").write_text("#!/bin/sh\nexit 1\n")
    _, lines = status(**journal)
    assert lines["calls"].startswith("not known")
    assert lines["last failure"] == "not known"


def test_a_service_that_does_not_run_is_no_success(status):
    code, lines = status()
    assert (code, lines["service"]) == (UNREACHABLE, "does not run")
    assert "calls" not in lines


@pytest.mark.parametrize("address", ["unix:path=/nowhere", "nonsense"])
def test_without_a_bus_it_is_not_known_whether_the_service_runs(bus, address):
    called = billingctl.run(bus, "--bus", address, "check-server-availability")
    why = called.stderr.removeprefix("check_server_availability: ").strip()
    assert why.startswith("the system bus cannot be reached: ")
    done = billingctl.run(bus, "--json", "--bus", address, "status")
    assert (done.returncode, done.stderr) == (UNREACHABLE, "")
    assert json.loads(done.stdout)["service"] == f"not known: {why}"


def test_settings_that_are_not_there_are_not_called_closed(bus, tmp_path):
    absent = tmp_path / "absent.conf"
    lines = json.loads(billingctl.run(bus, "--json", "status", PLEVO_DEVICE_CONF=str(absent)).stdout)
    assert lines["settings"] == str(absent)
    assert lines["server"] == f"not known: {absent}: No such file or directory"


def test_root_sees_the_connections_that_are_kept(needs_view, start_daemon, caller, bus, a_device):
    process = start_daemon()
    process.wait_for_name(caller)

    def kept():
        done = billingctl.run(bus, "--json", "status")
        return json.loads(done.stdout)["connections"]

    assert kept() == "0"
    assert caller.call("check_server_availability") == (0, "{}")
    assert kept() == "1"
