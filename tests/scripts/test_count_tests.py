"""scripts/count-tests: what a report does not contain is no success."""
import pathlib
import subprocess
import sys

import pytest

COUNT = pathlib.Path(__file__).resolve().parents[2] / "scripts" / "count-tests"
FILES = ("tests/some/test_one.py", "tests/some/test_two.py", "tests/some/test_one_more.py")


@pytest.fixture
def folder(tmp_path):
    """A tree with three test files: of the last one every test is skipped."""
    (tmp_path / "tests" / "some").mkdir(parents=True)
    for file in FILES:
        (tmp_path / file).write_text("def test_it():\n    pass\n", encoding="utf-8")
    (tmp_path / FILES[-1]).write_text("import pytest\n\npytest.skip('not here', allow_module_level=True)\n", encoding="utf-8")
    (tmp_path / "files").write_text("".join(f"{file}\n" for file in FILES), encoding="utf-8")
    return tmp_path


def run_pytest(folder, *arguments):
    command = [sys.executable, "-m", "pytest", "--rootdir=.", "-p", "no:cacheprovider", "-q", "--junit-xml=report", *arguments]
    subprocess.run(command, cwd=folder, check=False, capture_output=True)


def counted(folder, *arguments):
    done = subprocess.run([COUNT, *arguments], cwd=folder, capture_output=True, text=True, check=False)
    return done.returncode, done.stdout.splitlines()


def test_each_file_has_run(folder):
    run_pytest(folder, "tests")
    status, said = counted(folder, "0:report:files")
    assert (status, said[-1], len(said)) == (0, "2 passed, 0 failed, 1 skipped", 2)


def test_a_file_that_was_not_run_is_a_failure(folder):
    run_pytest(folder, "tests/some/test_one_more.py", "tests/some/test_one.py")
    status, said = counted(folder, "0:report:files")
    assert status == 1
    assert said[0] == "FAILED: report: no test of tests/some/test_two.py was run"
    assert said[-1] == "1 passed, 1 failed, 1 skipped"


@pytest.mark.parametrize("report", ["", "<testsuites/>", "cut <"])
def test_a_report_without_tests_is_a_failure(folder, report):
    (folder / "report").write_text(report, encoding="utf-8")
    assert counted(folder, "0:report")[1][-1] == "0 passed, 1 failed, 0 skipped"


def test_a_status_without_a_failed_test_is_a_failure(folder):
    run_pytest(folder, "tests")
    assert counted(folder, "1:report", "+1,0,2")[1][-1] == "3 passed, 1 failed, 3 skipped"
