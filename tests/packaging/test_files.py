"""Manuals, completions, unit and profile, read by the programs that use them."""
import os
import pathlib
import pty
import re
import select
import shutil
import signal
import subprocess

import pytest

from installation import TREE

MANUALS = [
    "billing-service.8",
    "billing-provision.8",
    "billingctl.1",
    "billing-lab.1",
    "device.conf.5",
    "org.plevo.billingservice.5",
]


def run(*command, **options):
    return subprocess.run(command, capture_output=True, text=True, check=False, **options)


def needs(program):
    if shutil.which(program) is None:
        pytest.skip(f"{program} is not installed")


@pytest.mark.parametrize("name", MANUALS)
def test_a_manual_renders_without_a_warning(name, installed):
    manual = installed.one(name)
    needs("man")
    done = run("man", "--warnings", "-E", "UTF-8", "-l", manual, env={**os.environ, "LC_ALL": "C.UTF-8", "MANWIDTH": "80"})
    assert (done.returncode, done.stderr) == (0, "")
    assert "NAME" in done.stdout
    needs("mandoc")
    # A manual has no date, so that builds are reproducible.
    complaints = [
        line for line in run("mandoc", "-T", "lint", "-W", "warning", manual).stdout.splitlines() if "missing date" not in line
    ]
    assert complaints == []


def test_every_manual_is_tried(installed):
    assert sorted(path.name for path in installed.root.rglob("man?/*")) == sorted(MANUALS)


def test_the_manual_of_the_settings_knows_every_setting(installed):
    manual = re.sub(r"\\(.)", r"\1", installed.one("device.conf.5").read_text(encoding="utf-8"))
    known = re.findall(
        r'\{"([^"]+)", "([^"]+)", Kind', (TREE / "platform/linux/settings/settings_known.cpp").read_text(encoding="utf-8")
    )
    assert len(known) > 15
    assert [(group, key) for group, key in known if f"[{group}]" not in manual or key not in manual] == []


def test_the_manual_of_the_interface_names_every_argument(installed):
    manual = installed.one("org.plevo.billingservice.5").read_text(encoding="utf-8")
    xml = installed.one("interfaces/org.plevo.billingservice.xml").read_text(encoding="utf-8")
    assert [name for name in re.findall(r'<(?:method|arg)[^>]* name="(\w+)"', xml) if name not in manual] == []


def test_the_manual_of_the_interface_says_which_result_comes_when(installed):
    manual = installed.one("org.plevo.billingservice.5").read_text(encoding="utf-8")
    table = re.search(r"\n\.SH WHICH RESULT WHEN\n.*?\n\.nf\n(.*?)\n\.fi\n", manual, re.DOTALL)[1].replace("\\", "")
    rows = [re.split(r"  +", row) for row in table.splitlines()]
    assert {len(row) for row in rows} == {3}
    said = {row[0]: row[2] for row in rows[1:]}
    assert [result.split(",")[0] for result in said] == [
        "0",
        "-1",
        "-1",
        "1160003",
        "1160003",
        *["LimitsExceeded"] * 3,
        "NoMemory",
        "NoReply",
    ]
    assert set(said.values()) == {"yes", "no", "perhaps"}
    # The text below the table describes each error.
    errors = set(re.findall(r"^\.B org\.freedesktop\.DBus\.Error\.(\w+)$", manual, re.MULTILINE))
    assert {result.split(",")[0] for result in said if result[0].isalpha()} <= errors


def test_an_interface_without_its_texts_makes_no_manual(installed, folder):
    xml = installed.one("interfaces/org.plevo.billingservice.xml").read_text(encoding="utf-8")
    short = folder / "short.xml"
    short.write_text(re.sub(r'<annotation name="[^"]*" value="Confirms[^>]*>', "", xml), encoding="utf-8")
    done = run("python3", TREE / "data/man/interface-manual", short)
    assert done.returncode == 1
    assert "confirm_purchase has no annotation" in done.stderr


@pytest.mark.parametrize(
    "shell, end", [("bash", "completions/billingctl"), ("bash", "completions/billing-provision"), ("zsh", "_billingctl")]
)
def test_a_completion_parses(shell, end, installed):
    needs(shell)
    done = run(shell, "-n", installed.one(end))
    assert (done.returncode, done.stderr) == (0, "")


class Zsh:
    """A zsh on a terminal, with the installed completion."""

    def __init__(self, completions, home):
        self._pid, self._terminal = pty.fork()
        if self._pid == 0:
            os.execve(
                shutil.which("zsh"),
                ["zsh", "-f", "-i"],
                {"TERM": "dumb", "HOME": str(home), "PATH": os.environ["PATH"], "LC_ALL": "C.UTF-8"},
            )
        self._send(
            f"PS1=; fpath=({completions} $fpath); autoload -U compinit; compinit -u -D; "
            "show() {print -r -- \"<$BUFFER>\"}; zle -N show; bindkey '^X' show; echo rea''dy\n"
        )
        self._read_until("ready")

    def completed(self, line):
        """Types the line and presses Tab.
        @return the shown text; at its end the completed line in angle brackets
        """
        self._send(f"{line}\t\x18")
        return self._read_until(">")

    def end(self):
        os.kill(self._pid, signal.SIGKILL)
        os.waitpid(self._pid, 0)
        os.close(self._terminal)

    def _send(self, text):
        os.write(self._terminal, text.encode())

    def _read_until(self, end):
        shown = ""
        while end not in shown:
            assert select.select([self._terminal], [], [], 20)[0], shown
            shown += os.read(self._terminal, 65536).decode(errors="replace")
        return shown


@pytest.fixture
def zsh(installed, folder):
    needs("zsh")
    running = Zsh(installed.one("_billingctl").parent, folder)
    yield running
    running.end()


@pytest.mark.parametrize(
    "line, becomes",
    [
        ("conf", "confirm-purchase"),
        ("confirm-purchase --inv", "confirm-purchase --invoiceid="),
        ("get_applied_time --ap", "get_applied_time --appid="),
        ("doctor --si", "doctor --sign"),
        ("--bus x get-product-list --ser", "--bus x get-product-list --server-type="),
        ("monitor --show", "monitor --show-private"),
        ("--ver", "--version"),
        ("check-server-availability --ra", "check-server-availability --raw"),
    ],
)
def test_zsh_completes(line, becomes, zsh):
    shown = zsh.completed(f"billingctl {line}")
    assert re.search(r"<billingctl (.*?) ?>", shown)[1] == becomes, shown
    assert "not found" not in shown


def test_the_completion_of_zsh_knows_what_that_of_bash_knows(installed):
    known = [
        set(re.findall(r"--[a-z][a-z-]+|(?:get|confirm|check)-[a-z-]+", installed.one(end).read_text()))
        for end in ("completions/billingctl", "_billingctl")
    ]
    assert known[0] - known[1] == set()
    assert known[1] - known[0] == {"--address"}


def test_the_profile_parses(installed):
    needs("apparmor_parser")
    done = run("apparmor_parser", "--skip-kernel-load", "--skip-cache", installed.one("examples/apparmor"))
    assert done.returncode == 0, done.stderr


def test_the_profile_is_for_the_installed_daemon(installed):
    assert f"profile billing-service {installed.place(installed.service)} " in installed.one("examples/apparmor").read_text()


def rights(profile, path, is_own):
    """The rights that the profile's file rules give the daemon for a file."""
    found = set()
    for owner, pattern, letters in re.findall(r"^ +(owner )?(/\S+) ([a-z]+),$", profile, re.MULTILINE):
        pattern = re.escape(pattern).replace(r"\*\*", ".+").replace(r"\*", "[^/]+")
        if re.fullmatch(pattern, path) and (is_own or not owner):
            found |= set(letters)
    return found


@pytest.mark.parametrize(
    "path, is_own, needed",
    [
        ("/etc/plevo/device.conf", False, "r"),
        ("/etc/plevo/pin", True, "r"),
        ("/etc/plevo/softhsm2.conf", False, "r"),
        ("/etc/plevo/tokens/1-2-3/token.object", False, "rk"),
        ("/etc/plevo/tokens/1-2-3/token.lock", False, "rk"),
        ("/opt/down/cert/ca.pem", False, "r"),
        ("/usr/apps/org.plevo.billing-api/res/certificate/bgclient.crt", False, "r"),
        ("/var/lib/billing-service/store/refused-pins", True, "rw"),
        ("/var/lib/billing-service/tpm/tpm2_pkcs11.sqlite3", True, "rwk"),
        ("/dev/tpmrm0", False, "rw"),
        ("/usr/lib/softhsm/libsofthsm2.so", False, "mr"),
    ],
)
def test_the_profile_allows_the_files_of_the_documentation(path, is_own, needed, installed):
    assert set(needed) <= rights(installed.one("examples/apparmor").read_text(), path, is_own)


@pytest.mark.parametrize(
    "path, is_own, refused",
    [
        ("/etc/plevo/pin", True, "w"),
        ("/etc/plevo/tokens/1-2-3/token.object", False, "w"),
        ("/var/lib/billing-service/store/x", False, "r"),
        ("/var/lib/billing-service/x", True, "mx"),
        ("/etc/shadow", False, "r"),
        ("/bin/sh", False, "rx"),
    ],
)
def test_the_profile_allows_no_more(path, is_own, refused, installed):
    assert not set(refused) & rights(installed.one("examples/apparmor").read_text(), path, is_own)


def test_the_profile_lets_the_daemon_own_its_name(installed):
    # Owning a name needs the right to call RequestName and the right to bind the name.
    profile = " ".join(installed.one("examples/apparmor").read_text().split())
    assert "dbus bind bus=system name=org.plevo.billingservice," in profile
    (calls,) = re.findall(r"dbus send bus=system path=/org/freedesktop/DBus [^,]*?member=\{([^}]*)\}", profile)
    assert "RequestName" in calls.split(",")


def test_the_profile_lets_the_daemon_ask_what_its_callers_have_not_read(installed):
    """Without these calls the service could not limit the cost of a caller that reads nothing."""
    rules = re.findall(
        r"dbus send bus=system path=\S+ interface=(\S+) member=(\{[^}]*\}|\w+)",
        " ".join(installed.one("examples/apparmor").read_text().split()),
    )
    allowed = {(interface, member) for interface, members in rules for member in members.strip("{}").split(",")}
    # The abstraction dbus-strict allows these calls.
    allowed |= {("org.freedesktop.DBus", member) for member in ("AddMatch", "GetNameOwner")}
    source = (TREE / "service/bus/BusFilter.cpp").read_text(encoding="utf-8")
    asked = re.findall(r'(BUS_NAME|"org\.freedesktop\.DBus\.[\w.]+"),\s*"(\w+)"', source)
    asked = {
        ("org.freedesktop.DBus" if interface == "BUS_NAME" else interface.strip('"'), member) for interface, member in asked
    }
    assert ("org.freedesktop.DBus.Debug.Stats", "GetConnectionStats") in asked and len(asked) == 6
    assert asked - allowed == set()


def test_the_unit_is_exposed_little(installed):
    unit = installed.one("billing-service.service")
    done = run("systemd-analyze", "security", "--offline=true", "--threshold=15", "--no-pager", unit)
    assert done.returncode == 0, done.stdout
    loose = re.search(r"exposure level for .*: ([0-9.]+)", done.stdout)
    assert float(loose[1]) <= 1.3


def test_the_unit_is_one_that_systemd_understands(installed, folder):
    """Verifies the unit in a root folder that contains the files it names."""
    unit = installed.one("billing-service.service")
    root = folder / "root"
    there = root / "etc/systemd/system/billing-service.service"
    program = root / installed.place(installed.service).relative_to("/")
    for file, source in ((there, unit), (program, pathlib.Path("/bin/true"))):
        file.parent.mkdir(parents=True)
        shutil.copy(source, file)
    for target in ("sysinit", "basic", "shutdown", "multi-user"):
        (there.parent / f"{target}.target").write_text("[Unit]\nDescription=stand-in\n")
    for name in ("dbus.socket", "system.slice", "tmp.mount", "-.mount"):
        source = pathlib.Path("/lib/systemd/system") / name
        if source.exists():
            shutil.copy(source, there.parent)
    done = run("systemd-analyze", "verify", f"--root={root}", "--man=no", "billing-service.service")
    about = [line for line in done.stderr.splitlines() if "billing-service" in line]
    assert about == [], done.stderr


def test_a_unit_that_systemd_does_not_understand_is_found(installed, folder):
    broken = folder / "billing-service.service"
    broken.write_text(installed.one("billing-service.service").read_text().replace("ProtectSystem=", "ProtectSytem="))
    assert "ProtectSytem" in run("systemd-analyze", "verify", "--man=no", broken).stderr


def test_the_drop_in_for_a_tpm_is_understood(installed, folder):
    unit = folder / "billing-service.service"
    text = (
        installed.one("billing-service.service")
        .read_text()
        .replace(f"ExecStart={installed.place(installed.service)}", "ExecStart=/bin/true")
    )
    unit.write_text(text + installed.one("examples/billing-service-tpm.conf").read_text())
    assert "billing-service" not in run("systemd-analyze", "verify", "--man=no", unit).stderr


def test_the_settings_folder_is_made_for_the_service_alone(installed, folder, accounts):
    rules = installed.one("tmpfiles.d/billing-service.conf").read_text()
    path = rules.splitlines()[-1].split()[1]
    root = folder / "root"
    (root / "etc").mkdir(parents=True)
    for file in (accounts.passwd, accounts.group):
        shutil.copy(file, root / "etc")
    done = run("systemd-tmpfiles", "--create", f"--root={root}", installed.one("tmpfiles.d/billing-service.conf"))
    assert done.returncode == 0, done.stderr
    made = (root / path.lstrip("/")).stat()
    assert (made.st_uid, made.st_gid, made.st_mode & 0o777) == (0, accounts.service_group, 0o750)
