"""scripts/stamps: a test is left out only if it passed with the same content."""
import json
import os
import pathlib
import shutil
import subprocess

import pytest

STAMPS = pathlib.Path(__file__).resolve().parents[2] / "scripts" / "stamps"


class Tree:
    """A tree of its own with one program, one test in pytest, and a meson that lists them."""

    def __init__(self, folder):
        self.folder, self.build = folder, folder / "build"
        for name in ("scripts", "data", "service", "build", "bin"):
            (folder / name).mkdir()
        shutil.copy(STAMPS, folder / "scripts")
        self.write("build/program", "first")
        self.write("build/libseam.so", "first")
        self.write("service/main.cpp", "first")
        self.write("corpus", "first")
        self.list_tests(
            program={"cmd": [f"{self.build}/program", f"{folder}/corpus"]}, reader={"cmd": ["/usr/bin/python3", "-m", "pytest"]}
        )

    def write(self, name, text):
        (self.folder / name).write_text(text, encoding="utf-8")

    def list_tests(self, **tests):
        listed = json.dumps([{"name": name, "env": {}, **test} for name, test in tests.items()])
        self.write("bin/meson", f"#!/bin/sh\ncat <<'LIST'\n{listed}\nLIST\n")
        (self.folder / "bin" / "meson").chmod(0o755)

    def run(self, *arguments):
        environment = {**os.environ, "PATH": f"{self.folder}/bin:{os.environ['PATH']}"}
        command = [self.folder / "scripts" / "stamps", *arguments]
        return subprocess.run(command, env=environment, capture_output=True, text=True, check=True)

    def chosen(self):
        answer = self.run("choose", self.build, self.build / "keys")
        return answer.stdout.split(), answer.stderr

    def end(self, **results):
        lines = [json.dumps({"name": f"billing-service:unit / {name}", "result": result}) for name, result in results.items()]
        self.write("build/log.json", "\n".join(lines))
        self.record()

    def record(self):
        self.run("record", self.build, self.build / "keys", self.build / "log.json")


@pytest.fixture
def tree(tmp_path):
    made = Tree(tmp_path)
    assert made.chosen() == (["program", "reader"], "")
    return made


def test_what_passed_is_left_out_by_name(tree):
    tree.end(program="OK", reader="FAIL")
    assert tree.chosen() == (["reader"], "unchanged since it passed: program\n")


@pytest.mark.parametrize("result", ["FAIL", "SKIP", "TIMEOUT", "ERROR"])
def test_what_did_not_pass_is_run_again(tree, result):
    tree.end(program=result, reader=result)
    assert tree.chosen()[0] == ["program", "reader"]


def test_a_program_that_skips_all_of_its_tests_has_not_passed(tree):
    said = "[  SKIPPED ] A.One (0 ms)\n[==========] 1 test from 1 test suite ran.\n[  PASSED  ] 0 tests.\n"
    for text in (said, said.replace("PASSED  ] 0", "PASSED  ] 10")):
        line = {"name": "billing-service:unit / program", "result": "OK", "stdout": text}
        tree.write("build/log.json", json.dumps(line))
        tree.record()
        assert ("program" in tree.chosen()[0]) == (text == said)


@pytest.mark.parametrize("name", ["build/program", "build/libseam.so", "corpus", "data/new"])
def test_what_a_program_depends_on_makes_it_run_again(tree, name):
    tree.end(program="OK")
    tree.write(name, "second")
    assert "program" in tree.chosen()[0]


def test_a_test_that_reads_the_tree_runs_again_after_any_change(tree):
    tree.end(program="OK", reader="OK")
    tree.write("service/main.cpp", "second")
    assert tree.chosen() == (["reader"], "unchanged since it passed: program\n")


def test_a_change_beside_the_run_is_not_taken_for_what_passed(tree):
    tree.write("corpus", "second")
    tree.end(program="OK")
    assert "program" in tree.chosen()[0]


def test_the_content_that_passed_before_is_known_again(tree):
    tree.end(program="OK")
    tree.write("corpus", "second")
    tree.chosen()
    tree.write("corpus", "first")
    assert "program" not in tree.chosen()[0]


def test_a_key_is_of_all_its_files(tree):
    def key(*paths):
        return tree.run("key", *(tree.folder / path for path in paths)).stdout

    assert key("service") == key("service") != key("service", "data")
    before = key("service", "corpus")
    tree.write("data/other", "new")
    assert key("service", "corpus") == before
    tree.write("service/main.cpp", "second")
    assert key("service", "corpus") != before
