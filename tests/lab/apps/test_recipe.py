"""The line of docs/LAB.md for a CI job, run unchanged, with a correct app and with one that confirms twice."""
import os
import re
import shlex
import subprocess
import sys
from xml.etree import ElementTree

import pytest

from conftest import LAB

PAGE = (LAB.parent / "docs" / "LAB.md").read_text(encoding="utf-8")
APP = """#!{python}
import json, os, sys
from gi.repository import Gio, GLib
NAME, OBJECT = "org.plevo.billingservice", "/org/plevo/billingservice"
bus = Gio.bus_get_sync(Gio.BusType.SYSTEM, None)

def call(method, *arguments):
    values = GLib.Variant("(" + "s" * len(arguments) + ")", arguments)
    return bus.call_sync(NAME, OBJECT, NAME, method, values, None, Gio.DBusCallFlags.NONE, 100_000, None).unpack()

assert sys.argv[1:] == ["--selftest"]
for one in json.loads(call("get_purchase_history", *[""] * 6)[1])["invoices"]:
    if one["status"] == "bought":
        for method in ["get_applied_time"] + ["confirm_purchase"] * {times}:
            call(method, one["app"], "me", one["id"], "")
"""


@pytest.mark.parametrize("times, bad", [(1, 0), (2, 1)])
def test_the_line_of_the_recipe_catches_a_double_confirmation(needs_view, tmp_path, times, bad):
    line = re.search(r"^  - (billing-lab run .*)$", PAGE, re.MULTILINE)[1]
    app = tmp_path / "my-app"
    app.write_text(APP.format(python=sys.executable, times=times), encoding="utf-8")
    app.chmod(0o755)
    environment = {**os.environ, "PATH": f"{LAB}{os.pathsep}{os.environ['PATH']}", "HOME": str(tmp_path)}
    done = subprocess.run(
        shlex.split(line), cwd=tmp_path, env=environment, capture_output=True, text=True, timeout=200, check=False
    )
    suite = ElementTree.parse(tmp_path / "report.xml").getroot()
    suite = suite if suite.tag == "testsuite" else suite.find("testsuite")
    assert (done.returncode, suite.get("failures")) == (bad, str(bad)), done.stderr
    assert ("was confirmed again" in done.stderr) == bool(bad)
