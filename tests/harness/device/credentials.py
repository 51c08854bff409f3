"""Credentials of a device: a token with its key, and the certificate of that key."""
import configparser
import os
import pathlib
import shutil
import subprocess

from cryptography import x509

from .. import daemon
from . import certificates
from .certificates import A_DAY


def provision_tool():
    """Path of the billing-provision of the daemon's build."""
    return daemon.binary().parents[1] / "platform" / "provision" / "billing-provision"


def issue(public_key, subject, authority, begin=-A_DAY, end=A_DAY):
    """A certificate in PEM form, signed by the authority of a device maker.

    @param authority  the folder with its ca.pem and ca.key
    @param begin, end  of the validity, from now
    """
    return certificates.certify(
        (authority / "ca.pem").read_bytes(), (authority / "ca.key").read_bytes(), public_key, subject, (begin, end)
    )


class Credentials:
    """A device made by billing-provision in a folder of the caller's: root certificate of its authority,
    its own certificate, and its token."""

    def __init__(self, folder):
        self.folder = pathlib.Path(folder)
        self.authority = self.folder / "ca.pem"
        self.token = self.folder / "tokens"
        self.environment = {"SOFTHSM2_CONF": str(self.folder / "softhsm2.conf")}
        self.certificates = self.folder / "certificate"
        self.certificate = self.certificates / "bgclient.crt"

    @classmethod
    def make(cls, folder):
        made = cls(folder)
        subprocess.run(
            [provision_tool(), "lab", folder], check=True, capture_output=True, env={**os.environ, **daemon.SANITIZERS}
        )
        # A separate folder, since the daemon's view has only this part of the device.
        made.certificates.mkdir()
        shutil.move(made.folder / "bgclient.crt", made.certificate)
        return made

    def copy_to(self, folder):
        """A copy of the device, whose token a test may break or remove."""
        copied = type(self)(folder)
        shutil.copytree(self.folder, copied.folder)
        for name in ("device.conf", "softhsm2.conf"):
            file = copied.folder / name
            file.write_text(file.read_text().replace(str(self.folder), str(copied.folder)))
        return copied

    def certify(self, public_key=None, validity=certificates.VALID):
        """@return a certificate like the device's own, for another key or another validity"""
        own = x509.load_pem_x509_certificate(self.certificate.read_bytes())
        return issue(public_key or own.public_key(), own.subject, self.folder, *validity)

    def reissue(self, begin, end):
        """Installs another certificate of the same key, with this validity relative to now."""
        self.install(self.certify(validity=(begin, end)))

    def install(self, pem):
        """Replaces the device's certificate."""
        fresh = self.certificates / "new"
        fresh.write_bytes(pem)
        os.replace(fresh, self.certificate)

    def pull(self):
        """Removes the token, as if it was unplugged."""
        self.token.rename(self.folder / "pulled")
        self.token.mkdir()

    def put_back(self):
        shutil.rmtree(self.token)
        (self.folder / "pulled").rename(self.token)

    @property
    def settings(self):
        """The settings that name the key and its store, by group."""
        read = configparser.ConfigParser(delimiters="=", interpolation=None)
        read.read(self.folder / "device.conf")
        return {
            "deployment": {key: read["deployment"][key] for key in ("credential", "key_id")},
            "keystore": dict(read["keystore"]),
        }
