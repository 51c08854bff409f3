"""Building for other places: packages in a chosen folder, and a platform of one's own."""
import json
import re
import shutil
import subprocess

import pytest

from installation import TREE


def test_packages_go_into_no_folder_with_other_things_in_it(tmp_path):
    (tmp_path / "notes").write_text("mine")
    done = subprocess.run([TREE / "scripts/package", tmp_path], capture_output=True, text=True, check=False)
    assert done.returncode == 1
    assert done.stderr.splitlines()[-1] == (
        f"scripts/package: {tmp_path} has other things in it; name an empty folder, or a new one"
    )
    assert [file.name for file in tmp_path.iterdir()] == ["notes"]


@pytest.fixture(scope="module")
def port(tmp_path_factory):
    """A tree with the copies from the beginning of docs/PORTING.md, configured."""
    tree = tmp_path_factory.mktemp("port")
    listed = subprocess.run(["git", "-C", TREE, "ls-files", "-z"], check=True, capture_output=True, text=True)
    for name in filter(None, listed.stdout.split("\0")):
        if (TREE / name).is_file():
            (tree / name).parent.mkdir(parents=True, exist_ok=True)
            shutil.copy2(TREE / name, tree / name)
    page = (TREE / "docs/PORTING.md").read_text(encoding="utf-8")
    commands = page.split("1. **Copy**")[1].split("```")[1].replace("NAME", "mine").splitlines()
    wanted = [line.strip() for line in commands if line.strip().startswith(("cp ", "for ", "meson setup "))]
    assert len(wanted) == 3
    subprocess.run(["bash", "-ec", "\n".join(wanted)], cwd=tree, check=True, capture_output=True, text=True)
    return tree


def test_the_suites_try_the_port_that_is_chosen(port):
    rules = (port / "build-mine/build.ninja").read_text(encoding="utf-8")
    for suite in ("contract_mine", "contract_secure_mine"):
        built = next(line for line in rules.splitlines() if line.startswith(f"build tests/contract/{suite}:"))
        assert "platform/mine/libbilling-platform.so" in built
        assert "platform/example/" not in built


def test_the_library_of_the_chosen_port_and_billingctl_are_installed(port):
    told = subprocess.run(
        ["meson", "introspect", "--installed", port / "build-mine"], check=True, capture_output=True, text=True
    )
    libraries = [path for path in json.loads(told.stdout) if "libbilling-platform.so.1.0.0" in path]
    assert [str(port / "build-mine/platform/mine") in path for path in libraries] == [True]
    assert str(port / "build-mine/client/billingctl") in json.loads(told.stdout)


def test_the_list_for_other_systems_has_what_setup_installs():
    wanted = re.search(r"^build=\((.*?)\)$", (TREE / "scripts/setup").read_text(encoding="utf-8"), re.MULTILINE | re.DOTALL)
    rows = re.findall(r"^\| (`[^|]*`) \|(.*)\|$", (TREE / "CONTRIBUTING.md").read_text(encoding="utf-8"), re.MULTILINE)
    named = [name for row, others in rows if others.count("|") == 2 for name in re.findall(r"`([^`]+)`", row)]
    assert named == wanted[1].split()
    assert all(cell.strip() for _, others in rows for cell in others.split("|"))
