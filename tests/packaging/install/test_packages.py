"""The Debian packages on a machine without the source tree."""
import contextlib
import hashlib
import json
import os
import re
import shutil
import subprocess
import threading

import pytest

from machine import TREE, run

PORTING = dict(re.findall(r"```sh ([a-z]+)\n(.*?)```", (TREE / "docs/PORTING.md").read_text(encoding="utf-8"), re.DOTALL))

# An ordinary user with a home folder.
A_USER = (
    "mkdir -p /tmp/home && chown 12346 /tmp/home && cd /tmp/home && "
    "setpriv --reuid=12346 --regid=12346 --clear-groups env HOME=/tmp/home PATH=/usr/bin:/bin sh -ec"
)


def test_nothing_is_wrong_with_the_packages(packages):
    changes = next(packages.glob("*.changes"))
    done = subprocess.run(
        [
            "lintian",
            "--allow-root",
            "--display-info",
            "--pedantic",
            "--tag-display-limit=0",
            "--fail-on=error,warning,info,pedantic",
            changes,
        ],
        capture_output=True,
        text=True,
        check=False,
    )
    assert (done.returncode, done.stdout) == (0, "")


def test_a_user_s_lab_runs_on_what_is_installed(installed):
    said = installed.do(
        A_USER
        + """ '
        lab="billing-lab --dir /tmp/home/lab"
        $lab up --json >up.json
        trap "$lab down" EXIT
        $lab call get_product_list appid=app-1 --json
        invoice=$($lab buy coins-100 --json | sed -n "s/.*\\"id\\": \\"\\([^\\"]*\\)\\".*/\\1/p")
        $lab call confirm_purchase invoiceid=$invoice --json
        $lab check
        $lab doctor
        cat /proc/[0-9]*/cmdline | tr "\\0" "\\n" | grep "libexec"
        bus=$(sed -n "s/.*\\"bus\\": \\"\\([^\\"]*\\)\\".*/\\1/p" up.json)
        billingctl --bus "$bus" check-server-availability
    '"""
    )
    assert '"resp_result": 0' in said and "coins-100" in said
    assert "\n/usr/libexec/billing-service\n" in said
    assert '"available": true' in said


def test_the_bus_starts_the_service_for_who_may_call_it(installed):
    """The machine's own system bus with the installed policy and activation."""
    said = installed.do(
        """
        mkdir -p /run/dbus && dbus-daemon --system --nopidfile
        ask="billingctl --json check-server-availability"
        setpriv --reuid=12346 --regid=12346 --clear-groups $ask || echo "status $?"
        setpriv --reuid=12346 --regid=12346 --groups=$(getent group billing | cut -d: -f3) $ask || echo "status $?"
        # Who has the daemon's process.
        for process in /proc/[0-9]*; do
            [ "$(readlink $process/exe)" = /usr/libexec/billing-service ] && stat -c 'runs as %U' $process
        done
        for process in $(dbus-send --system --print-reply=literal --dest=org.freedesktop.DBus /org/freedesktop/DBus \
            org.freedesktop.DBus.GetConnectionUnixUser string:org.plevo.billingservice); do echo "owner $process"; done
    """
    )
    denied, status, refused, refused_status = said.splitlines()[:4]
    assert "error" in json.loads(denied) and status == "status 5"
    # The device has no settings yet, so the service refuses the call.
    assert json.loads(refused)["resp_result"] == 1160003 and refused_status == "status 4"
    user = installed.do("id -u billing-service").strip()
    assert f"owner {user}" in said


def test_systemd_understands_the_installed_unit(installed):
    assert installed.do("systemd-analyze verify --man=no billing-service.service 2>&1") == ""


def test_the_settings_folder_is_the_service_s_alone(installed):
    assert installed.do("stat -c '%U:%G %a' /etc/plevo") == "root:billing-service 750\n"


@pytest.mark.parametrize("tool", ["billingctl", "billing-provision", "billing-lab"])
def test_a_tool_tells_its_version_and_those_of_its_libraries(tool, installed):
    said = installed.do(f"{tool} --version").splitlines()
    assert said[0] == f"{tool} " + installed.do(
        "dpkg-query -W -f'${Version}' " + ("billing-service" if tool == "billing-provision" else tool)
    )
    assert len(said) > 2 and any("OpenSSL 3" in line for line in said)


def test_a_port_s_library_stays_over_an_upgrade_and_gives_way_again(installed):
    said = installed.do(
        "cd /tmp && echo mine >libbilling-platform.so.1\n"
        + PORTING["divert"]
        + """
        dpkg --install /packages/billing-service_*.deb >/dev/null
        cat "$library"
        readlink "$library.reference"
    """
        + PORTING["undivert"]
        + """
        readlink "$library"
        rm /tmp/libbilling-platform.so.1
    """
    )
    assert said.split() == ["mine", "libbilling-platform.so.1.0.0", "libbilling-platform.so.1.0.0"]


def test_the_suite_for_ports_is_whole(packages, tmp_path):
    run("dpkg", "--extract", next(packages.glob("billing-service-dev_*.deb")), tmp_path)
    (description,) = tmp_path.rglob("billing-platform.pc")
    flags = run("pkg-config", f"--define-variable=prefix={tmp_path}/usr", "--cflags", description).split()
    documents = tmp_path / "usr/share/doc/billing-service-dev"
    suite = [path for path in (documents / "examples").rglob("*.cpp") if path.parent.name != "example"]
    assert {path.name for path in suite} == {"log_contract_test.cpp", "made_by_new.cpp", "platform_contract_test.cpp"}
    for source in suite:
        run("g++", "-std=c++17", "-fsyntax-only", "-Wall", "-Werror", *flags, source)
    assert list(documents.glob("PORTING.md*")) and list(documents.rglob("billing-platform.map"))


def test_the_list_of_what_is_inside_names_every_package_and_what_it_needs(packages):
    listed = json.loads((packages / "billing-service.spdx.json").read_text(encoding="utf-8"))
    described = {entry["packageFileName"]: entry for entry in listed["packages"] if "packageFileName" in entry}
    assert set(described) == {path.name for path in packages.glob("*.deb")}
    for name, entry in described.items():
        digest = hashlib.sha256((packages / name).read_bytes()).hexdigest()
        assert entry["checksums"] == [{"algorithm": "SHA256", "checksumValue": digest}]
    ids = {entry["SPDXID"] for entry in listed["packages"]}
    assert len(ids) == len(listed["packages"])
    relations = {(one["spdxElementId"], one["relationshipType"], one["relatedSpdxElement"]) for one in listed["relationships"]}
    assert {end for _, _, end in relations} <= ids
    assert ("SPDXRef-billing-service", "DEPENDS_ON", "SPDXRef-libssl3") in relations
    needed = next(entry for entry in listed["packages"] if entry["name"] == "libssl3")
    assert needed["versionInfo"].startswith("3.")


@pytest.mark.skipif(os.environ.get("BILLING_LONG") != "1", reason="builds the packages again; scripts/test --long")
def test_the_packages_are_the_same_from_another_folder(packages, tmp_path):
    again = tmp_path / "another" / "place"
    run(TREE / "scripts" / "package", again, timeout=1800)
    digests = [
        {
            path.name: hashlib.sha256(path.read_bytes()).hexdigest()
            for path in folder.glob("billing*")
            if path.suffix in (".deb", ".json")
        }
        for folder in (packages, again)
    ]
    assert digests[0] == digests[1] and len(digests[0]) > 5


def places(packages, folder):
    """@return the folder with the unpacked package, by the package's name, and the packages of this tree that each needs"""
    rooms, needs = {}, {}
    for path in packages.glob("*.deb"):
        name, depends = (run("dpkg-deb", "--field", path, field).strip() for field in ("Package", "Depends"))
        rooms[name] = folder / name
        needs[name] = {re.split(r"[ (:]", part.strip())[0] for part in depends.split(",")}
        run("dpkg", "--extract", path, rooms[name])
    return rooms, {name: [name, *sorted(of & set(rooms))] for name, of in needs.items()}


def test_each_link_of_an_installed_page_leads_to_an_installed_file(packages, tmp_path):
    rooms, needs = places(packages, tmp_path)
    links, lost = 0, []
    for name, room in rooms.items():
        for page in room.rglob("*.md*"):
            assert page.suffix == ".md", f"{page} is compressed, so its name is not the one in links"
            for target in re.findall(r"\]\(([^)#:]+)(?:#[^)]*)?\)", page.read_text(encoding="utf-8")):
                place = os.path.normpath(page.parent.relative_to(room) / target)
                links += 1
                if not any((rooms[one] / place).exists() for one in needs[name]):
                    lost.append((name, page.name, target))
    assert (lost, links > 10) == ([], True)


def test_every_header_can_be_used_alone(packages, tmp_path):
    run("dpkg", "--extract", next(packages.glob("billing-service-dev_*.deb")), tmp_path)
    (description,) = tmp_path.rglob("billing-platform.pc")
    flags = run("pkg-config", f"--define-variable=prefix={tmp_path}/usr", "--cflags", description).split()
    headers = sorted((tmp_path / "usr/include/billing-service/platform").glob("*.h"))
    assert len(headers) > 10
    for header in headers:
        # The header of the curl wrapper is C++; all others are C.
        languages = ["c++"] if header.name == "MZCurl.h" else ["c", "c++"]
        for language in languages:
            run(
                "g++" if language == "c++" else "gcc",
                "-x",
                language,
                "-fsyntax-only",
                "-Wall",
                "-Werror",
                *flags,
                "-include",
                f"platform/{header.name}",
                "/dev/null",
            )


def test_reinstallation_and_upgrade_end_a_daemon_that_runs_without_systemd(installed):
    """The next call starts the newly installed daemon. tests/packaging/test_manager.py tests this with systemd."""
    said = installed.do(
        """
        mkdir -p /run/dbus && dbus-daemon --system --nopidfile
        group=$(getent group billing | cut -d: -f3)
        running() {
            for process in /proc/[0-9]*; do
                case "$(readlink $process/exe)" in /usr/libexec/billing-service*) echo -n "${process#/proc/}" ;; esac
            done
        }
        answered() {
            setpriv --reuid=12346 --regid=12346 --groups=$group billingctl --json check-server-availability || [ $? = 4 ]
            running; echo
        }
        install -d /var/lib/billing-service && echo notes >/var/lib/billing-service/notes
        answered
        dpkg --install /packages/billing-service_*.deb >/dev/null
        echo "after a reinstallation [$(running)]"
        answered
        dpkg-deb --raw-extract /packages/billing-service_*.deb /tmp/next
        sed -i 's/^Version: .*/Version: 99/' /tmp/next/DEBIAN/control
        dpkg-deb --build /tmp/next /tmp/next.deb >/dev/null
        dpkg --force-depends --install /tmp/next.deb >/dev/null 2>&1
        echo "after an upgrade [$(running)] $(dpkg-query -W -f '${Version}' billing-service)"
        answered
        cat /var/lib/billing-service/notes
        rm -r /tmp/next /tmp/next.deb
    """
    ).splitlines()
    replies, processes = said[0::3], said[1::3]
    assert [json.loads(reply)["resp_result"] for reply in replies[:3]] == [1160003] * 3
    assert len(set(processes[:3])) == 3 and all(number.isdigit() for number in processes[:3])
    assert (said[2], said[5], said[8]) == ("after a reinstallation []", "after an upgrade [] 99", "notes")


CORE = re.search(r"```sh core\n(.*?)```", (TREE / "docs/TROUBLESHOOTING.md").read_text(encoding="utf-8"), re.DOTALL)[1]


@contextlib.contextmanager
def running(command, seconds=300, **options):
    """A process that is killed at the end. It is also killed after some time, so that a read of its output ends."""
    with subprocess.Popen(command, text=True, **options) as process:
        limit = threading.Timer(seconds, process.kill)
        limit.start()
        try:
            yield process
        finally:
            limit.cancel()
            process.kill()


def test_a_read_of_a_process_that_says_nothing_ends():
    with running(["sleep", "600"], seconds=0.2, stdout=subprocess.PIPE) as silent:
        assert silent.stdout.readline() == ""


@pytest.mark.skipif(shutil.which("gcore") is None, reason="gdb is not installed (apt install gdb)")
def test_the_debug_symbols_name_functions_in_a_core_that_root_takes(packages, tmp_path):
    for package in ("billing-service_*.deb", "billing-service-dbgsym_*.deb"):
        run("dpkg", "--extract", next(packages.glob(package)), tmp_path)
    (library,) = (tmp_path / "usr/lib").rglob("libbilling-platform.so.1")
    program = tmp_path / "usr/libexec/billing-service"
    with running(["dbus-daemon", "--session", "--nofork", "--print-address"], stdout=subprocess.PIPE) as bus, running(
        [program],
        stderr=subprocess.PIPE,
        env={
            "PATH": "/usr/bin:/bin",
            "DBUS_SYSTEM_BUS_ADDRESS": bus.stdout.readline().strip(),
            "LD_LIBRARY_PATH": str(library.parent),
            "PLEVO_LOG_LEVEL": "info",
        },
    ) as service:
        # The worker thread runs once this line is logged.
        assert any("was acquired" in line for line in service.stderr)
        commands = CORE.replace("/usr/libexec/billing-service", str(program)).replace(
            "gdb -batch", f"gdb -batch -iex 'set debug-file-directory {tmp_path}/usr/lib/debug'"
        )
        said = run("bash", "-ec", commands, cwd=tmp_path, timeout=120)
    assert re.search(r"main\(.*service/core/main\.cpp:\d+", said), said
    assert re.search(r"CHttpConnector::\w+.*BillingHttpConnector\.cpp:\d+", said), said
    (core,) = tmp_path.glob("core.*")
    assert core.stat().st_mode & 0o077 == 0
