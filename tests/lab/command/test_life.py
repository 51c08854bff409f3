"""Labs start, run side by side, and leave nothing behind, however they end."""
import http.client
import json
import os
import pathlib
import signal
import socket
import stat
import subprocess
import sys
import threading
import time

import pytest
from billing_lab import client
from billing_lab.device import tools
from billing_lab.folder import Folder, LabError

from conftest import LAB

pytestmark = pytest.mark.usefixtures("needs_view")


def processes_of(folder):
    """Running processes with the folder in their command line or environment."""
    found = set()
    for process in pathlib.Path("/proc").glob("[0-9]*"):
        try:
            words = (process / "cmdline").read_bytes() + (process / "environ").read_bytes()
            dead = (process / "stat").read_text().rpartition(") ")[2].startswith("Z")
        except OSError:
            continue
        if f"{folder}/".encode() in words.replace(b"\0", b"/") and not dead:
            found.add(int(process.name))
    return found - {os.getpid()}


def is_alive(pid):
    try:
        return "Z" not in pathlib.Path(f"/proc/{pid}/stat").read_text().rpartition(") ")[2][:1]
    except OSError:
        return False


def wait_until(condition, what, seconds=20):
    end = time.monotonic() + seconds
    while not condition():
        assert time.monotonic() < end, what
        time.sleep(0.02)


def assert_nothing_is_left(folder, info):
    pids = [info["pid"], info["bus_pid"], info["daemon_pid"]]
    # A process counts as dead when its main thread is; its resources are free when all its threads are.
    wait_until(
        lambda: not any(map(is_alive, pids)) and not processes_of(folder) and not Folder(folder).is_up(),
        f"{processes_of(folder)} of {pids} are left",
    )


@pytest.fixture
def folder(tmp_path):
    made = tmp_path / "lab"
    yield made
    client.stop(Folder(made))


def test_a_lab_ends_with_its_block(folder):
    with client.running(folder) as lab:
        info = lab.info
        assert len(processes_of(folder)) >= 3
        assert lab.call("check_server_availability")[0] == 0
    assert_nothing_is_left(folder, info)


def test_purchases_and_journal_outlive_the_lab(folder):
    with client.running(folder) as lab:
        name = lab.buy("coins-100")["id"]
        lab.call("check_server_availability")
        lab.device("country", "DE")
    with client.running(folder) as lab:
        assert lab.invoices()[0]["id"] == name
        assert len(lab.journal()) == 1
        assert lab.device()["country"] == "DE"
        assert lab.call("check_server_availability")[0] == 0


def parent_of(pid):
    return int(pathlib.Path(f"/proc/{pid}/stat").read_text().rpartition(") ")[2].split()[1])


@pytest.mark.parametrize("part", ["pid", "bus_pid", "daemon_pid", "bubblewrap", "guard"])
def test_nothing_is_left_when_a_part_is_killed(folder, part):
    lab = client.start(Folder.at(folder))
    info = lab.info
    bubblewrap = parent_of(info["daemon_pid"])
    info.update(bubblewrap=bubblewrap, guard=parent_of(bubblewrap))
    os.kill(info[part], signal.SIGKILL)
    assert_nothing_is_left(folder, info)
    # The next lab in the folder starts normally.
    with client.running(folder) as lab:
        assert lab.call("check_server_availability")[0] == 0


@pytest.mark.parametrize("part, who", [("bus_pid", "the bus"), ("daemon_pid", "the daemon")])
def test_it_is_said_which_part_ended(folder, part, who):
    lab = client.start(Folder.at(folder))
    os.kill(lab.info[part], signal.SIGKILL)
    assert_nothing_is_left(folder, lab.info)
    with pytest.raises(LabError, match=f"it ended because {who} ended with status"):
        client.Lab(folder)


def test_nothing_is_left_when_the_program_that_uses_it_is_killed(folder):
    program = (
        "import sys, time; sys.path.insert(0, sys.argv[1])\n"
        "from billing_lab import client\n"
        "with client.running(sys.argv[2]): print('up', flush=True); time.sleep(600)\n"
    )
    with subprocess.Popen([sys.executable, "-c", program, LAB, folder], stdout=subprocess.PIPE, text=True) as user:
        assert user.stdout.readline() == "up\n"
        info = client.Lab(folder).info
        user.kill()
    assert_nothing_is_left(folder, info)


@pytest.mark.parametrize("delay", [0.15, 0.2, 0.25, 0.3, 0.35, 0.4])
def test_nothing_is_left_of_a_lab_that_is_killed_while_it_starts(folder, delay):
    Folder(folder).make()
    hear, tell = os.pipe()
    with subprocess.Popen(
        [sys.executable, "-m", "billing_lab.supervisor", folder, "info", str(tell)],
        pass_fds=[tell],
        env={**os.environ, "PYTHONPATH": str(LAB)},
        start_new_session=True,
    ) as starting:
        os.close(tell)
        time.sleep(delay)
        starting.kill()
    os.close(hear)
    wait_until(lambda: not processes_of(folder), f"{processes_of(folder)} are left")


def test_a_start_that_is_interrupted_leaves_nothing(folder, cli):
    starting = subprocess.Popen(
        [LAB / "billing-lab", "--dir", folder, "up"], env=cli.environment, stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL
    )
    wait_until(lambda: (folder / "bus").exists() or starting.poll() is not None, "no bus was started")
    starting.send_signal(signal.SIGINT)
    starting.wait(20)
    if starting.returncode == 0:  # the start was complete before the signal
        client.stop(Folder(folder))
    wait_until(lambda: not processes_of(folder), f"{processes_of(folder)} are left")


def test_two_labs_know_nothing_of_each_other(tmp_path):
    with client.running(tmp_path / "one") as one, client.running(tmp_path / "two") as two:
        one.buy("coins-100")
        one.device("country", "DE")
        two.fault("status", code=500)
        assert json.loads(one.call("get_purchase_history")[1])["total"] == 3
        assert json.loads(two.call("get_purchase_history")[1])["code"] == "fault"
        assert (len(two.invoices()), two.device()["country"], one.faults()) == (2, "US", [])
        assert [len(lab.journal()) for lab in (one, two)] == [1, 1]
        # The two labs have different authorities, so the certificate of one client is not valid in the other lab.
        assert one.journal()[0]["certificate"]["sha256"] != two.journal()[0]["certificate"]["sha256"]


def test_a_second_lab_in_the_same_folder_is_the_first(folder, cli):
    assert cli("up").returncode == 0
    first = client.Lab(folder).info
    again = cli("up", "--json")
    assert json.loads(again.stdout) == first
    assert cli("up", "--stay").stderr.startswith(f"billing-lab: a lab is up in {folder} (process ")


def test_of_two_that_start_at_once_one_lab_comes(folder, cli):
    both = [
        subprocess.Popen(
            [LAB / "billing-lab", "--dir", folder, "up"],
            env=cli.environment,
            stdout=subprocess.DEVNULL,
            stderr=subprocess.PIPE,
            text=True,
        )
        for _ in "12"
    ]
    said = [(process.wait(60), process.stderr.read()) for process in both]
    for process in both:
        process.stderr.close()
    assert (0, "") in said
    assert client.Lab(folder).call("check_server_availability")[0] == 0
    for status, reason in said:
        assert status == 0 or "at the same moment" in reason or "just starting" in reason


def test_nothing_outside_its_folder_is_touched(folder, cli, tmp_path):
    for arguments in (["up"], ["call", "check_server_availability"], ["buy", "coins-100"], ["down"]):
        assert cli(*arguments).returncode == 0
    assert list((tmp_path / "home").rglob("*")) == []


def test_only_its_owner_may_read_a_lab(folder):
    with client.running(folder):
        assert folder.stat().st_mode & 0o077 == 0
        for name in ("lab.json", "state.sqlite", "device/device.conf", "logs/daemon.log"):
            assert (folder / name).stat().st_mode & 0o077 == 0, name


def test_a_path_that_is_too_long_for_a_socket_is_refused(tmp_path, cli):
    answer = cli("up", folder=tmp_path / ("x" * 90))
    assert (answer.returncode, "is too long for a socket; choose a folder" in answer.stderr) == (1, True)


def test_a_path_may_have_what_addresses_and_xml_may_not(tmp_path):
    with client.running(tmp_path / "a lab, ~ & <co>%41;é") as lab:
        assert lab.call("check_server_availability")[0] == 0


def test_a_folder_with_other_things_in_it_is_left_alone(tmp_path, cli):
    (tmp_path / "notes").touch()
    answer = cli("up", folder=tmp_path)
    assert (answer.returncode, answer.stderr) == (
        1,
        f"billing-lab: {tmp_path} has other things in it; name an empty folder, or a new one, with --dir\n",
    )
    assert {file.name for file in tmp_path.iterdir()} == {"notes", "home"}


@pytest.mark.skipif(os.geteuid() != 0, reason="takes another user's part")
def test_the_lab_of_somebody_else_is_said_to_be_so(cli):
    for command in ("up", "status"):
        answer = subprocess.run(
            [
                "setpriv",
                "--reuid=65534",
                "--clear-groups",
                "env",
                f"PYTHONPATH={LAB}",
                sys.executable,
                "-c",
                "import sys; from billing_lab.command import cli; sys.exit(cli.main(sys.argv[1:]))",
                "--dir",
                "/proc/1/root",
                command,
            ],
            env=cli.environment,
            capture_output=True,
            text=True,
            check=False,
        )
        assert (answer.returncode, answer.stderr) == (
            1,
            "billing-lab: the lab in /proc/1/root is somebody else's; name a folder of your own with --dir\n",
        )


@pytest.mark.parametrize("text", [None, "{"])
def test_a_lab_that_its_catalogue_ends_is_not_up(folder, cli, tmp_path, text):
    if text is not None:
        (tmp_path / "seed.json").write_text(text)
    answer = cli("up", "--seed", tmp_path / "seed.json")
    assert answer.returncode == 1 and "seed.json" in answer.stderr
    assert not Folder(folder).is_up()


def test_without_a_lab_there_are_no_logs(folder, cli):
    answer = cli("logs")
    assert (answer.returncode, answer.stderr) == (
        1,
        f"billing-lab: no lab has been up in {folder}; start one with `billing-lab --dir {folder} up`\n",
    )


def test_a_path_that_the_token_cannot_have_is_refused(tmp_path, cli):
    answer = cli("up", folder=tmp_path / "a=b")
    assert (answer.returncode, answer.stderr) == (
        1,
        f'billing-lab: the path {tmp_path}/a=b has a "=", which the token\'s settings cannot hold; choose '
        "another folder with --dir\n",
    )
    assert not (tmp_path / "a=b").exists()


def test_a_folder_that_cannot_be_made_is_said(cli):
    answer = cli("up", folder="/proc/lab")
    assert (answer.returncode, answer.stderr) == (
        1,
        "billing-lab: /proc/lab: No such file or directory; choose another folder with --dir\n",
    )


def test_without_a_daemon_it_is_said_how_to_build_one(cli):
    answer = cli("up", BILLING_SERVICE="/none")
    assert (answer.returncode, answer.stderr) == (
        1,
        "billing-lab: there is no daemon at /none; build it with `meson setup build && ninja -C build`, "
        "or name one in $BILLING_SERVICE\n",
    )


def test_a_daemon_that_does_not_start_is_said(folder, cli, tmp_path):
    # The lab expects a replaced daemon inside a build folder.
    build = tools.service().parents[1]
    fake = tmp_path / "build" / "service" / "billing-service"
    fake.parent.mkdir(parents=True)
    (tmp_path / "build" / "platform").symlink_to(build / "platform")
    fake.write_text("#!/bin/sh\necho no settings here >&2\nexit 7\n")
    fake.chmod(0o755)
    answer = cli("up", BILLING_SERVICE=str(fake))
    assert (answer.returncode, answer.stderr) == (
        1,
        "billing-lab: the daemon ended with status 7 while it started: no settings here; more in "
        f"`billing-lab --dir {folder} logs daemon`\n",
    )
    assert processes_of(folder) == set()


def test_a_program_in_a_virtual_environment_starts_the_lab_and_calls(folder, tmp_path):
    """Python in a virtual environment lacks the modules that the lab's own process imports."""
    subprocess.run(["/usr/bin/python3", "-m", "venv", "--without-pip", tmp_path / "venv"], check=True, timeout=60)
    program = (
        "import sys; from billing_lab import client\n"
        "with client.running(sys.argv[1]) as lab:\n"
        "    print(lab.call('check_server_availability', timeout=50)[0])"
    )
    done = subprocess.run(
        [tmp_path / "venv" / "bin" / "python", "-c", program, folder],
        capture_output=True,
        env={**os.environ, "PYTHONPATH": str(LAB)},
        text=True,
        timeout=60,
        check=False,
    )
    assert (done.returncode, done.stdout, done.stderr) == (0, "0\n", "")


def test_a_lab_that_cannot_start_says_why(folder, monkeypatch, tmp_path):
    (tmp_path / "aiohttp.py").write_text("raise ImportError('this aiohttp is broken')")
    monkeypatch.setenv("PYTHONPATH", str(tmp_path))
    with pytest.raises(LabError, match="the lab did not start: ImportError: this aiohttp is broken"):
        client.start(Folder(folder))


def test_ports_and_token_outlive_a_restart_but_not_a_rival(folder):
    with client.running(folder) as lab:
        before = lab.info
    with client.running(folder) as lab:
        assert {key: lab.info[key] for key in ("control", "store")} == {key: before[key] for key in ("control", "store")}
        assert lab.call("check_server_availability")[0] == 0
    port = int(before["store"]["production"].rpartition(":")[2])
    with socket.create_server(("127.0.0.1", port)), client.running(folder) as lab:
        assert lab.info["store"] != before["store"]
        assert lab.call("check_server_availability")[0] == 0


def test_a_folder_that_others_can_write_is_not_taken(tmp_path, cli):
    planted = tmp_path / "planted"
    planted.mkdir()
    (planted / "lock").touch()
    for mode in (0o755, 0o770, 0o701):
        planted.chmod(mode)
        for command in ("up", "status", "call"):
            words = (command, "check_server_availability") if command == "call" else (command,)
            answer = cli(*words, folder=planted)
            assert (answer.returncode, "is open to others" in answer.stderr) == (1, True), answer
    assert [file.name for file in planted.iterdir()] == ["lock"]


@pytest.mark.skipif(os.geteuid() != 0, reason="to give a folder away needs root")
def test_a_folder_of_another_user_is_not_taken(tmp_path, cli):
    planted = tmp_path / "planted"
    planted.mkdir(mode=0o700)
    (planted / "lock").touch()
    os.chown(planted, 61001, 61001)
    for command in ("up", "status"):
        answer = cli(command, folder=planted)
        assert (answer.returncode, "is another user's" in answer.stderr) == (1, True), answer


def test_the_bus_is_for_its_owner_alone(lab):
    assert stat.S_IMODE(os.stat(lab.folder.path / "bus").st_mode) == 0o600


@pytest.mark.parametrize(
    "headers, query, status",
    [
        ({}, "", 401),
        ({"Authorization": "Bearer wrong"}, "", 401),
        ({}, "?token=wrong", 401),
        ({"Authorization": "Bearer \xe9\xff"}, "", 401),
        ({}, "?token=%C3%A9", 401),
        ({}, "?token=%ff", 401),
        ({"Authorization": "Bearer {token}"}, "", 200),
        ({}, "?token={token}", 200),
        ({"Authorization": "Bearer {token}", "Host": "evil.example:80"}, "", 403),
    ],
)
def test_the_control_interface_wants_its_token_and_its_own_name(lab, headers, query, status):
    token = lab.info["control"]["token"]
    address = lab.info["control"]["address"].removeprefix("http://")
    connection = http.client.HTTPConnection(address, timeout=20)
    connection.request(
        "GET",
        "/api/status" + query.format(token=token),
        headers={name: value.format(token=token) for name, value in headers.items()},
    )
    assert connection.getresponse().status == status
    connection.close()


@pytest.mark.parametrize(
    "path, body, said",
    [
        ("/api/buy", {}, "KeyError('product')"),
        ("/api/buy", [], "the request has a wrong form"),
        ("/api/seed", {"file": "catalogue.json"}, "the file's path must be absolute"),
        ("/api/faults", {"kind": "reset", "count": 0}, "count is 0"),
        ("/api/connection", {"fault": "fire"}, "'fire' is no fault of the connection"),
        ("/api/connection", {"fault": "restart", "ms": -1}, "ms is -1; it must be a number from 0 to 60000"),
        ("/api/answers", {"endpoint": "shop"}, "'shop' is no endpoint"),
    ],
)
def test_what_cannot_be_asked_is_refused_with_a_reason(lab, path, body, said):
    with pytest.raises(LabError) as caught:
        lab.ask("POST", path, body)
    assert said in str(caught.value)


def test_whoever_follows_the_journal_sees_each_entry_once(lab):
    lab.call("check_server_availability")
    seen, enough = [], threading.Event()

    def follow():
        for entry in lab.follow(after=0):
            seen.append(entry["seq"])
            if len(seen) == 4:
                enough.set()
                return

    reader = threading.Thread(target=follow)
    reader.start()
    wait_until(lambda: seen, "the entry from before is not told")
    for _ in range(3):
        lab.call("check_server_availability")
    assert enough.wait(20)
    reader.join()
    assert seen == [entry["seq"] for entry in lab.journal()]


def test_a_browser_goes_on_where_it_was(lab):
    for _ in range(2):
        lab.call("check_server_availability")
    first, second = (entry["seq"] for entry in lab.journal())
    address = lab.info["control"]["address"].removeprefix("http://")
    connection = http.client.HTTPConnection(address, timeout=20)
    connection.request("GET", f"/api/events?token={lab.info['control']['token']}", headers={"Last-Event-ID": str(first)})
    response = connection.getresponse()
    assert response.getheader("Content-Type") == "text/event-stream"
    assert [response.readline() for _ in "12"] == [f"id: {second}\n".encode(), b"event: journal\n"]
    connection.close()


def test_followers_do_not_hold_up_the_end(folder):
    with client.running(folder) as lab:
        reader = threading.Thread(target=lambda: list(lab.follow()))
        reader.start()
        time.sleep(0.2)
    reader.join(20)
    assert not reader.is_alive()
