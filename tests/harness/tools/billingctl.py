"""Runs the billingctl of the daemon's build."""
import os
import pty
import subprocess

from .. import daemon

DONE, FAILED, USAGE, TRANSFER, REFUSED, UNREACHABLE, WARNING = range(7)


def program():
    return daemon.binary().parents[1] / "client" / "billingctl"


def environment(bus):
    # A sanitizer's dlopen() takes the program's place, and does not look where the program says.
    library = program().parents[1] / "platform" / "linux"
    return {
        "PATH": "/usr/bin:/bin",
        "DBUS_SYSTEM_BUS_ADDRESS": bus.address,
        "LD_LIBRARY_PATH": str(library),
        **daemon.SANITIZERS,
    }


def run(bus, *arguments, **variables):
    """@return the finished process, with its output as text"""
    return subprocess.run(
        [program(), *arguments], capture_output=True, text=True, check=False, timeout=120, env={**environment(bus), **variables}
    )


def on_a_terminal(bus, *arguments, **variables):
    """The output on a terminal."""
    ours, theirs = pty.openpty()
    process = subprocess.Popen(
        [program(), *arguments], stdout=theirs, stderr=theirs, env={**environment(bus), "TERM": "xterm", **variables}
    )
    os.close(theirs)
    text = b""
    try:
        while part := os.read(ours, 4096):
            text += part
    except OSError:
        pass  # reading a closed terminal fails
    process.wait()
    os.close(ours)
    return text.decode().replace("\r\n", "\n")
