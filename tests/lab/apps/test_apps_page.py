"""The programs of docs/APPS.md, run unchanged, and the page's statements about arguments."""
import json
import os
import pathlib
import re
import shlex
import shutil
import subprocess
import sys
import threading

import pytest
from billing_lab.device.bus import SERVICE, Bus
from billing_lab.device.methods import METHODS

from conftest import LAB, owned

PAGE = (LAB.parent / "docs" / "APPS.md").read_text(encoding="utf-8")
PROGRAMS = dict(re.findall(r"```(python|c|cpp|javascript)\n(.*?)```", PAGE, re.DOTALL))
# Folders in which npm installs dbus-next; Debian has no package of it.
MODULES = [*os.environ.get("NODE_PATH", "").split(os.pathsep), str(pathlib.Path(__file__).parents[1] / "node" / "node_modules")]

pytestmark = pytest.mark.usefixtures("needs_view")


def flags(library):
    found = subprocess.run(["pkg-config", "--cflags", "--libs", library], capture_output=True, text=True, check=False)
    if found.returncode != 0:
        pytest.skip(f"no {library}")
    return shlex.split(found.stdout)


def of_sdbus_2(program):
    """The C++ program with the line that the page gives for sdbus-c++ 2."""
    line = re.search(r"\n```\n(.*createProxy.*\n)```", PAGE)[1]
    changed, count = re.subn(r".*createProxy.*\n", lambda _: line, program)
    assert count == 1
    return changed


def built(folder, language, compiler, library):
    source = folder / f"app.{language}"
    program = PROGRAMS[language]
    if library == "sdbus-c++" and subprocess.run(["pkg-config", "--atleast-version=2", library], check=False).returncode == 0:
        program = of_sdbus_2(program)
    source.write_text(program, encoding="utf-8")
    subprocess.run([*compiler, "-Wall", "-Werror", source, "-o", folder / "app", *flags(library)], check=True, timeout=200)
    return [folder / "app"]


@pytest.fixture(scope="module", params=["python", "c", "cpp", "javascript"])
def program(request, tmp_path_factory):
    """The command that runs a program of the page."""
    folder = tmp_path_factory.mktemp(request.param)
    if request.param == "c":
        return built(folder, "c", ["cc"], "gio-2.0")
    if request.param == "cpp":
        return built(folder, "cpp", ["c++", "-std=c++17"], "sdbus-c++")
    interpreter = sys.executable if request.param == "python" else shutil.which("node")
    if request.param == "javascript" and (
        not interpreter or not any(os.path.isdir(os.path.join(path, "dbus-next")) for path in filter(None, MODULES))
    ):
        pytest.skip("no node, or no dbus-next in NODE_PATH or tests/lab/node (there: npm ci --ignore-scripts --omit=optional)")
    source = folder / "app"
    source.write_text(PROGRAMS[request.param], encoding="utf-8")
    return [interpreter, source]


def run(program, **environment):
    done = subprocess.run(
        program,
        capture_output=True,
        text=True,
        timeout=120,
        check=False,
        env={**os.environ, "NODE_PATH": os.pathsep.join(filter(None, MODULES)), **environment},
    )
    return done.returncode, done.stdout, done.stderr


def test_a_program_of_the_page_tells_the_three_results(lab, program):
    code, said, _ = run(program)
    result, text = said.split(" ", 1)
    assert (code, result, json.loads(text)["invoices"][0]["id"]) == (0, "0", "INV-SEED-2")
    lab.fault("reset", endpoint="invoices")
    assert run(program)[1].split() == ["-1"]
    lab.device("gateway", "down")
    assert run(program)[1] == "1160003 Network error, please check!\n"


def test_a_program_of_the_page_says_when_the_service_is_not_there(program, tmp_path):
    empty = Bus(tmp_path)
    try:
        code, _, said = run(program, DBUS_SYSTEM_BUS_ADDRESS=empty.address)
    finally:
        empty.stop()
    assert (code, said.startswith("no answer: ")) == (1, True)


def test_a_program_of_the_page_says_when_there_is_no_bus(program, tmp_path):
    code, printed, said = run(program, DBUS_SYSTEM_BUS_ADDRESS=f"unix:path={tmp_path}/none")
    assert (code, printed) == (1, "")
    assert said.startswith("no answer: ") and said.count("\n") == 1, said


def test_only_the_program_in_javascript_finds_no_bus_whose_address_is_escaped(program, tmp_path):
    folder = tmp_path / "a bus"
    folder.mkdir()
    bus = Bus(folder)
    try:
        code, _, said = run(program, DBUS_SYSTEM_BUS_ADDRESS=bus.address)
    finally:
        bus.stop()
    in_javascript = os.path.basename(program[0]) == "node"
    assert (code, "ENOENT" in said, SERVICE in said) == (1, in_javascript, not in_javascript), said


def test_a_program_of_the_page_fails_when_the_bus_ends(program, tmp_path):
    bus = Bus(tmp_path)
    asked = threading.Event()
    ended = threading.Thread(target=lambda: asked.wait(60) and bus.stop())
    service = owned(bus.address, SERVICE)

    def take(_, message, incoming):
        if incoming and message.get_member() == "get_purchase_history":
            # The call stays without an answer.
            asked.set()
            return None
        return message

    service.add_filter(take)
    ended.start()
    try:
        code, printed, _ = run(program, DBUS_SYSTEM_BUS_ADDRESS=bus.address)
    finally:
        asked.set()
        ended.join()
    assert (code != 0, printed) == (True, "")


def rows():
    table = PAGE[PAGE.index("| method |") :].split("\n\n")[0].split("\n")[2:]
    for line in table:
        method, count, unused = (cell.strip() for cell in line.strip("|").split("|"))
        yield method.strip("`"), count.split(", "), unused.split(", ")


@pytest.mark.parametrize("method, count, unused", list(rows()))
def test_the_arguments_that_count_are_those_that_the_page_names(lab, method, count, unused):
    named = [name for name in (*count, *unused) if name in METHODS[method]]
    assert sorted(named) == sorted(METHODS[method])
    for name in named:
        values = {other: "x" for other in METHODS[method]}
        lab.call(method, **values)
        lab.call(method, **{**values, name: "mark-me"})
        plain, marked = ((entry["url"], entry["body"]) for entry in lab.journal(last=2))
        assert (plain != marked) == (name in count), name
