"""billing-provision on a device that already has its key: names, PINs, and the key and certificate that it uses as
proof.
"""

import datetime
import hashlib
import os
import pathlib
import shutil
import stat

import pytest
from cryptography import x509
from cryptography.hazmat.primitives import hashes, serialization
from cryptography.x509.oid import NameOID

from tool import DONE, FAILED, MISMATCH, NO_VIEW, certificate, change_setting, must, pkcs11_tool, run, secret, view

pytestmark = pytest.mark.skipif(
    shutil.which("softhsm2-util") is None, reason="softhsm2 is not installed (apt install softhsm2)"
)


def name_in(pem):
    return x509.load_pem_x509_csr(pem).subject.get_attributes_for_oid(NameOID.COMMON_NAME)[0].value


def test_pin_changes_the_token_and_the_file(lab, tmp_path):
    before = (lab / "pin").read_bytes()
    os.chown(lab / "pin", 12345 if os.geteuid() == 0 else -1, -1)
    owner = os.stat(lab / "pin").st_uid
    for fresh, arguments, stdin in (
        ("new-pin-1", secret(tmp_path / "new", "new-pin-1\n"), b""),
        ("new-pin-2", "-", b"new-pin-2"),
    ):
        result = must(run("pin", arguments, folder=lab, stdin=stdin))
        assert fresh.encode() not in result.stdout + result.stderr
        assert (lab / "pin").read_text() == fresh + "\n"
        assert (os.stat(lab / "pin").st_uid, stat.S_IMODE(os.stat(lab / "pin").st_mode)) == (owner, 0o600)
        must(run("request", "--existing", folder=lab))
    (lab / "pin").write_bytes(before)
    assert b"CKR_PIN_INCORRECT" in must(run("request", "--existing", folder=lab), FAILED).stderr


@pytest.mark.skipif(NO_VIEW is not None, reason=str(NO_VIEW))
def test_a_pin_whose_file_cannot_be_written_is_taken_back(lab, tmp_path):
    fresh = secret(tmp_path / "new", "new-pin-1")
    closed = ["bwrap", "--dev-bind", "/", "/", "--ro-bind", lab / "pin", lab / "pin"]
    result = must(run("pin", fresh, folder=lab, prefix=closed), FAILED)
    assert b"pin cannot be made: Device or resource busy" in result.stderr
    must(run("request", "--existing", folder=lab))
    # A PIN that the token refuses changes nothing.
    must(run("pin", secret(tmp_path / "short", "1"), folder=lab), FAILED)
    must(run("request", "--existing", folder=lab))


def status(lab, code=DONE):
    """@return output of the command for a device whose certificates are in the lab's folder, by name"""
    result = must(run("status", folder=lab, prefix=view.bubblewrap(lab, lab / "certificate")), code)
    found = {}
    for line in result.stdout.decode().splitlines():
        found.setdefault(line[:13].strip(), []).append(line[13:])
    return found, result.stderr.decode()


@pytest.mark.skipif(NO_VIEW is not None, reason=str(NO_VIEW))
def test_status_tells_keys_certificate_and_match(lab):
    place = lab / "certificate"
    place.mkdir()
    shutil.copy(lab / "bgclient.crt", place)
    found, _ = status(lab)
    assert found["key"] == ["00000007, RSA with 2048 bits, [deployment] key_id"]
    assert found["name"] == ["CN = Billing lab device"] and found["signed by"] == ["CN = Billing lab authority"]
    assert found["validity"][0] in ("364 days left", "365 days left")
    assert found["match"] == ["the certificate is for the key, which signs"] and "chain" not in found

    pkcs11_tool(lab, "--keypairgen", "--key-type", "EC:prime256v1", "--id", "0a")
    (place / "bgclient.crt").write_bytes((lab / "bgclient.crt").read_bytes() + (lab / "ca.pem").read_bytes())
    found, _ = status(lab)
    assert "0a, EC, which the service cannot use" in found["key"] and len(found["key"]) == 2
    assert found["chain"] == ["1 more in the file, not sent: the store must know them"]

    (place / "bgclient.crt").write_bytes((lab / "server.pem").read_bytes())
    assert "is not for the key with CKA_ID 00000007" in status(lab, MISMATCH)[1]
    (place / "bgclient.crt").unlink()
    assert "bgclient.crt cannot be read" in status(lab, FAILED)[1]
    shutil.copy(lab / "bgclient.crt", place)
    change_setting(lab, "key_id", "9")
    assert "no key with CKA_ID 00000009" in status(lab, FAILED)[1]


@pytest.mark.skipif(NO_VIEW is not None, reason=str(NO_VIEW))
def test_status_tells_a_certificate_that_has_expired(lab):
    (lab / "certificate").mkdir()
    authority = certificate(lab / "ca.pem")
    signer = serialization.load_pem_private_key((lab / "ca.key").read_bytes(), None)
    now = datetime.datetime.utcnow()
    own = certificate(lab / "bgclient.crt")
    old = x509.CertificateBuilder(
        authority.subject, own.subject, own.public_key(), 7, now - datetime.timedelta(9), now - datetime.timedelta(2)
    ).sign(signer, hashes.SHA256())
    (lab / "certificate" / "bgclient.crt").write_bytes(old.public_bytes(serialization.Encoding.PEM))
    found, said = status(lab, FAILED)
    assert found["validity"] == ["has expired, by the clock of this machine"] and "match" in found
    assert "not valid now" in said


def test_each_key_asks_for_a_name_of_its_own(lab):
    names = [name_in(must(run("request", "--existing", folder=lab)).stdout) for _ in range(2)]
    change_setting(lab, "key_id", "45")
    other = must(run("request", folder=lab)).stdout
    assert names[0] == names[1] != name_in(other)
    info = (
        x509.load_pem_x509_csr(other)
        .public_key()
        .public_bytes(serialization.Encoding.DER, serialization.PublicFormat.SubjectPublicKeyInfo)
    )
    assert name_in(other) == "billing device " + hashlib.sha256(info).hexdigest()[:16]


@pytest.mark.skipif(NO_VIEW is not None, reason=str(NO_VIEW))
def test_a_renewal_asks_for_the_name_of_the_installed_certificate(lab):
    (lab / "certificate").mkdir()
    (lab / "bgclient.crt").rename(lab / "certificate" / "bgclient.crt")
    seen = view.bubblewrap(lab, lab / "certificate")
    result = must(run("request", "--existing", folder=lab, prefix=seen))
    assert name_in(result.stdout) == "Billing lab device" and b'the name "Billing lab device"' in result.stderr
    # An unusable installed certificate does not prevent a request for a new one.
    for instead in (
        lambda file: file.write_text("no certificate"),
        pathlib.Path.unlink,
        lambda file: file.symlink_to("nowhere"),
    ):
        instead(lab / "certificate" / "bgclient.crt")
        result = must(run("request", "--existing", folder=lab, prefix=seen))
        assert name_in(result.stdout).startswith("billing device ")
