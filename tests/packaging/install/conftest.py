"""The Debian packages, and a bare Debian to install them in. Needs root and a Debian mirror; the bare root is kept in
build/cache for the next run.
"""
import os
import pathlib
import re
import tempfile

import pytest

from machine import TREE, Machine, run

SUITE = "bookworm"
OURS = "billing-service billingctl billing-lab billing-service-dev"


@pytest.fixture(scope="session")
def packages():
    """The folder with the packages: $BILLING_PACKAGES, or a fresh build."""
    if "BILLING_PACKAGES" in os.environ:
        return pathlib.Path(os.environ["BILLING_PACKAGES"])
    folder = TREE / "build" / "packages"
    run(TREE / "scripts" / "package", folder, timeout=1800)
    return folder


@pytest.fixture(scope="session")
def bare_root():
    """An archive of a minimal Debian."""
    if os.geteuid() != 0:
        pytest.skip("a root of its own needs root")
    archive = TREE / "build" / "cache" / f"{SUITE}.tar"
    if not archive.exists():
        archive.parent.mkdir(parents=True, exist_ok=True)
        with tempfile.TemporaryDirectory(prefix="billing-") as folder:
            run("debootstrap", "--variant=minbase", SUITE, folder, timeout=1200)
            made = archive.with_suffix(".new")
            run("tar", "--create", "--file", made, "--directory", folder, "--one-file-system", ".")
            made.rename(archive)
    return archive


@pytest.fixture(scope="session")
def machine(bare_root, packages):
    """A minimal Debian with the package files, whose dependencies are installed."""
    with tempfile.TemporaryDirectory(prefix="billing-") as folder:
        made = Machine(pathlib.Path(folder))
        run("tar", "--extract", "--file", bare_root, "--directory", folder)
        os.chmod(folder, 0o755)
        (made.root / "packages").mkdir()
        for package in sorted(packages.glob("*.deb")):
            if "-dbgsym_" not in package.name:
                run("cp", package, made.root / "packages")
        for name in ("resolv.conf", "hosts"):
            run("cp", f"/etc/{name}", made.root / "etc")
        made.do("groupadd --gid 12346 app && useradd --uid 12346 --gid 12346 app")
        made.do(
            "apt-get -qq update && apt-get -qq -y install --no-install-recommends /packages/*.deb && "
            f"apt-get -qq -y purge {OURS}",
            timeout=1200,
        )
        yield made


@pytest.fixture
def installed(machine):
    """The machine with the packages installed. After the test they are purged, and only the service's user and group may
    remain.
    """
    before, users = machine.files(), machine.users()
    machine.do("dpkg --install /packages/*.deb")
    yield machine
    machine.do(f"rm -rf /tmp/home && dpkg --purge {OURS}")
    after = machine.files()
    assert (sorted(after - before), sorted(before - after)) == ([], [])
    # The service's user and group stay, so that no other account gets their ids.
    ours = re.compile(r"^billing(-service)?:.*\n", re.MULTILINE)
    assert [ours.sub("", text) for text in machine.users()] == [ours.sub("", text) for text in users]
    assert [len(ours.findall(text)) for text in machine.users()] == [1, 2]
