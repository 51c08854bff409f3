"""What a device proves itself with: a token with its key, and the certificate for that key."""
import configparser
import datetime
import os
import pathlib
import shutil
import subprocess

from cryptography import x509
from cryptography.hazmat.primitives import hashes, serialization

from . import daemon

A_DAY = datetime.timedelta(days=1)


def provision_tool():
    """billing-provision of the same build as the daemon."""
    return daemon.binary().parents[1] / "platform" / "linux" / "provision" / "billing-provision"


def issue(public_key, subject, authority, begin=-A_DAY, end=A_DAY):
    """A certificate as a device maker's authority signs it, as PEM.

    @param authority  the folder with its ca.pem and ca.key
    @param begin, end  of the validity, from now
    """
    issuer = x509.load_pem_x509_certificate((authority / "ca.pem").read_bytes())
    key = serialization.load_pem_private_key((authority / "ca.key").read_bytes(), None)
    now = datetime.datetime.now(datetime.timezone.utc)
    signed = (x509.CertificateBuilder().subject_name(subject).issuer_name(issuer.subject)
              .public_key(public_key).serial_number(x509.random_serial_number())
              .not_valid_before(now + begin).not_valid_after(now + end)
              .sign(key, hashes.SHA256()))
    return signed.public_bytes(serialization.Encoding.PEM)


class Credentials:
    """A device made by billing-provision, in a folder of the caller's: its authority's root
    certificate, its own certificate, and its token."""

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
        subprocess.run([provision_tool(), "lab", folder], check=True, capture_output=True,
                       env={**os.environ, **daemon.SANITIZERS})
        # A folder of its own: the daemon sees nothing else of this one.
        made.certificates.mkdir()
        shutil.move(made.folder / "bgclient.crt", made.certificate)
        return made

    def copy_to(self, folder):
        """The same device once more, with a token that may be broken or taken away."""
        copied = type(self)(folder)
        shutil.copytree(self.folder, copied.folder)
        for name in ("device.conf", "softhsm2.conf"):
            file = copied.folder / name
            file.write_text(file.read_text().replace(str(self.folder), str(copied.folder)))
        return copied

    def reissue(self, begin, end):
        """Another certificate for the same key, valid between these times from now."""
        old = x509.load_pem_x509_certificate(self.certificate.read_bytes())
        self.certificate.write_bytes(
            issue(old.public_key(), old.subject, self.folder, begin, end))

    @property
    def settings(self):
        """The settings that name the key and its store, by group."""
        read = configparser.ConfigParser(delimiters="=", interpolation=None)
        read.read(self.folder / "device.conf")
        return {"deployment": {key: read["deployment"][key] for key in ("credential", "key_id")},
                "keystore": dict(read["keystore"])}
