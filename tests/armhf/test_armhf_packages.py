"""The Debian packages for 32-bit ARM, compared with those of this machine's processor (scripts/armhf packages)."""
import os
import pathlib
import re
import struct
import subprocess

import pytest

TRIPLETS = re.compile(r"/(arm-linux-gnueabihf|[a-z0-9_]+-linux-gnu)/")
ARM, HARD_FLOAT = 40, 0x400


def run(*command, **environment):
    done = subprocess.run(
        [str(part) for part in command], capture_output=True, text=True, check=False, env={**os.environ, **environment}
    )
    assert done.returncode == 0, f"{command}\n{done.stdout[-4000:]}\n{done.stderr[-4000:]}"
    return done.stdout


def field(package, name):
    return run("dpkg-deb", "--field", package, name).strip()


def in_folder(variable):
    """@return the packages that depend on the processor, by their names"""
    found = {field(path, "Package"): path for path in pathlib.Path(os.environ[variable]).glob("*.deb")}
    return {name: path for name, path in found.items() if field(path, "Architecture") != "all"}


@pytest.fixture(scope="module")
def packages():
    return in_folder("ARMHF_PACKAGES")


@pytest.fixture(scope="module")
def native():
    return in_folder("BILLING_PACKAGES")


@pytest.fixture(scope="module")
def unpacked(packages, tmp_path_factory):
    folder = tmp_path_factory.mktemp("unpacked")
    for name, path in packages.items():
        run("dpkg-deb", "--extract", path, folder / name)
    return folder


def test_each_package_for_one_processor_is_there_for_armhf(packages, native):
    assert {"billing-service", "billingctl", "billing-service-dev", "billing-service-dbgsym"} <= set(native)
    assert set(packages) == set(native)
    assert {field(path, "Architecture") for path in packages.values()} == {"armhf"}


def test_each_program_and_library_is_for_a_32_bit_arm_with_hardware_floating_point(unpacked):
    programs = {}
    for path in unpacked.rglob("*"):
        if path.is_file() and not path.is_symlink() and path.read_bytes()[:4] == b"\x7fELF":
            head = path.read_bytes()[:52]
            # Class and byte order: 32 bits, the lowest byte first.
            programs[path] = (head[4], head[5], *struct.unpack_from("<H", head, 18), *struct.unpack_from("<I", head, 36))
    names = {path.name for path in programs}
    assert {"billing-service", "billing-provision", "billingctl", "libbilling-platform.so.1.0.0"} <= names
    for path, (bits, order, machine, flags) in programs.items():
        assert (bits, order, machine) == (1, 1, ARM) and flags & HARD_FLOAT, path


def content(package):
    """@return type, mode, owner and path of each file; a file of debug symbols has its build's id as name"""
    listed = run("sh", "-c", 'dpkg-deb --fsys-tarfile "$0" | tar --list --verbose --numeric-owner', package)
    lines = [re.sub(r"\.build-id/.*", ".build-id/", TRIPLETS.sub("/TRIPLET/", line)) for line in listed.splitlines()]
    return sorted((line.split()[0], line.split()[1], line.split(None, 5)[5]) for line in lines)


def test_the_packages_have_the_files_of_the_others(packages, native):
    for name, path in packages.items():
        assert content(path) == content(native[name]), name
    assert len(content(packages["billing-service"])) > 20


def needed(package):
    return {re.split(r"[ (:]", part.strip())[0] for part in field(package, "Depends").split(",")}


def test_the_packages_need_what_the_others_need(packages, native):
    assert "libssl3" in needed(packages["billing-service"])
    for name, path in packages.items():
        assert needed(path) == needed(native[name]), name


def test_apt_resolves_the_dependencies_from_the_archive_for_armhf(packages):
    said = run("apt-get", "--simulate", "install", *packages.values(), APT_CONFIG=os.environ["ARMHF_APT"])
    installed = set(re.findall(r"^Inst ([^ ]+) ", said, re.MULTILINE))
    assert set(packages) | {"libc6", "libssl3", "libecore1", "dbus"} <= installed
    assert set(re.findall(r"\[([a-z0-9]+)\]\)", said)) <= {"armhf", "all"}


@pytest.mark.parametrize("program", ["billingctl/usr/bin/billingctl", "billing-service/usr/sbin/billing-provision"])
def test_a_program_of_the_packages_starts(program, unpacked):
    said = run("qemu-arm", "-L", os.environ["ARMHF_SYSROOT"], unpacked / program, "--version")
    assert said.startswith(f"{pathlib.Path(program).name} 0.")
