"""Runs billingctl's doctor where the daemon is."""
import json
import re
import subprocess

from . import billingctl, daemon
from .billingctl import DONE, FAILED

CHECKS = ["settings", "certificate", "CA bundle", "clock", "key material", "token", "key", "route", "name lookup",
          "TCP", "TLS", "HTTP", "bus", "name", "call"]


def outcomes(found, outcome):
    """The checks that came out like this."""
    return {check for check in found if found[check]["outcome"] == outcome}


def preloaded(name):
    """The variables that put a module of tests/support before the doctor."""
    module = daemon.binary().parents[1] / "tests" / "support" / f"{name}.so"
    assert module.exists(), module
    # A sanitizer's runtime would insist on being the first.
    return {"LD_PRELOAD": str(module),
            "ASAN_OPTIONS": daemon.SANITIZERS["ASAN_OPTIONS"] + ":verify_asan_link_order=0"}


def examine(bus, device, *arguments, seconds="5", **variables):
    """@return its findings by check, and the names of the checks that failed"""
    view = daemon.bubblewrap(device.certificates, device.credentials.certificates)
    done = subprocess.run(
        [*view, billingctl.program(), "doctor", "--json", "--timeout", seconds, *arguments],
        capture_output=True, text=True, check=False, timeout=120,
        env={**billingctl.environment(bus), "PLEVO_DEVICE_CONF": str(device.file),
             **device.credentials.environment, **variables})
    report = json.loads(done.stdout)
    assert list(report) == ["checks", "failed"]
    found = {check["check"]: check for check in report["checks"]}
    assert list(found) == CHECKS
    failed = [check for check in found if found[check]["outcome"] == "failed"]
    assert done.returncode == (FAILED if failed else DONE)
    assert report["failed"] == len(failed)
    for check in found.values():
        assert check["finding"]
        assert ("cure" in check) == (check["outcome"] == "failed")
        assert not re.search(r"[\r\n]", check["finding"] + check.get("cure", ""))
    return found, failed
