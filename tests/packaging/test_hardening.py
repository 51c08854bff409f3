"""Protection of the built programs against memory faults, whatever flags a packager sets."""
import json
import os
import pathlib
import platform
import re
import subprocess

import pytest
from harness import daemon

from installation import TREE

BUILD = daemon.binary().parents[1]
PROGRAMS = ["service/billing-service", "client/billingctl", "platform/provision/billing-provision"]
LIBRARY = "platform/linux/libbilling-platform.so"

# First instruction of a function that may be the target of an indirect jump, where the processor checks that.
LANDING = {"x86_64": "endbr64", "aarch64": "(bti|paciasp)"}.get(platform.machine())


def run(*command):
    return subprocess.run(command, check=True, capture_output=True, text=True).stdout


def option(name, build=BUILD):
    told = json.loads(run("meson", "introspect", "--buildoptions", build))
    return next(one["value"] for one in told if one["name"] == name)


def lacks(path, entry="main"):
    """The protections that a file lacks.
    @param entry function whose first instruction is checked
    """
    told = run("readelf", "--wide", "--file-header", "--segments", "--dynamic", "--dyn-syms", path)
    found = {
        "position independent": re.search(r"Type: +DYN", told),
        "relocations read-only": "GNU_RELRO" in told,
        "bound at the start": re.search(r"\(FLAGS\) +BIND_NOW|\(FLAGS_1\).* NOW", told),
        "stack not executable": re.search(r"GNU_STACK .* RW +0x", told),
        "stack protector": "__stack_chk_fail" in told,
        "checked functions": re.search(r"__(?!stack_)\w+_chk\b", told),
    }
    if LANDING is not None:
        code = run("objdump", "--disassemble=" + entry, "--no-show-raw-insn", path)
        found["branch protection"] = re.search(rf"<{entry}>:\n.*\t{LANDING}", code)
    return [name for name, there in found.items() if not there]


@pytest.mark.parametrize("name, entry", [*((program, "main") for program in PROGRAMS), (LIBRARY, "__dlog_print")])
def test_a_built_program_is_hardened(name, entry):
    if option("optimization") == "0" or option("b_sanitize") != "none":
        pytest.skip("built without optimisation or with a sanitizer: the C library checks nothing then")
    assert lacks(BUILD / name, entry) == []


def test_a_program_without_any_of_it_is_found(tmp_path):
    source = tmp_path / "plain.c"
    source.write_text('#include <stdio.h>\nint main(int n, char** v) { char t[64]; return sprintf(t, "%s", v[n - 1]); }\n')
    run(
        "gcc",
        "-O2",
        "-no-pie",
        "-fno-pie",
        "-U_FORTIFY_SOURCE",
        "-fno-stack-protector",
        "-z",
        "norelro",
        "-z",
        "lazy",
        "-z",
        "execstack",
        *(["-fcf-protection=none"] if platform.machine() == "x86_64" else []),
        source,
        "-o",
        tmp_path / "plain",
    )
    assert len(lacks(tmp_path / "plain")) == (7 if LANDING else 6)


@pytest.mark.parametrize(
    "arguments, flags, level",
    [
        (["--buildtype=release"], "", "2"),
        (["--buildtype=debugoptimized"], "", "2"),
        (["--buildtype=release"], "-D_FORTIFY_SOURCE=3", "3"),
        (["--buildtype=debug"], "", None),
    ],
)
def test_the_c_library_checks_in_every_optimised_build(tmp_path, arguments, flags, level):
    subprocess.run(
        ["meson", "setup", tmp_path / "build", "-Dtests=false", *arguments],
        cwd=TREE,
        check=True,
        capture_output=True,
        env={**os.environ, "CXXFLAGS": flags},
    )
    commands = json.loads((tmp_path / "build/compile_commands.json").read_text(encoding="utf-8"))
    built = [each["command"] for each in commands if pathlib.Path(each["file"]).suffix == ".cpp"]
    assert len(built) > 50
    levels = {tuple(re.findall(r"-D_FORTIFY_SOURCE=(\d)", command)) for command in built}
    assert levels == {() if level is None else (level,)}
    assert all("-fstack-protector-strong" in command for command in built)
