"""The unit's sandbox around the real daemon with its token, as far as it can be set up without a service manager."""
import json
import os
import pathlib
import re
import shutil
import signal
import subprocess
import sys

import pytest

from billing_lab.device import bus as message_bus
from billing_lab.device import view
from confine import CONFINED, read
from installation import TREE
from harness.store import server

HERE = pathlib.Path(__file__).parent

# Directives that bubblewrap and the test's own set-up apply.
SURROUNDED = {
    "ProtectSystem",
    "ProtectHome",
    "PrivateTmp",
    "PrivateIPC",
    "PrivateDevices",
    "ProtectKernelTunables",
    "ProtectControlGroups",
    "ReadOnlyPaths",
    "Environment",
    "RuntimeDirectory",
    "RuntimeDirectoryMode",
    "StateDirectory",
    "StateDirectoryMode",
    "SystemCallFilter",
    "Type",
    "BusName",
    "ExecStart",
}
# Directives that only a service manager applies; test_manager.py tests them.
MANAGED = {"Restart", "RestartSec"}
# Directives that no test triggers. The documentation lists them.
UNTRIED = {"DevicePolicy", "MemoryHigh", "MemoryMax", "RemoveIPC", "TasksMax", "TimeoutStartSec", "TimeoutStopSec"}


def let_service_read(device, accounts):
    """Sets the documented rights: root owns the file, and only the service may read it."""
    os.chown(device.file, 0, accounts.service_group)
    os.chmod(device.file, 0o640)


def readable(path):
    """Arguments that make bubblewrap create a path and its parents for all users; by default only their owner could
    enter them.
    """
    folders = [path, *pathlib.Path(path).parents][-3::-1]
    return [word for folder in folders for word in ("--perms", "0755", "--dir", str(folder))]


@pytest.fixture
def sandbox(folder, installed, accounts, device):
    """The command prefix that runs a program inside the unit's sandbox."""
    unit = folder / "billing-service.service"
    # Programs of the test need Python and lie in a folder of the tests.
    unit.write_text(
        installed.one("billing-service.service")
        .read_text(encoding="utf-8")
        .replace("[Install]", f"ExecPaths={sys.executable} {installed.service} {installed.libraries}\n[Install]"),
        encoding="utf-8",
    )
    for name in ("confine.py", "probe.py"):
        shutil.copy(HERE / name, folder)
    command = view.bubblewrap(device.certificates, device.credentials.certificates)
    # The whole system is read-only; devices, home folders and temporary files are hidden.
    command[command.index("--dev-bind") : command.index("--tmpfs")] = [
        "--ro-bind",
        "/",
        "/",
        "--dev",
        "/dev",
        "--proc",
        "/proc",
    ]
    at = command.index("--ro-bind", command.index("--tmpfs"))
    command[at:at] = readable("/opt/down")
    at = len(command) - 3
    command[at:at] = readable("/usr/apps/org.plevo.billing-api/res")
    command[command.index("--cap-drop") : command.index("--cap-drop") + 2] = ["--cap-add", "ALL"]
    for hidden in ("/home", "/root", "/run/user", "/tmp", "/var/tmp"):
        if os.path.isdir(hidden):
            command += ["--tmpfs", hidden]
    return [
        *command,
        "--unshare-ipc",
        "--unshare-uts",
        "--chmod",
        "1777",
        "/tmp",
        *readable(folder.parent),
        "--ro-bind",
        installed.root,
        installed.root,
        "--ro-bind",
        folder,
        folder,
        "--bind",
        folder / "state",
        folder / "state",
        "--bind",
        folder / "run",
        folder / "run",
        sys.executable,
        folder / "confine.py",
        unit,
        str(accounts.service),
        str(accounts.service_group),
    ]


def test_every_directive_of_the_unit_is_tried_or_said_to_be_untried(installed):
    directives = set(read(installed.one("billing-service.service")))
    assert directives == SURROUNDED | set(CONFINED) | MANAGED | UNTRIED
    documented = (TREE / "docs/INTEGRATION.md").read_text(encoding="utf-8")
    rows = dict(re.findall(r"^\| `(\w+)=[^|]*\| (tried|not tried)", documented, re.MULTILINE))
    assert {name for name, how in rows.items() if how == "not tried"} == UNTRIED
    limits = {name for name in read(installed.one("billing-service.service"), "[Unit]") if name.startswith("StartLimit")}
    assert limits
    assert {name for name, how in rows.items() if how == "tried"} == directives - UNTRIED | limits


def test_the_daemon_works_in_its_sandbox(sandbox, folder, run_service, policy_bus, accounts, device, store):
    process = run_service(
        policy_bus.address,
        prefix=sandbox,
        PLEVO_DEVICE_CONF=str(device.file),
        XDG_RUNTIME_DIR=str(folder / "run"),
        G_DEBUG="fatal-criticals",
        **device.credentials.environment,
    )
    with accounts.acting_as_member():
        caller = message_bus.Caller(policy_bus.address)
    store.answer = server.Reply(b'{"in": "a sandbox"}')
    assert caller.call("get_product_list", "app", "", "") == (0, '{"in": "a sandbox"}')
    assert store.requests[-1].client is not None
    # From here on the daemon asks the kernel's routing table.
    device.set("network", "default_gateway", "auto")
    let_service_read(device, accounts)
    assert caller.call("check_server_availability")[0] in (0, 1160003)
    daemon = caller.ask_bus("GetConnectionUnixProcessID", message_bus.SERVICE)
    caller.close()
    os.kill(daemon, signal.SIGTERM)
    assert process.wait(5) == 0
    log = next(folder.glob("daemon-*.log")).read_text(encoding="utf-8")
    assert "--billing service quit!--" in log
    assert len(re.findall(r"> Get Network status: [01]$", log, re.MULTILINE)) == 2
    assert "settings:" not in log


@pytest.fixture
def probed(sandbox, folder):
    """Results of the probe in the sandbox. The probe tries all its actions in one run."""
    outside = folder.parent / "outside"
    outside.write_text("x", encoding="ascii")
    os.chmod(outside, 0o644)
    done = subprocess.run(
        [*sandbox, sys.executable, folder / "probe.py", str(os.getpid()), outside, folder / "state", folder],
        capture_output=True,
        text=True,
        timeout=60,
        check=False,
    )
    assert done.returncode == 0, done.stderr
    return json.loads(done.stdout)


def test_the_sandbox_forbids_what_its_directives_say(probed, accounts, folder):
    free = subprocess.run(
        [sys.executable, HERE / "probe.py", str(os.getpid()), folder.parent / "outside", folder / "state", folder],
        capture_output=True,
        text=True,
        timeout=60,
        check=True,
    )
    allowed = json.loads(free.stdout)
    assert probed.pop("writes its own state") == "done"
    assert probed.pop("is") == [accounts.service, accounts.service_group]
    assert {what for what, outcome in probed.items() if outcome == "done"} == set()
    # Actions that succeed without the sandbox: those are refused by the sandbox itself. A container may refuse some on
    # its own.
    shown = {what for what in probed if allowed[what] == "done"}
    print("refused by the machine too:", sorted(set(probed) - shown))
    assert len(shown) > len(probed) / 2
