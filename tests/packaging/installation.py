"""The effects of an installation on a machine, and a bus with them: files, accounts, policy."""
import contextlib
import os
import pathlib
import shutil
import subprocess
import time

from billing_lab.device import bus as message_bus
from harness import daemon

TREE = pathlib.Path(__file__).resolve().parents[2]
SERVICE_USER, CALLERS = "billing-service", "billing"
# Accounts of the tests, with ids that no installed file contains.
MEMBER, MAIN_MEMBER, STRANGER = 61001, 61002, 61003


# The system bus has the same rule.
NO_STATISTICS = '    <deny send_destination="org.freedesktop.DBus" send_interface="org.freedesktop.DBus.Debug.Stats"/>\n'


class Installed:
    """The files that `meson install` puts into a folder."""

    def __init__(self, folder):
        build = daemon.binary().parents[1]
        subprocess.run(
            ["meson", "install", "-C", build, "--no-rebuild", "--destdir", folder], check=True, capture_output=True, text=True
        )
        self.root = pathlib.Path(folder)
        self.service = self.one("libexec/billing-service")
        self.libraries = self.one("libbilling-platform.so.1").parent

    def one(self, end):
        """The only file whose path ends like this."""
        found = [path for path in self.root.rglob("*") if str(path).endswith("/" + end)]
        assert len(found) == 1, (end, found)
        return found[0]

    def place(self, path):
        """Path of the file on a machine with this installation."""
        return pathlib.Path("/") / path.relative_to(self.root)


class Accounts:
    """/etc/passwd and /etc/group of a machine with this installation."""

    def __init__(self, folder, rules):
        etc = pathlib.Path(folder) / "etc"
        etc.mkdir(parents=True)
        for name in ("passwd", "group"):
            shutil.copy(f"/etc/{name}", etc)
        subprocess.run(["systemd-sysusers", f"--root={folder}", rules], check=True, capture_output=True)
        self.passwd, self.group = etc / "passwd", etc / "group"
        self.service, self.service_group = self._entry(self.passwd, SERVICE_USER)[2:4]
        self.callers = self._entry(self.group, CALLERS)[2]
        with open(self.passwd, "a", encoding="utf-8") as users:
            users.write(
                f"pack-member:x:{MEMBER}:{MEMBER}::/:/bin/sh\n"
                f"pack-main:x:{MAIN_MEMBER}:{self.callers}::/:/bin/sh\n"
                f"pack-stranger:x:{STRANGER}:{STRANGER}::/:/bin/sh\n"
            )
        # The bus reads the members of a group from the database; the kernel gets a process's groups from setpriv.
        lines = self.group.read_text(encoding="utf-8").splitlines()
        self.group.write_text(
            "".join(line + ("pack-member" if line.startswith(f"{CALLERS}:") else "") + "\n" for line in lines)
        )

    @staticmethod
    def _entry(file, name):
        fields = next(line.split(":") for line in file.read_text(encoding="utf-8").splitlines() if line.startswith(name + ":"))
        return [int(field) if field.isdigit() else field for field in fields]

    def run_as(self, who):
        """A command prefix that runs a command as this user."""
        uid, gid, groups = {
            "service": (self.service, self.service_group, None),
            "member": (MEMBER, MEMBER, self.callers),
            "main member": (MAIN_MEMBER, self.callers, None),
            "stranger": (STRANGER, STRANGER, None),
            "root": (0, 0, None),
        }[who]
        return ["setpriv", f"--reuid={uid}", f"--regid={gid}", f"--groups={groups}" if groups else "--clear-groups"]

    @contextlib.contextmanager
    def acting_as_member(self):
        """Connections that this process opens meanwhile come from a user who may call the service."""
        before = os.getegid(), os.geteuid()
        os.setegid(self.callers)
        os.seteuid(MAIN_MEMBER)
        try:
            yield
        finally:
            os.seteuid(before[1])
            os.setegid(before[0])


class PolicyBus:
    """A bus like the system bus with the installed policy, the activation file and the accounts."""

    def __init__(self, folder, installed, accounts, names=(), arguments=()):
        self.address = f"unix:path={folder}/bus"
        policy = installed.one("system.d/org.plevo.billingservice.conf")
        services = installed.one("system-services/org.plevo.billingservice.service").parent
        configuration = folder / "bus.conf"
        configuration.write_text(
            message_bus.CONFIGURATION.format(
                address=self.address,
                names="".join(f'    <allow own="{name}"/>\n' for name in names),
                rules=NO_STATISTICS,
                limits=f"  <servicedir>{services}</servicedir>\n  <include>{policy}</include>\n",
            )
        )
        self.process = subprocess.Popen(
            [
                "bwrap",
                "--die-with-parent",
                "--dev-bind",
                "/",
                "/",
                "--ro-bind",
                accounts.passwd,
                "/etc/passwd",
                "--ro-bind",
                accounts.group,
                "/etc/group",
                "dbus-daemon",
                f"--config-file={configuration}",
                "--nofork",
                "--nopidfile",
                "--print-address",
                *arguments,
            ],
            stdout=subprocess.PIPE,
            text=True,
        )
        assert self.process.stdout.readline(), "dbus-daemon did not start"

    def stop(self):
        self.process.kill()
        self.process.wait()
        self.process.stdout.close()


def wait_for_name(address, process, log, timeout=20):
    caller = message_bus.Caller(address)
    end = time.monotonic() + timeout
    while caller.owner() is None:
        assert process.poll() is None and time.monotonic() < end, pathlib.Path(log).read_text()
        time.sleep(0.01)
    caller.close()
