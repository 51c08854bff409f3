"""A machine with a booted systemd: the files of this machine with a writable layer that is discarded at the end.

Its processes, mounts, network, control group and host name are separate. Needs root and cgroup v2 with a control
group in which a sub-group can be created.
"""
import os
import pathlib
import re
import signal
import subprocess
import time

MACHINE = """
mount --make-rprivate /
mount -t tmpfs tmpfs "$1"
mkdir "$1/upper" "$1/work" "$1/root"
mount -t overlay overlay -o "lowerdir=/,upperdir=$1/upper,workdir=$1/work" "$1/root"
cd "$1/root"
# The bus is dbus-daemon, whatever this machine has.
rm -f etc/systemd/system/dbus.service
mount -t proc proc proc
mount -t sysfs -o ro sysfs sys
mount -t cgroup2 cgroup2 sys/fs/cgroup
mount -t tmpfs tmpfs dev
for name in null zero full random urandom tty; do touch "dev/$name"; mount --bind "/dev/$name" "dev/$name"; done
ln -s /proc/self/fd dev/fd
ln -s pts/ptmx dev/ptmx
mkdir dev/shm dev/pts
mount -t devpts -o newinstance,ptmxmode=0666,mode=620 devpts dev/pts
mount -t tmpfs tmpfs run
mount -t tmpfs tmpfs tmp
mkdir tmp/installed
mount --bind "$2" tmp/installed
pivot_root . mnt
cd /
umount --lazy mnt
ip link set lo up
echo "the machine is set up" >&2
exec env -i container=billing PATH=/usr/sbin:/usr/bin:/sbin:/bin \
    /lib/systemd/systemd --system --unit=basic.target --log-target=journal
"""


def cgroup_root():
    """Path of the cgroup v2 file system.
    @return None when it is not mounted
    """
    for line in pathlib.Path("/proc/self/mounts").read_text(encoding="utf-8").splitlines():
        _, place, kind, options = line.split()[:4]
        if kind == "cgroup2" and "rw" in options.split(","):
            return pathlib.Path(place)
    return None


class Refused(Exception):
    """This machine's kernel does not permit, or does not have, what a machine of its own needs."""


# What mount, unshare and the shell say then.
REFUSALS = re.compile(
    "Operation not permitted|Permission denied|permission denied|unknown filesystem type|Function not implemented"
)


class Machine:
    """A machine with a booted systemd."""

    def __init__(self, folder, installed, setup=MACHINE):
        self._group = cgroup_root() / f"billing-test-{os.getpid()}-{time.monotonic_ns()}"
        try:
            self._group.mkdir()
        except PermissionError as error:
            raise Refused(error) from error
        self._process = None
        try:
            folder.mkdir()
            self._process = subprocess.Popen(
                [
                    "sh",
                    "-ec",
                    'echo $$ >"$3/cgroup.procs"; exec setpriv --pdeathsig KILL '
                    'unshare --mount --pid --ipc --uts --net --cgroup --fork --kill-child sh -ec "$0" machine "$1" "$2"',
                    setup,
                    folder,
                    installed,
                    self._group,
                ],
                stdin=subprocess.DEVNULL,
                stdout=subprocess.DEVNULL,
                stderr=subprocess.PIPE,
                text=True,
            )
            self._wait_for_systemd()
        except BaseException:
            self.stop()
            raise

    def _wait_for_systemd(self):
        end = time.monotonic() + 60
        state = ""
        while state not in ("running", "degraded"):
            if self._process.poll() is not None:
                said = self._process.stderr.read().strip()
                if "the machine is set up" not in said and REFUSALS.search(said):
                    raise Refused(said)
                raise AssertionError(f"systemd did not start: {said}")
            assert time.monotonic() < end, f"systemd is not up after 60 s: {state}"
            time.sleep(0.1)
            state = self.run("systemctl", "is-system-running").stdout.strip()

    def _init(self):
        children = pathlib.Path(f"/proc/{self._process.pid}/task/{self._process.pid}/children")
        return children.read_text(encoding="ascii").split()[0]

    def run(self, *command, timeout=60, check=False):
        """Runs one command in the machine, as root."""
        try:
            init = self._init()
        except (OSError, IndexError):
            return subprocess.CompletedProcess(command, 1, "", "no process 1 yet")
        return subprocess.run(
            [
                "nsenter",
                "--target",
                init,
                "--mount",
                "--pid",
                "--ipc",
                "--uts",
                "--net",
                "--cgroup",
                "env",
                "-i",
                "PATH=/usr/local/sbin:/usr/local/bin:/usr/sbin:/usr/bin:/sbin:/bin",
                "LC_ALL=C.UTF-8",
                "HOME=/root",
                *map(str, command),
            ],
            capture_output=True,
            text=True,
            timeout=timeout,
            check=check,
        )

    def do(self, script, timeout=120):
        """Runs a shell script in the machine.
        @return its output
        """
        done = self.run("sh", "-ec", script, timeout=timeout)
        assert done.returncode == 0, f"{script}\n{done.stdout[-4000:]}\n{done.stderr[-4000:]}"
        return done.stdout

    def write(self, path, text):
        """Writes a file in the machine and makes its parent folders."""
        self.do(
            f"mkdir -p {pathlib.Path(path).parent} && cat >{path} <<'END-OF-FILE'\n{text}\nEND-OF-FILE\n"
            f"truncate -s -1 {path}"
        )

    def stop(self):
        if self._process is not None:
            if self._process.poll() is None:
                try:
                    os.kill(int(self._init()), signal.SIGKILL)
                except (OSError, IndexError):
                    self._process.kill()
            self._process.wait()
            self._process.stderr.close()
        for folder, _, _ in os.walk(self._group, topdown=False):
            end = time.monotonic() + 10
            while True:
                try:
                    os.rmdir(folder)
                    break
                except OSError:
                    if time.monotonic() > end:
                        raise
                    time.sleep(0.05)
