"""A PKCS#11 module between the daemon and its token, with faults on demand."""
import os

from .. import daemon


def module():
    """Path of the proxy of the daemon's build."""
    return daemon.binary().parents[1] / "tests" / "support" / "test-pkcs11-proxy.so"


class TokenProxy:
    """Steers the proxy of one daemon and counts its calls."""

    def __init__(self, folder, device):
        """Installs the proxy in front of the device's token, in a folder of the caller's."""
        self._folder = folder
        self.environment = {"PKCS11_PROXY_REAL": device.settings["keystore"]["module"], "PKCS11_PROXY_FOLDER": str(folder)}
        device.set("keystore", "module", str(module()))

    def goes_wrong(self, fault, delay_ms=0):
        """Sets the fault of all later calls; "None" ends it."""
        fresh = self._folder / "fault.new"
        fresh.write_text(f"{fault} {delay_ms}\n")
        os.replace(fresh, self._folder / "fault")

    def count(self, call):
        """Number of calls of a kind: "login" or "sign"."""
        calls = self._folder / "calls"
        return calls.read_text().split().count(call) if calls.exists() else 0
