"""The programs that a lab runs, those of a build or those that are installed, and what they are told."""
import os
import pathlib
import shutil

from .folder import Folder, LabError

TREE = pathlib.Path(__file__).resolve().parents[2]
# An installed lab lies in PREFIX/share/billing-lab.
INSTALLED_SERVICE = TREE.parent / "libexec" / "billing-service"
_IN_BUILD = {"billing-provision": "platform/provision/billing-provision", "billingctl": "client/billingctl"}


def service() -> pathlib.Path:
    """The daemon: that of $BILLING_SERVICE, else the one of the build folder, else the installed one."""
    named = os.environ.get("BILLING_SERVICE")
    built = TREE / "build" / "service" / "billing-service"
    for candidate in [pathlib.Path(named)] if named else [built, INSTALLED_SERVICE]:
        if os.access(candidate, os.X_OK):
            return candidate.resolve()
    raise LabError(
        f"there is no daemon at {named or built}; build it with "
        "`meson setup build && ninja -C build`, or name one in $BILLING_SERVICE"
    )


def tool(name: str) -> pathlib.Path | None:
    """Another program, of the same build or prefix as the daemon; None when it is not there."""
    home = service().parents[1]
    for candidate in (home / _IN_BUILD[name], home / "bin" / name, home / "sbin" / name):
        if os.access(candidate, os.X_OK):
            return candidate
    found = shutil.which(name)
    return pathlib.Path(found) if found else None


def environment(folder: Folder, bus_address: str, level: str) -> dict[str, str]:
    """What the daemon is told. Its private values are the lab's own, so its log shows them."""
    return {
        "PATH": "/usr/bin:/bin",
        "DBUS_SYSTEM_BUS_ADDRESS": bus_address,
        "PLEVO_DEVICE_CONF": str(folder.settings),
        "PLEVO_LOG_LEVEL": level,
        "PLEVO_LOG_PRIVATE": "show",
        "SOFTHSM2_CONF": str(folder.device / "softhsm2.conf"),
        "XDG_RUNTIME_DIR": str(folder.path / "run"),
        **{name: os.environ[name] for name in ("ASAN_OPTIONS", "LSAN_OPTIONS", "TZ") if name in os.environ},
    }
