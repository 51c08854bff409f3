"""The installed tree, and a bus with the installed policy and accounts.

Tests with several users run as root; without root they are skipped.
"""
import contextlib
import os
import pathlib
import subprocess
import sys
import tempfile

import pytest

sys.path.insert(0, str(pathlib.Path(__file__).resolve().parents[1]))

from harness.device import certificates, credentials  # noqa: E402
from harness.device.device import Device  # noqa: E402
from harness.store import server  # noqa: E402

import booted  # noqa: E402
import manager  # noqa: E402
from first_answer import documented  # noqa: E402
from installation import Accounts, Installed, PolicyBus, wait_for_name  # noqa: E402


@pytest.fixture(scope="session")
def needs_root():
    if os.geteuid() != 0:
        pytest.skip("several users take part, so this needs root")


@pytest.fixture(scope="session")
def session_folder():
    """A folder that other users can enter, unlike those of pytest."""
    with tempfile.TemporaryDirectory(prefix="billing-") as name:
        os.chmod(name, 0o755)
        yield pathlib.Path(name)


@pytest.fixture
def folder(session_folder):
    """A folder for one test that other users can enter."""
    with tempfile.TemporaryDirectory(dir=session_folder) as name:
        os.chmod(name, 0o755)
        yield pathlib.Path(name)


@pytest.fixture(scope="session")
def installed(session_folder):
    return Installed(session_folder / "installed")


@pytest.fixture(scope="session")
def accounts(needs_root, session_folder, installed):
    return Accounts(session_folder / "accounts", installed.one("sysusers.d/billing-service.conf"))


@pytest.fixture
def policy_bus(folder, installed, accounts):
    running = PolicyBus(folder, installed, accounts)
    yield running
    running.stop()


@pytest.fixture
def run_service(folder, installed, request):
    """A function that runs the installed daemon, as its user or with a command prefix.
    @return the process
    """
    started = []

    def run(address, prefix=None, **environment):
        if prefix is None:
            prefix = request.getfixturevalue("accounts").run_as("service")
        log = open(folder / f"daemon-{len(started)}.log", "wb")
        started.append(
            subprocess.Popen(
                [*prefix, installed.service],
                env={
                    "PATH": "/usr/bin:/bin",
                    "DBUS_SYSTEM_BUS_ADDRESS": address,
                    **environment,
                    "LD_LIBRARY_PATH": str(installed.libraries),
                },
                stdin=subprocess.DEVNULL,
                stdout=log,
                stderr=log,
            )
        )
        log.close()
        wait_for_name(address, started[-1], log.name)
        return started[-1]

    yield run
    for process in started:
        process.kill()
        process.wait()


@pytest.fixture(scope="session")
def authority():
    return certificates.Authority()


@pytest.fixture(scope="session")
def provisioned(tmp_path_factory):
    return credentials.Credentials.make(tmp_path_factory.mktemp("device") / "lab")


@pytest.fixture
def store(authority, provisioned):
    """A store that demands the device's certificate."""
    running = server.StoreServer(authority.server_context("localhost", "production.localhost", clients=provisioned.authority))
    yield running
    with contextlib.suppress(OSError):
        running.stop()


@pytest.fixture
def device(folder, store, authority, provisioned, accounts):
    """A device as documented: the service may only read the token and the settings, and only the service may read the
    PIN.
    """
    made = Device(folder, provisioned.copy_to(folder / "lab"), f"production.localhost:{store.port}")
    made.ca_file.write_bytes(authority.pem)
    for path in [made.file, *folder.rglob("*")]:
        os.chmod(path, 0o755 if path.is_dir() else 0o644)
    for name in ("pin", "seal.key"):
        os.chown(folder / "lab" / name, accounts.service, accounts.service_group)
        os.chmod(folder / "lab" / name, 0o600)
    for name in ("state", "run"):
        (folder / name).mkdir(mode=0o700)
        os.chown(folder / name, accounts.service, accounts.service_group)
    made.set("keystore", "store", str(folder / "state" / "store"))
    os.chown(made.file, 0, accounts.service_group)
    os.chmod(made.file, 0o640)
    return made


@pytest.fixture(scope="module")
def needs_systemd(needs_root):
    for program in ("/lib/systemd/systemd", "/usr/bin/nsenter", "/usr/bin/dbus-daemon", "/usr/bin/openssl"):
        if not os.path.exists(program):
            pytest.skip(f"{program} is not installed")
    root = manager.cgroup_root()
    if root is None or not os.access(root, os.W_OK):
        pytest.skip("no control groups of the second version in which a folder may be made")


@pytest.fixture
def machine(needs_systemd, folder, installed):
    """A booted systemd with the installation, a user who may call the service, and one who may not."""
    try:
        made = manager.Machine(folder / "machine", installed.root)
    except manager.Refused as error:
        pytest.skip(f"no systemd of its own on this machine: {error}")
    try:
        booted.prepare(made)
        yield made
    finally:
        made.stop()


@pytest.fixture
def booted_device(machine):
    page = documented()
    booted.provision(machine, [page.folders, page.token, page.request, "python3 sign.py", page.install], page.keystore)
    return machine
