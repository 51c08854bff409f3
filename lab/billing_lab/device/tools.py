"""Finds the programs that a lab runs, in the build folder or installed, and makes the daemon's environment."""
import os
import pathlib
import shutil

from ..folder import Folder, LabError

TREE = pathlib.Path(__file__).resolve().parents[3]
# An installed lab lies in PREFIX/share/billing-lab.
INSTALLED_SERVICE = TREE.parent / "libexec" / "billing-service"
_IN_BUILD = {"billing-provision": "platform/provision/billing-provision", "billingctl": "client/billingctl"}


def service() -> pathlib.Path:
    """@return the daemon: $BILLING_SERVICE, else the one in the build folder, else the installed one. @throw LabError"""
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
    """@return another program: from the daemon's build folder or prefix, else from PATH; None if there is none"""
    home = service().parents[1]
    for candidate in (home / _IN_BUILD[name], home / "bin" / name, home / "sbin" / name):
        if os.access(candidate, os.X_OK):
            return candidate
    found = shutil.which(name)
    return pathlib.Path(found) if found else None


def environment(folder: Folder, bus_address: str, level: str) -> dict[str, str]:
    """The daemon's environment. Its log shows private values: they are test values of the lab."""
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
