"""Runs billingctl's doctor in the view of the daemon."""
import json
import re
import socket
import subprocess

from .. import daemon
from . import billingctl, page
from .billingctl import DONE, FAILED, WARNING

CHECKS = [
    "identity",
    "settings",
    "certificate",
    "CA bundle",
    "clock",
    "key material",
    "token",
    "key",
    "route",
    "name lookup",
    "TCP",
    "TLS",
    "HTTP",
    "time",
    "bus",
    "unit",
    "name",
    "ping",
    "call",
    "restart",
    "callers",
    "request",
]
VERSION = re.search(r"version: .(\S+).,", (daemon.TREE / "meson.build").read_text())[1]
# The check ids of the manual.
KNOWN = set(
    re.findall(
        r"[a-z-]+\.[a-z0-9.-]+",
        re.search(r"\n\.SH IDS\n(.*?)\n\.SH ", (daemon.TREE / "data/man/billingctl.1").read_text(), re.DOTALL)[1]
        .replace("\\", "")
        .replace("fB", "")
        .replace("fR", ""),
    )
)
ILL = ("warning", "failed")


def outcomes(found, outcome):
    """The checks with this outcome."""
    return {check for check in found if found[check]["outcome"] == outcome}


def preloaded(name):
    """Variables that preload a module of tests/support into the doctor."""
    module = daemon.binary().parents[1] / "tests" / "support" / f"{name}.so"
    assert module.exists(), module
    # A sanitizer's runtime must be the first preloaded library.
    return {"LD_PRELOAD": str(module), "ASAN_OPTIONS": daemon.SANITIZERS["ASAN_OPTIONS"] + ":verify_asan_link_order=0"}


def examine(bus, device, *arguments, seconds="30", **variables):
    """A call may take seconds on a busy machine: tests of what does not answer give a shorter time.

    @return the findings by check, and the names of the failed checks"""
    view = daemon.bubblewrap(device.certificates, device.credentials.certificates)
    done = subprocess.run(
        [*view, billingctl.program(), "doctor", "--json", "--timeout", seconds, *arguments],
        capture_output=True,
        text=True,
        check=False,
        timeout=120,
        env={
            **billingctl.environment(bus),
            "PLEVO_DEVICE_CONF": str(device.file),
            **device.credentials.environment,
            **variables,
        },
    )
    return read(done)


def read(done):
    """Checks the form of the output of `doctor --json` and reads it.

    @return as examine()"""
    report = json.loads(done.stdout)
    assert list(report) == ["checks", "failed", "host", "version", "warnings"]
    assert (report["host"], report["version"]) == (socket.gethostname(), VERSION)
    found = {check["check"]: check for check in report["checks"]}
    assert list(found) == CHECKS
    failed, warned = ([check for check in found if found[check]["outcome"] == outcome] for outcome in ("failed", "warning"))
    assert done.returncode == (FAILED if failed else WARNING if warned else DONE)
    assert (report["failed"], report["warnings"]) == (len(failed), len(warned))
    for name, check in found.items():
        assert check["finding"]
        assert check["id"].startswith(name.lower().replace(" ", "-") + ".")
        known = check["id"].replace("request.key.", "key.") in KNOWN
        assert known or check["outcome"] in ("ok", "not checked"), check["id"]
        assert ("cure" in check) == (check["outcome"] in ILL)
        if check["outcome"] in ILL and check["id"] in page.ROWS:
            missing = [words for words in page.ROWS[check["id"]].cure if words not in check["cure"]]
            assert missing == [], (check["id"], check["cure"])
        assert not re.search(r"[\r\n]", check["finding"] + check.get("cure", ""))
    return found, failed
