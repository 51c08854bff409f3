"""The lab's folder: which one a command takes, and which ones are refused."""
import subprocess

import pytest
from billing_lab.folder import Folder, LabError

from conftest import LAB


def test_a_folder_that_is_no_lab_is_not_offered_to_be_closed(cli, tmp_path):
    """System folders are open to others, and some have a folder `lock`."""
    folder = tmp_path / "system"
    (folder / "lock").mkdir(parents=True)
    folder.chmod(0o755)
    answer = cli("up", folder=folder)
    assert (answer.returncode, answer.stderr) == (
        1,
        f"billing-lab: {folder} has other things in it; name an empty folder, or a new one, with --dir\n",
    )
    assert cli("status", folder=folder).stderr.startswith(f"billing-lab: no lab is up in {folder}; ")


def test_an_empty_folder_that_is_open_to_others_is_refused(cli, tmp_path):
    folder = tmp_path / "empty"
    folder.mkdir()
    folder.chmod(0o755)
    answer = cli("up", folder=folder)
    assert (answer.returncode, answer.stderr) == (
        1,
        f"billing-lab: {folder} is open to others; name a new folder with --dir, and the lab makes it\n",
    )


def test_the_command_that_closes_a_lab_quotes_its_path(cli, tmp_path):
    folder = tmp_path / "my lab"
    folder.mkdir()
    (folder / "lock").touch()
    folder.chmod(0o755)
    for command in ("up", "status"):
        answer = cli(command, folder=folder)
        assert (answer.returncode, answer.stderr) == (
            1,
            f"billing-lab: {folder} is open to others; `chmod 700 '{folder}'` if you trust what is in it, or name "
            "another folder with --dir\n",
        )


@pytest.mark.parametrize("command", [["up"], ["reset"], ["run", "--", "true"]], ids=" ".join)
def test_an_empty_name_is_not_the_default_folder(cli, command):
    """A script whose variable is not set writes --dir ""."""
    answer = cli(*command, folder="")
    assert (answer.returncode, answer.stderr.splitlines()[-1]) == (
        2,
        "billing-lab: error: argument --dir: the folder's name is empty; name a folder, or leave out --dir for the default",
    )
    with pytest.raises(LabError, match="^the folder's name is empty; "):
        Folder.at("")


@pytest.mark.parametrize("command", [["status"], ["call", "get_product_list"]], ids=" ".join)
def test_a_hint_names_the_folder_that_the_command_was_given(cli, tmp_path, command):
    answer = cli(*command, folder=tmp_path / "my lab")
    assert answer.stderr == (
        f"billing-lab: no lab is up in {tmp_path}/my lab; start it with `billing-lab --dir '{tmp_path}/my lab' up`\n"
    )
    assert cli("logs", folder=tmp_path / "lab").stderr == (
        f"billing-lab: no lab has been up in {tmp_path}/lab; start one with `billing-lab --dir {tmp_path}/lab up`\n"
    )


@pytest.mark.parametrize("variable", [None, "BILLING_LAB_DIR"])
def test_a_hint_for_the_folder_that_is_taken_anyway_has_no_option(cli, tmp_path, variable):
    folder = tmp_path / "home" / ".local" / "state" / "billing-lab" / "default"
    more = {} if variable is None else {variable: str(tmp_path / "lab")}
    answer = subprocess.run(
        [LAB / "billing-lab", "status"], env={**cli.environment, **more}, capture_output=True, text=True, check=False
    )
    where = more.get(variable, folder)
    assert answer.stderr == f"billing-lab: no lab is up in {where}; start it with `billing-lab up`\n"


def test_a_run_in_the_folder_of_a_lab_that_is_up_says_how_to_end_it(lab, cli):
    folder = lab.folder.path
    for command in (["run", "--", "true"], ["up", "--stay"]):
        answer = cli(*command, folder=folder)
        assert (answer.returncode, answer.stderr) == (
            1,
            f"billing-lab: a lab is up in {folder} (process {lab.info['pid']}); end it with "
            f"`billing-lab --dir {folder} down`, or name another folder; `run` without --dir makes its own\n",
        )
    assert lab.call("check_server_availability")[0] == 0


@pytest.mark.parametrize("name, command", [(None, ["seed", "x.json"]), ("lab", ["status"])], ids=["file", "folder"])
def test_in_a_working_folder_that_was_deleted_it_is_said(lab, cli, tmp_path, name, command):
    (tmp_path / "gone").mkdir()
    delete = ["sh", "-c", 'cd "$0" && rmdir "$0" && exec "$@"', tmp_path / "gone"]
    answer = cli(*command, folder=name or lab.folder.path, before=delete)
    assert (answer.returncode, answer.stderr) == (
        1,
        f"billing-lab: {command[-1] if name is None else name}: the working folder was deleted; change into another one\n",
    )
