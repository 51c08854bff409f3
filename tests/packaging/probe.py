"""Tries the actions that a sandbox has to forbid, and prints the result of each, as JSON.

usage: probe.py OTHER OUTSIDE STATE FOLDER
OTHER is a process of another user, OUTSIDE a file in /tmp, STATE a folder of the service, FOLDER its parent.
"""
import ctypes
import json
import mmap
import os
import pathlib
import resource
import socket
import sys

libc = ctypes.CDLL(None, use_errno=True)
libc.mmap.restype = ctypes.c_void_p
libc.mmap.argtypes = [ctypes.c_void_p, ctypes.c_size_t, *[ctypes.c_int] * 3, ctypes.c_long]


def did(result):
    """Raises the error of a C function that returned a negative number."""
    if result < 0:
        raise OSError(ctypes.get_errno(), os.strerror(ctypes.get_errno()))


def has(condition):
    if not condition:
        raise OSError(0, "not there")


def child(action):
    """Runs the action in a child process, so that its changes end with it."""
    pid = os.fork()
    if pid == 0:
        try:
            action()
            os._exit(0)
        except OSError as error:
            os._exit(error.errno or 1)
    status = os.waitstatus_to_exitcode(os.waitpid(pid, 0)[1])
    if status != 0:
        raise OSError(status, os.strerror(abs(status)))


def writable_code(_=None):
    address = libc.mmap(None, 4096, mmap.PROT_WRITE | mmap.PROT_EXEC, mmap.MAP_PRIVATE | mmap.MAP_ANONYMOUS, -1, 0)
    has(address not in (None, ctypes.c_void_p(-1).value))


def write(path):
    file = pathlib.Path(path) / "billing-probe"
    file.write_text("x", encoding="ascii")
    file.unlink()


def code_of(file):
    """Maps machine code of a file as executable, without calling it."""
    os.write(file, b"\xc3" * 4096)
    address = libc.mmap(None, 4096, mmap.PROT_READ | mmap.PROT_EXEC, mmap.MAP_PRIVATE, file, 0)
    os.close(file)
    has(address not in (None, ctypes.c_void_p(-1).value))


def code_in(folder):
    path = pathlib.Path(folder) / "billing-probe-code"
    try:
        code_of(os.open(path, os.O_RDWR | os.O_CREAT, 0o700))
    finally:
        path.unlink()


def program_in(folder):
    path = pathlib.Path(folder) / "billing-probe-program"
    path.write_text("#!/bin/true\n", encoding="ascii")
    os.chmod(path, 0o700)
    try:
        child(lambda: os.execv(path, [str(path)]))
    finally:
        path.unlink()


def special(folder):
    file = pathlib.Path(folder) / "special"
    file.touch()
    try:
        os.chmod(file, 0o4755)
    finally:
        file.unlink()


def probes(other, outside, state, folder):
    clock = ctypes.create_string_buffer(208)
    return {
        "ProtectSystem: writes /var": lambda: write("/var/lib"),
        "ProtectSystem: writes the settings' folder": lambda: write(folder),
        "ReadOnlyPaths: writes locks of others": lambda: write("/run/lock"),
        "ProtectHome: sees /root": lambda: has(os.listdir("/root")),
        "PrivateTmp: sees files of others in /tmp": lambda: has(os.path.exists(outside)),
        "PrivateDevices: has the kernel's log": lambda: has(os.path.exists("/dev/kmsg")),
        "PrivateUsers: knows of other users": lambda: has(
            any(int(line.split()[2]) > 1 for line in pathlib.Path("/proc/self/uid_map").read_text().splitlines())
        ),
        "ProtectProc: sees processes of others": lambda: has(os.path.exists(f"/proc/{other}")),
        "ProcSubset: sees the kernel's settings": lambda: has(os.path.exists("/proc/sys")),
        "ProtectKernelTunables: writes /sys": lambda: has(os.access("/sys/kernel", os.W_OK)),
        "ProtectControlGroups: writes control groups": lambda: has(os.access("/sys/fs/cgroup", os.W_OK)),
        "ProtectHostname: names the machine": lambda: child(
            lambda: (did(libc.unshare(0x04000000)), did(libc.sethostname(b"x", 1)))
        ),
        "ProtectClock: asks to set the clock": lambda: did(libc.adjtimex(clock)),
        "ProtectKernelLogs: reads the kernel's log": lambda: did(libc.klogctl(10, None, 0)),
        "LimitCORE: may leave a core": lambda: has(resource.getrlimit(resource.RLIMIT_CORE)[1] != 0),
        "LimitNOFILE: opens thousands of files": lambda: has(resource.getrlimit(resource.RLIMIT_NOFILE)[1] > 1024),
        "UMask: makes files for others": lambda: child(lambda: has(os.umask(0) != 0o77)),
        "CapabilityBoundingSet: has rights to gain": lambda: has(bounding() != 0),
        "NoNewPrivileges: may gain rights": lambda: has(libc.prctl(39, 0, 0, 0, 0) == 0),
        "RestrictSUIDSGID: makes a program run as its owner": lambda: special(state),
        "RestrictRealtime: takes the processor": lambda: child(
            lambda: os.sched_setscheduler(0, os.SCHED_RR, os.sched_param(1))
        ),
        "RestrictNamespaces: makes a namespace": lambda: child(lambda: did(libc.unshare(0x10000000))),
        "LockPersonality: changes its personality": lambda: child(lambda: did(libc.personality(0x0040000))),
        "MemoryDenyWriteExecute: writes code": writable_code,
        "NoExecPaths: runs code of a file of its own": lambda: code_in(state),
        "NoExecPaths: runs code of a file in /tmp": lambda: code_in("/tmp"),
        "NoExecPaths: runs code of a file in /dev/shm": lambda: code_in("/dev/shm"),
        "NoExecPaths: runs a program of its own": lambda: program_in(state),
        "NoExecPaths: runs a shell": lambda: child(lambda: os.execv("/bin/sh", ["sh", "-c", "exit 0"])),
        "memfd_create: runs code of no file": lambda: code_of(os.memfd_create("x")),
        "RestrictAddressFamilies: sees packets": lambda: socket.socket(socket.AF_PACKET, socket.SOCK_RAW).close(),
        "SystemCallFilter: mounts": lambda: child(
            lambda: (did(libc.unshare(0x00020000)), did(libc.mount(b"none", b"/mnt", b"tmpfs", 0, None)))
        ),
        "SystemCallFilter: takes a priority": lambda: os.setpriority(os.PRIO_PROCESS, 0, os.getpriority(os.PRIO_PROCESS, 0)),
    }


def bounding():
    text = pathlib.Path("/proc/self/status").read_text(encoding="ascii")
    return int(text.split("CapBnd:")[1].split()[0], 16)


def outcome(action):
    try:
        action()
    except OSError as error:
        return str(error)
    return "done"


def main(other, outside, state, folder):
    told = {name: outcome(action) for name, action in probes(other, outside, state, folder).items()}
    told["writes its own state"] = outcome(lambda: write(state))
    told["is"] = [os.getuid(), os.getgid()]
    print(json.dumps(told))


if __name__ == "__main__":
    main(*sys.argv[1:])
