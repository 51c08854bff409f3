"""Helpers of these tests: run billing-provision and make its input."""

import datetime
import os
import pathlib
import resource
import signal
import subprocess
import sys

from cryptography import x509
from cryptography.hazmat.primitives import hashes, serialization
from cryptography.x509.oid import NameOID

sys.path.insert(0, str(pathlib.Path(__file__).resolve().parents[2] / "lab"))

from billing_lab.device import view  # noqa: E402

TOOL = os.environ["BILLING_PROVISION"]
DONE, FAILED, USAGE, EXISTS, MISMATCH = range(5)
NO_VIEW = view.why_no_view()


def run(*arguments, folder=None, stdin=b"", umask=0, stdout=subprocess.PIPE, file_size=None, prefix=(), **variables):
    def limits():
        os.umask(umask)
        if file_size is not None:
            signal.signal(signal.SIGXFSZ, signal.SIG_IGN)
            resource.setrlimit(resource.RLIMIT_FSIZE, (file_size, file_size))

    environment = {key: value for key, value in os.environ.items() if key not in ("PLEVO_DEVICE_CONF", "SOFTHSM2_CONF")}
    if folder is not None:
        environment["PLEVO_DEVICE_CONF"] = f"{folder}/device.conf"
        environment["SOFTHSM2_CONF"] = f"{folder}/softhsm2.conf"
    environment.update(variables)
    return subprocess.run(
        [*prefix, TOOL, *map(str, arguments)],
        input=stdin,
        env=environment,
        timeout=300,  # Emulated 32-bit ARM beside other work needs more than 60 s for the RSA keys of a lab.
        stdout=stdout,
        stderr=subprocess.PIPE,
        preexec_fn=limits,
        check=False,
    )


def must(result, code=DONE):
    assert result.returncode == code, result.stderr.decode()
    return result


def certificate(path):
    return x509.load_pem_x509_certificate(path.read_bytes())


def settings(folder):
    lines = (folder / "device.conf").read_text().splitlines()
    return dict(line.split("=", 1) for line in lines if "=" in line)


def change_setting(folder, key, value):
    text = (folder / "device.conf").read_text()
    lines = [f"{key}={value}" if line.startswith(key + "=") else line for line in text.splitlines()]
    (folder / "device.conf").write_text("\n".join(lines) + "\n")


def pem_of(key, encryption=serialization.NoEncryption()):
    return key.private_bytes(serialization.Encoding.PEM, serialization.PrivateFormat.PKCS8, encryption)


def secret(path, text, mode=0o600):
    path.touch(mode=mode)
    path.chmod(mode)
    path.write_text(text)
    return path


def pkcs11_tool(lab, *arguments):
    return subprocess.run(
        [
            "pkcs11-tool",
            "--module",
            settings(lab)["module"],
            "--token-label",
            "billing-lab",
            "--login",
            "--pin",
            (lab / "pin").read_text().strip(),
            *arguments,
        ],
        capture_output=True,
        text=True,
        check=True,
        env={**os.environ, "SOFTHSM2_CONF": f"{lab}/softhsm2.conf"},
    ).stdout


def self_signed(key):
    now = certificate_dates()
    name = x509.Name([x509.NameAttribute(NameOID.COMMON_NAME, "device")])
    return (
        x509.CertificateBuilder(
            issuer_name=name,
            subject_name=name,
            public_key=key.public_key(),
            serial_number=1,
            not_valid_before=now[0],
            not_valid_after=now[1],
        )
        .sign(key, hashes.SHA256())
        .public_bytes(serialization.Encoding.PEM)
    )


def certificate_dates():
    now = datetime.datetime.utcnow()
    return now - datetime.timedelta(days=1), now + datetime.timedelta(days=1)
