"""A PKCS#11 module between the daemon and its token, that goes wrong on demand."""
import os

from . import daemon


def module():
    """The proxy of the same build as the daemon."""
    return daemon.binary().parents[1] / "tests" / "unit" / "platform" / "test-pkcs11-proxy.so"


class TokenProxy:
    """Steers the proxy of one daemon and counts what that has asked the token for."""

    def __init__(self, folder, device):
        """Puts the proxy before the device's token, in a folder of the caller's."""
        self._folder = folder
        self.environment = {"PKCS11_PROXY_REAL": device.settings["keystore"]["module"], "PKCS11_PROXY_FOLDER": str(folder)}
        device.set("keystore", "module", str(module()))

    def goes_wrong(self, fault, delay_ms=0):
        """From now on. "None" makes it whole."""
        fresh = self._folder / "fault.new"
        fresh.write_text(f"{fault} {delay_ms}\n")
        os.replace(fresh, self._folder / "fault")

    def count(self, call):
        """How often it was called so: "login" or "sign"."""
        calls = self._folder / "calls"
        return calls.read_text().split().count(call) if calls.exists() else 0
