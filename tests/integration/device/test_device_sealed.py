"""A device whose key comes as sealed key material and is stored in its token at the first start. Also the log: it
contains no secret of the device.
"""
import base64
import os
import subprocess

import pytest
from cryptography.hazmat.primitives.asymmetric import rsa
from harness.device import certificates, credentials
from harness.device.device import SECRETS
from harness.methods import all_alike, answers

WORKS = (0, "{}")
DEVICE = "CN=Billing lab device"
KEY_ID = "8"


@pytest.fixture(scope="module")
def key():
    return rsa.generate_private_key(65537, 2048)


@pytest.fixture
def sealed(a_device, key):
    """A device with its key as sealed key material; its token has another key."""
    device = a_device.credentials
    device.install(device.certify(key.public_key()))
    material = device.folder / "key_material"
    subprocess.run(
        [credentials.provision_tool(), "seal", "--certificate", device.certificate, "--out", material],
        input=certificates.pem_of(key),
        check=True,
        capture_output=True,
        env={**os.environ, **device.environment, "PLEVO_DEVICE_CONF": device.folder / "device.conf"},
    )
    a_device.set("deployment", "key_id", KEY_ID)
    a_device.set("deployment", "key_material", str(material))
    return a_device


def test_a_sealed_key_is_stored_at_the_first_start_and_found_at_the_next(needs_view, start_daemon, caller, store, sealed):
    first = start_daemon()
    first.wait_for_name(caller)
    assert answers(caller) == all_alike(WORKS)
    assert first.stop() == 0
    assert first.texts().count("Store key result 0") == 1

    second = start_daemon()
    second.wait_for_name(caller)
    assert answers(caller) == all_alike(WORKS)

    assert not any("Store key result" in text for text in second.texts())
    assert second.texts().count("Private key is valid") == 1
    assert {request.client for request in store.requests} == {DEVICE}


def test_what_a_first_start_writes_is_for_nobody_else(needs_view, start_daemon, caller, sealed):
    # The daemon's umask is 0, and the token's library writes its files in the daemon's process.
    folder = sealed.credentials.folder
    before = {file: file.stat().st_mtime_ns for file in folder.rglob("*") if file.is_file()}
    process = start_daemon()
    process.wait_for_name(caller)
    assert process.stop() == 0

    written = [file for file in folder.rglob("*") if file.is_file() and before.get(file) != file.stat().st_mtime_ns]
    assert written
    assert {oct(file.stat().st_mode & 0o077) for file in written} == {"0o0"}


def test_sealed_key_material_of_another_certificate_is_left_alone(needs_view, start_daemon, caller, store, sealed):
    other = rsa.generate_private_key(65537, 2048).public_key()
    sealed.credentials.install(sealed.credentials.certify(other))
    process = start_daemon()
    process.wait_for_name(caller)

    assert caller.call("check_server_availability") == (-1, "")

    assert store.requests == []
    assert any("the key material is for another certificate" in text for text in process.texts("E"))
    assert not any("Store key result" in text for text in process.texts())


def pieces(number):
    """Forms that eight or more bytes of a number take in a text: digits, bytes, Base64."""
    data = number.to_bytes((number.bit_length() + 7) // 8, "big")
    decimal = str(number)
    found = {decimal[i : i + 20].encode() for i in range(0, len(decimal) - 20)}
    for start in range(len(data) - 8):
        part = data[start : start + 8]
        found |= {
            part,
            part.hex().encode(),
            part.hex().upper().encode(),
            part.hex(":").encode(),
            part.hex(":").upper().encode(),
        }
    for skipped in range(3):
        text = base64.b64encode(data[skipped:])[:-4]
        found |= {text[i : i + 12] for i in range(len(text) - 12)}
    return found


def secret_numbers(key):
    numbers = key.private_numbers()
    return numbers.p, numbers.q, numbers.d, numbers.dmp1, numbers.dmq1, numbers.iqmp


@pytest.mark.parametrize("private", [None, "show"])
@pytest.mark.parametrize("level", ["debug", "info", "warning", "error"])
def test_the_log_holds_no_pin_and_no_byte_of_the_key(
    needs_view, start_daemon, caller, sealed, key, server_context, other_store, level, private
):
    environment = {} if private is None else {"PLEVO_LOG_PRIVATE": private}
    process = start_daemon(level=level, environment=environment)
    process.wait_for_name(caller)
    assert answers(caller) == all_alike(WORKS)
    # The error messages must not contain the PIN either.
    right = (sealed.credentials.folder / "pin").read_text().strip()
    sealed.credentials.pull()
    cold = other_store(server_context)
    sealed.set("deployment", "production_host", f"localhost:{cold.port}")
    assert answers(caller) == all_alike((-1, ""))
    assert process.stop() == 0

    log = process.log_file.read_bytes()
    assert len(log) > 500
    assert right.encode() not in log
    assert [piece for number in secret_numbers(key) for piece in pieces(number) if piece in log] == []
    if private is None:
        assert not any(secret.encode() in log for secret in SECRETS)


def test_what_the_scan_looks_for_would_be_found(key):
    number = secret_numbers(key)[2]
    data = number.to_bytes(256, "big")
    for log in (data.hex(), data.hex(":").upper(), str(number), base64.b64encode(data).decode()):
        assert any(piece in ("E/X: " + log[7:90]).encode() for piece in pieces(number)), log
