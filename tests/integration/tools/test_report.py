"""billingctl report: its content, the values that it hides, and when it is written."""
import json
import subprocess

import pytest
from harness import daemon
from harness.device.device import SECRETS
from harness.tools import billingctl
from harness.tools.billingctl import DONE, FAILED

SECTIONS = ["machine", "versions", "status", "doctor", "settings", "unit", "journal"]


@pytest.fixture
def report(needs_view, bus, a_device):
    """A function that makes a report in the daemon's environment."""

    def made(*arguments, **variables):
        view = daemon.bubblewrap(a_device.certificates, a_device.credentials.certificates)
        return subprocess.run(
            [*view, billingctl.program(), "report", *arguments],
            capture_output=True,
            text=True,
            check=False,
            timeout=60,
            stdin=subprocess.DEVNULL,
            env={
                **billingctl.environment(bus),
                "PLEVO_DEVICE_CONF": str(a_device.file),
                **a_device.credentials.environment,
                **variables,
            },
        )

    return made


def test_it_has_what_support_needs_and_no_secret(service, report, a_device):
    done = report()
    assert (done.returncode, done.stderr) == (DONE, "")
    parts = dict(part.split("\n", 1) for part in done.stdout.split("== ")[1:])
    assert [title.split(" ")[0] for title in parts] == SECTIONS
    assert json.loads(parts["doctor"])["failed"] == 0
    assert f"process {service.pid}" in json.loads(parts["status"])["service"]
    settings = parts[f"settings {a_device.file}, private values hidden"]
    assert f"production_host={a_device.settings['deployment']['production_host']}\n" in settings
    assert "atoken=<hidden: 10 bytes>\n" in settings
    assert "default_gateway=up\n" in settings
    pin = (a_device.credentials.folder / "pin").read_text().strip()
    secrets = [*SECRETS, pin, a_device.settings["deployment"]["credential"]]
    assert [secret for secret in secrets if secret in done.stdout] == []


def test_it_is_text_in_any_form(report):
    assert report("--json").stdout.startswith("== machine\n")


def test_what_is_not_there_is_not_called_closed(report, a_device, tmp_path):
    a_device.file.unlink()
    for program in ("systemctl", "journalctl"):
        (tmp_path / program).write_text("#!/bin/sh\nexit 1\n")
        (tmp_path / program).chmod(0o755)
    done = report(PATH=f"{tmp_path}:/usr/bin:/bin")
    parts = dict(part.split("\n", 1) for part in done.stdout.split("== ")[1:])
    assert parts[f"settings {a_device.file}, private values hidden"] == f"{a_device.file}: No such file or directory\n"
    assert parts["unit"] == "systemctl shows no unit of the service\n"
    assert parts["journal"].startswith("the journal has no record of the service")


def test_it_is_written_only_when_that_was_agreed_to(service, report, tmp_path):
    file = tmp_path / "report"
    done = report(str(file))
    assert (done.returncode, file.exists()) == (FAILED, False)
    assert done.stderr == "billingctl: nothing was written; --yes agrees beforehand\n"
    assert done.stdout.startswith("== machine\n")

    done = report(str(file), "--yes")
    assert (done.returncode, done.stderr) == (DONE, "")
    assert file.read_text() == done.stdout
    assert file.stat().st_mode & 0o777 == 0o600


def test_a_file_that_is_there_is_left_alone(service, report, tmp_path):
    file = tmp_path / "report"
    file.write_text("mine")
    done = report(str(file), "--yes")
    assert (done.returncode, file.read_text()) == (FAILED, "mine")
    assert done.stderr == (
        f"report: {file} cannot be written: File exists; name a file that is not there yet, in a folder with room\n"
    )
