"""The doctor started by each user, with the installed policy and real users, without preparation."""
import os
import subprocess

import pytest
from harness import daemon
from harness.tools import billingctl
from harness.tools.doctor import outcomes, read

from billing_lab.device import view

CLOSED = {"settings", "token", "key", "route", "name lookup", "TCP", "TLS", "HTTP", "time", "request"}


@pytest.fixture
def service(device, policy_bus, accounts, run_service):
    """The daemon under its user, with certificates and variables that only the daemon sees."""
    os.chmod(device.file, 0o640)
    os.chown(device.file, 0, accounts.service_group)
    return run_service(
        policy_bus.address,
        [*accounts.run_as("service"), *view.bubblewrap(device.certificates, device.credentials.certificates)],
        PLEVO_DEVICE_CONF=str(device.file),
        XDG_RUNTIME_DIR=str(device.file.parent / "run"),
        **device.credentials.environment,
    )


@pytest.fixture
def doctor(policy_bus, accounts, device, installed):
    """A function that starts the doctor as a user, on a machine with the installation's accounts."""

    def started(who, *arguments, has_policy=True):
        name = "system.d/org.plevo.billingservice.conf"
        policy = ["--ro-bind", installed.one(name), f"/etc/dbus-1/{name}"] if has_policy else []
        as_who = (
            []
            if who == "root"
            else [*accounts.run_as(who), *view.bubblewrap(device.certificates, device.credentials.certificates)]
        )
        return read(
            subprocess.run(
                [
                    "bwrap",
                    "--die-with-parent",
                    "--cap-add",
                    "ALL",
                    "--dev-bind",
                    "/",
                    "/",
                    "--tmpfs",
                    "/etc/dbus-1",
                    "--perms",
                    "0755",
                    "--dir",
                    "/etc/dbus-1/system.d",
                    *policy,
                    "--ro-bind",
                    accounts.passwd,
                    "/etc/passwd",
                    "--ro-bind",
                    accounts.group,
                    "/etc/group",
                    *as_who,
                    billingctl.program(),
                    "--bus",
                    policy_bus.address,
                    "doctor",
                    "--json",
                    *arguments,
                ],
                env={"PATH": "/usr/bin:/bin", **daemon.SANITIZERS},
                capture_output=True,
                text=True,
                timeout=120,
                check=False,
            )
        )

    return started


def test_root_needs_no_preparation(service, doctor):
    found, failed = doctor("root", "--sign")
    assert failed == []
    assert outcomes(found, "warning") == set()
    assert found["identity"]["finding"] == (
        "looked as billing-service, with user, groups and environment of process "
        f"{found['name']['finding'].split('process ')[1].split(',')[0]}"
    )
    assert outcomes(found, "not checked") == {"HTTP", "time", "unit"}
    assert found["request"]["finding"] == 'the store answered the device with HTTP status 200: "{}"'


def test_a_member_judges_nothing_that_it_may_not_read(service, doctor):
    found, failed = doctor("member")
    assert (failed, outcomes(found, "warning")) == ([], set())
    assert CLOSED <= outcomes(found, "not checked")
    assert found["call"]["outcome"] == "ok"


def test_a_stranger_learns_of_the_group(service, doctor):
    found, _ = doctor("stranger")
    assert found["ping"]["id"] == "ping.denied"
    assert found["ping"]["finding"] == (
        "the bus lets only members of the group billing call, and pack-stranger (groups 61003) is none"
    )
    assert found["ping"]["cure"] == "usermod -aG billing pack-stranger, then sign in anew; or run this as root"


def test_a_policy_that_is_not_installed_is_named(service, doctor):
    found, _ = doctor("stranger", has_policy=False)
    assert found["ping"]["id"] == "ping.no-policy"


def test_settings_that_the_service_may_not_read_are_named_with_their_mode(service, doctor, device):
    os.chmod(device.file, 0o600)
    found, failed = doctor("root")
    assert failed[0] == "settings"
    assert found["settings"]["id"] == "settings.closed"
    assert found["settings"]["finding"] == (f"the service may not read {device.file} (mode 600, of root:billing-service)")
