"""Gives the daemon its own files at the two paths that are fixed in it, by a mount namespace and without root."""
import json
import os
import pathlib
import shutil
import subprocess
from collections.abc import Sequence

AUTHORITY = "/opt/down/cert"
CERTIFICATES = "/usr/apps/org.plevo.billing-api/res/certificate"

NO_NAMESPACES = (
    "the daemon's view of its two folders of certificates needs bubblewrap and mount namespaces, which are not "
    "allowed here. An ordinary user may have them with `sysctl kernel.unprivileged_userns_clone=1` "
    "and `sysctl user.max_user_namespaces=10000`; a container needs them from its host "
    "(for instance `--cap-add SYS_ADMIN --security-opt seccomp=unconfined`)"
)


def bubblewrap(ca_folder: pathlib.Path | str, certificates: pathlib.Path | str) -> list[str]:
    """@return a command line to put before a command, which then sees the two folders at the fixed paths: /opt is otherwise
    empty, /usr otherwise the machine's"""
    command = [
        "bwrap",
        "--die-with-parent",
        "--cap-drop",
        "ALL",
        "--dev-bind",
        "/",
        "/",
        "--tmpfs",
        "/opt",
        "--ro-bind",
        str(ca_folder),
        AUTHORITY,
        "--tmpfs",
        "/usr",
    ]
    for entry in os.scandir("/usr"):
        if entry.is_symlink():
            command += ["--symlink", os.readlink(entry.path), entry.path]
        else:
            command += ["--ro-bind", entry.path, entry.path]
    return [*command, "--ro-bind", str(certificates), CERTIFICATES]


def why_no_view() -> str | None:
    """@return None if bubblewrap works, else the reason and what to do"""
    if shutil.which("bwrap") is None:
        return "bubblewrap is not installed (apt install bubblewrap)"
    if not os.path.isdir("/opt"):
        return "there is no folder /opt to put the daemon's own one over"
    tried = subprocess.run([*bubblewrap("/tmp", "/tmp"), "--unshare-net", "true"], capture_output=True, text=True, check=False)
    return None if tried.returncode == 0 else f"{NO_NAMESPACES} ({tried.stderr.strip()})"


# bubblewrap asks the kernel to end it with its parent (--die-with-parent), but only some milliseconds after its start. A
# parent that ends earlier would leave it running. So a shell runs bubblewrap, and a second shell reads from a pipe whose
# writing end the starter has: when the pipe ends, it kills the whole process group.
_GUARD = """exec 3<&0
(read -r _ <&3; kill -KILL 0) &
"$@" </dev/null 3<&-
status=$?
kill $!
exit $status"""
GUARD = ("setpriv", "--pdeathsig", "KILL", "sh", "-c", _GUARD, "guard")


def start(
    prefix: Sequence[str], command: Sequence[str], *, handed_on: Sequence[int] = (), **options
) -> tuple[subprocess.Popen, int]:
    """Starts a command with a prefix that ends with bubblewrap().

    @return the prefix's process, and the process id of the command; 0 if it did not start
    """
    told, tell = os.pipe()
    process = subprocess.Popen(
        [*prefix, "--info-fd", str(tell), "--", *command], pass_fds=(tell, *handed_on), start_new_session=True, **options
    )
    os.close(tell)
    with open(told, encoding="utf-8") as info:
        text = ""
        # Not read to its end: a guard keeps the writing end open.
        while not text.endswith("}\n") and (line := info.readline()):
            text += line
    return process, json.loads(text or "{}").get("child-pid", 0)
