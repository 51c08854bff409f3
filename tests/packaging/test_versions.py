"""The version is defined once for each language, and all definitions are equal."""
import re
import subprocess
import sys

import pytest

import billing_lab
from installation import TREE
from harness import daemon

VERSION = re.search(r"version: '([0-9.]+)'", (TREE / "meson.build").read_text(encoding="utf-8"))[1]
BUILD = daemon.binary().parents[1]


def test_the_lab_and_the_packages_have_the_version_of_the_build():
    package = re.match(r"billing-service \(([0-9.]+)\)", (TREE / "debian/changelog").read_text(encoding="utf-8"))
    assert (billing_lab.__version__, package[1]) == (VERSION, VERSION)


@pytest.mark.parametrize(
    "tool, libraries",
    [
        ([BUILD / "service/billing-service"], []),
        ([BUILD / "client/billingctl"], ["GLib", "libcurl", "OpenSSL", "jsoncpp"]),
        ([BUILD / "platform/provision/billing-provision"], ["GLib", "OpenSSL"]),
        (
            [sys.executable, TREE / "lab/billing-lab"],
            ["Python", "OpenSSL", "SQLite", "aiohttp", "cryptography", "h2", "PyGObject", "trustme"],
        ),
    ],
)
def test_a_tool_tells_its_version_and_those_of_its_libraries(tool, libraries):
    said = subprocess.run([*tool, "--version"], capture_output=True, text=True, check=True).stdout.splitlines()
    assert said[0].split() == [str(tool[-1]).rpartition("/")[2], VERSION]
    assert [line.split()[0] for line in said[1:]] == libraries
    assert all(re.search(r" \d+\.\d+", line) for line in said)
