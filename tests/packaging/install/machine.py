"""A Debian in a folder."""
import pathlib
import subprocess

TREE = pathlib.Path(__file__).resolve().parents[3]


def run(*command, **options):
    done = subprocess.run(command, capture_output=True, text=True, check=False, **options)
    assert done.returncode == 0, f"{command}\n{done.stdout[-4000:]}\n{done.stderr[-4000:]}"
    return done.stdout


class Machine:
    """A Debian in a folder."""

    # Enters a PID namespace, so that all processes end with the command. chroot is no choice: in a chroot the kernel
    # denies users new namespaces, and the lab needs them.
    ENTER = [
        "unshare",
        "--mount",
        "--pid",
        "--fork",
        "--kill-child",
        "sh",
        "-ec",
        'mount --make-rprivate / && mount --bind "$0" "$0" && cd "$0" && mount -t proc proc proc && '
        "mount --rbind /dev dev && mount -t tmpfs tmpfs run && pivot_root . mnt && cd / && "
        'umount --lazy mnt && exec "$@"',
    ]

    def __init__(self, root):
        self.root = root

    def do(self, script, timeout=300):
        """Runs a shell script in that Debian, as root.
        @return its output
        """
        return run(
            *self.ENTER,
            self.root,
            "/bin/sh",
            "-ec",
            script,
            timeout=timeout,
            env={
                "PATH": "/usr/sbin:/usr/bin:/sbin:/bin",
                "LC_ALL": "C.UTF-8",
                "HOME": "/root",
                "DEBIAN_FRONTEND": "noninteractive",
            },
        )

    def files(self):
        """Every file and folder with its type, rights and owner, without the records of package managers and logs."""
        listed = self.do(
            r"find / -xdev \( -path /proc -o -path /dev -o -path /run -o -path /sys -o -path /tmp "
            r"-o -path /var/log -o -path /var/cache -o -path /var/lib/dpkg -o -path /var/lib/apt "
            r"-o -path /packages \) -prune -o -printf '%p %y%m %u:%g %l\n'"
        )
        # Backup files of the user database remain, as after each change of it.
        return {
            line
            for line in listed.splitlines()
            if not line.startswith(("/etc/passwd-", "/etc/group-", "/etc/shadow-", "/etc/gshadow-"))
        }

    def users(self):
        return [(self.root / "etc" / name).read_text(encoding="utf-8") for name in ("passwd", "group")]
