"""Runs a program inside a unit's sandbox, without a service manager.

usage: confine.py UNIT UID GID PROGRAM [ARGUMENT...]

Needs to be started as root in a mount namespace of its own. Applies the directives with which a process confines
itself: user and rights, system-call filters, limits, /proc. bubblewrap has set up the view of the file system before.
A directive is only applied when the unit contains it; CONFINED lists the supported ones.
"""
import ctypes
import os
import resource
import signal
import struct
import subprocess
import sys

import seccomp
from seccomp import ALLOW, EQ, ERRNO, GE, MASKED_EQ, Arg

EPERM, EAFNOSUPPORT, ENOSYS = 1, 97, 38
PROT_WRITE_EXEC, PROT_EXEC, SHM_EXEC = 6, 4, 0o100000
NAMESPACES = 0x7E020080
SPECIAL_MODES = (0o4000, 0o2000)
PR_SET_PDEATHSIG, PR_SET_DUMPABLE, PR_CAPBSET_DROP, PR_SET_NO_NEW_PRIVS = 1, 4, 24, 38
MOUNT_ATTR_NOEXEC = 8
FAMILIES = {"AF_UNIX": 1, "AF_INET": 2, "AF_INET6": 10, "AF_NETLINK": 16}
MODES = {"chmod": 1, "fchmod": 1, "fchmodat": 2, "mkdir": 1, "mkdirat": 2, "mknod": 1, "mknodat": 2}

libc = ctypes.CDLL(None, use_errno=True)


def check(result):
    if result != 0:
        raise OSError(ctypes.get_errno(), os.strerror(ctypes.get_errno()))


def without(*rules, error=EPERM):
    """Loads a filter that refuses the calls of its rules."""
    made = seccomp.SyscallFilter(ALLOW)
    for name, *arguments in rules:
        made.add_rule(ERRNO(error), name, *arguments)
    made.load()


def syscalls_of(group):
    """The system calls of one of systemd's groups, including its sub-groups."""
    text = subprocess.run(
        ["systemd-analyze", "syscall-filter", "--no-pager", group], check=True, capture_output=True, text=True
    ).stdout
    found = set()
    for line in text.splitlines()[1:]:
        name = line.split("#")[0].strip()
        found |= syscalls_of(name) if name.startswith("@") else {name} if name else set()
    return found


def filter_of(lines):
    allowed = set()
    for line in lines:
        groups = [syscalls_of(name) if name.startswith("@") else {name} for name in line.lstrip("~").split()]
        allowed = allowed - set().union(*groups) if line.startswith("~") else allowed.union(*groups)
    # systemd always allows these, so that it can start the program.
    allowed |= syscalls_of("@default") | {"execve"}
    made = seccomp.SyscallFilter(ERRNO(EPERM))
    for name in sorted(allowed):
        try:
            made.add_rule(ALLOW, name)
        except RuntimeError:
            pass  # the machine's architecture lacks this call
    return made


def families(value):
    allowed = sorted(FAMILIES[name] for name in value.split())
    bounds = zip([-1, *allowed], [*allowed, None])
    for low, high in bounds:
        if high is None:
            without(("socket", Arg(0, GE, low + 1)), error=EAFNOSUPPORT)
        else:
            for family in range(low + 1, high):
                without(("socket", Arg(0, EQ, family)), error=EAFNOSUPPORT)


def no_code_elsewhere(allowed):
    """Applies NoExecPaths=/ with the exceptions of ExecPaths. Each exception becomes a mount of its own without the
    noexec flag.
    """
    folders = [str(os.path.realpath(path.lstrip("-"))) for path in allowed.split()]
    for folder in filter(os.path.exists, folders):
        check(libc.mount(folder.encode(), folder.encode(), None, 0x5000, None))  # MS_BIND | MS_REC
    attributes = struct.pack("QQQQ", MOUNT_ATTR_NOEXEC, 0, 0, 0)
    check(libc.syscall(442, -100, b"/", 0x8000, attributes, len(attributes)))  # mount_setattr, AT_RECURSIVE
    attributes = struct.pack("QQQQ", 0, MOUNT_ATTR_NOEXEC, 0, 0)
    for folder in filter(os.path.exists, folders):
        check(libc.syscall(442, -100, folder.encode(), 0, attributes, len(attributes)))


def restrict_namespaces(_):
    bits = [1 << at for at in range(32) if NAMESPACES >> at & 1]
    without(*[(call, Arg(0, MASKED_EQ, bit, bit)) for call in ("clone", "unshare") for bit in bits], ("setns",))
    without(("clone3",), error=ENOSYS)


def own_users(uid, gid):
    """Applies PrivateUsers: the namespace contains only the process's own user."""
    check(libc.prctl(PR_SET_DUMPABLE, 1, 0, 0, 0))  # a process that changed its user may not write its id maps otherwise
    check(libc.unshare(0x10000000))
    for name, text in (("setgroups", "deny"), ("uid_map", f"{uid} {uid} 1"), ("gid_map", f"{gid} {gid} 1")):
        with open(f"/proc/self/{name}", "w", encoding="ascii") as file:
            file.write(text)


def drop_rights(_):
    for right in range(64):
        libc.prctl(PR_CAPBSET_DROP, right, 0, 0, 0)


# Order matters: the first directives need rights that later ones remove.
CONFINED = {
    "LimitCORE": lambda value: resource.setrlimit(resource.RLIMIT_CORE, (int(value), int(value))),
    "LimitNOFILE": lambda value: resource.setrlimit(resource.RLIMIT_NOFILE, (int(value), int(value))),
    "UMask": lambda value: os.umask(int(value, 8)),
    "ExecPaths": no_code_elsewhere,
    "NoExecPaths": lambda _: None,  # done by ExecPaths
    "KeyringMode": lambda _: libc.syscall(250, 1, None),  # starts a session keyring of its own
    "ProcSubset": lambda _: check(libc.mount(b"proc", b"/proc", b"proc", 0xE, b"hidepid=invisible,subset=pid")),
    "ProtectProc": lambda _: None,  # done by ProcSubset
    "User": None,
    "Group": None,
    "PrivateUsers": None,
    "CapabilityBoundingSet": drop_rights,
    "AmbientCapabilities": lambda _: libc.prctl(47, 4, 0, 0, 0),
    "NoNewPrivileges": lambda _: check(libc.prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0)),
    "ProtectHostname": lambda _: without(("sethostname",), ("setdomainname",)),
    "ProtectClock": lambda _: without(*[(name,) for name in ("settimeofday", "clock_settime", "adjtimex", "clock_adjtime")]),
    "ProtectKernelLogs": lambda _: without(("syslog",)),
    "ProtectKernelModules": lambda _: without(*[(name,) for name in ("init_module", "finit_module", "delete_module")]),
    "RestrictSUIDSGID": lambda _: without(
        *[(call, Arg(at, MASKED_EQ, mode, mode)) for call, at in MODES.items() for mode in SPECIAL_MODES]
    ),
    "RestrictRealtime": lambda _: without(*[("sched_setscheduler", Arg(1, EQ, policy)) for policy in (1, 2, 6)]),
    "RestrictNamespaces": restrict_namespaces,
    "LockPersonality": lambda _: without(("personality", Arg(0, GE, 1))),
    "MemoryDenyWriteExecute": lambda _: without(
        ("mmap", Arg(2, MASKED_EQ, PROT_WRITE_EXEC, PROT_WRITE_EXEC)),
        ("mprotect", Arg(2, MASKED_EQ, PROT_EXEC, PROT_EXEC)),
        ("pkey_mprotect", Arg(2, MASKED_EQ, PROT_EXEC, PROT_EXEC)),
        ("shmat", Arg(2, MASKED_EQ, SHM_EXEC, SHM_EXEC)),
    ),
    "RestrictAddressFamilies": families,
    # A filter kills calls of a foreign architecture by itself.
    "SystemCallArchitectures": lambda _: None,
    "SystemCallErrorNumber": lambda _: None,  # done by SystemCallFilter
}


def read(unit, wanted="[Service]"):
    """Reads one section of the unit.
    @return its directives, each with its values
    """
    found, group = {}, ""
    with open(unit, encoding="utf-8") as lines:
        for line in map(str.strip, lines):
            if line.startswith("["):
                group = line
            elif group == wanted and line and not line.startswith("#"):
                name, _, value = line.partition("=")
                found.setdefault(name, []).append(value)
    return found


def main(unit, uid, gid, *program):
    directives = read(unit)
    uid, gid = int(uid), int(gid)
    calls = filter_of(directives["SystemCallFilter"])
    for name, confine in CONFINED.items():
        if name == "User" and name in directives:
            os.setgroups([])
            os.setresgid(gid, gid, gid)
            os.setresuid(uid, uid, uid)
            # Changing the user has cleared this setting. With it the process ends together with bubblewrap, also after
            # a failed test.
            check(libc.prctl(PR_SET_PDEATHSIG, signal.SIGKILL, 0, 0, 0))
        elif name == "PrivateUsers" and name in directives:
            own_users(uid, gid)
        elif confine is not None and name in directives:
            confine(" ".join(directives[name]) if name == "ExecPaths" else directives[name][-1])
    calls.load()
    os.execv(program[0], program)


if __name__ == "__main__":
    main(*sys.argv[1:])
