"""The device's certificate at the server, and the daemon without a usable certificate."""
import os
import ssl

import pytest
from cryptography import x509
from cryptography.hazmat.primitives.asymmetric import ec, rsa
from cryptography.x509.oid import NameOID
from harness.device import certificates
from harness.methods import EVERY_CALL, all_alike, answers

DEVICE = "CN=Billing lab device"
FAILED = (-1, "")


def test_the_server_sees_the_devices_certificate_with_every_request(service, caller, store):
    answers(caller)

    assert [request.client for request in store.requests] == [DEVICE] * len(EVERY_CALL)
    assert store.requests[0].resumed is False


def test_the_certificate_is_read_once_and_used_for_every_connection(
    service, caller, store, server_context, other_store, a_device
):
    caller.call("check_server_availability")
    other = other_store(server_context)
    a_device.set("deployment", "production_host", f"production.localhost:{other.port}")
    caller.call("check_server_availability")

    assert [request.client for request in store.requests + other.requests] == [DEVICE] * 2
    assert service.texts().count("Use recreated") == 1
    assert service.texts().count("Use cached") == 1


def rsa_key(bits):
    return rsa.generate_private_key(65537, bits).public_key()


# Content of the certificate's place, and the log lines of the transfer.
UNUSABLE = {
    "nothing": (None, ["!bioClient", "use_clientcert  Error!"]),
    "a pipe that nobody writes to": (os.mkfifo, ["!bioClient", "use_clientcert  Error!"]),
    "an empty file": (lambda _: b"", ["PEM_read_bio_X509 failed...", "use_clientcert  Error!"]),
    "garbage": (lambda _: bytes(range(256)) * 4, ["PEM_read_bio_X509 failed...", "use_clientcert  Error!"]),
    "half a certificate": (lambda device: device.certify()[:400], ["PEM_read_bio_X509 failed...", "use_clientcert  Error!"]),
    "one of an elliptic curve": (
        lambda device: device.certify(ec.generate_private_key(ec.SECP256R1()).public_key()),
        ["use_pkey  Error!"],
    ),
}


@pytest.mark.parametrize("instead", UNUSABLE)
def test_a_certificate_of_no_use_fails_the_call_and_its_successor_needs_no_restart(
    needs_view, start_daemon, caller, store, a_device, instead
):
    make, said = UNUSABLE[instead]
    good = a_device.credentials.certificate.read_bytes()
    if make in (None, os.mkfifo):
        a_device.credentials.certificate.unlink()
    if make is os.mkfifo:
        os.mkfifo(a_device.credentials.certificate)
    elif make is not None:
        a_device.credentials.install(make(a_device.credentials))
    process = start_daemon()
    process.wait_for_name(caller)

    assert answers(caller) == all_alike(FAILED)

    assert store.requests == []
    errors = process.texts("E")
    assert all(errors.count(line) == len(EVERY_CALL) for line in said)
    assert "Encrypt by KeyStore" not in process.texts()

    a_device.credentials.install(good)
    assert answers(caller) == all_alike((0, "{}"))
    assert {request.client for request in store.requests} == {DEVICE}


# Certificates that can be read but not used, each with the log line of the cause.
REFUSED = {
    "of another key": (lambda device: device.certify(rsa_key(2048)), "alert decrypt error"),
    "of a short key": (lambda device: device.certify(rsa_key(1024)), "Error accepting Certificate"),
    "expired": (
        lambda device: device.certify(validity=certificates.EXPIRED),
        "(the server says that the certificate of this device has expired)",
    ),
    "not yet valid": (lambda device: device.certify(validity=certificates.NOT_YET), "alert bad certificate"),
}


@pytest.mark.parametrize("which", REFUSED)
def test_a_certificate_that_does_not_do_fails_the_call_and_is_kept_until_a_restart(
    needs_view, start_daemon, caller, store, a_device, which
):
    make, reason = REFUSED[which]
    good = a_device.credentials.certificate.read_bytes()
    a_device.credentials.install(make(a_device.credentials))
    process = start_daemon()
    process.wait_for_name(caller)

    assert answers(caller) == all_alike(FAILED)

    assert store.requests == []
    assert len([text for text in process.texts("E") if reason in text]) == len(EVERY_CALL)

    a_device.credentials.install(good)
    assert process.stop() == 0
    start_daemon().wait_for_name(caller)
    assert answers(caller) == all_alike((0, "{}"))


def test_a_certificate_of_another_key_is_seen_at_the_start(needs_view, start_daemon, caller, a_device):
    a_device.credentials.install(a_device.credentials.certify(rsa_key(2048)))
    process = start_daemon()
    process.wait_for_name(caller)

    assert process.texts("E").count("The stored key is invalid!") == 1


@pytest.mark.parametrize("missing, answer", [("key_id", FAILED), ("credential", (0, "{}"))])
def test_without_a_key_number_nothing_signs_and_without_an_identity_the_key_store_decides(
    needs_view, start_daemon, caller, store, a_device, missing, answer
):
    a_device.set("deployment", missing, None)
    process = start_daemon()
    process.wait_for_name(caller)
    assert caller.call("check_server_availability") == answer
    assert {request.client for request in store.requests} == ({DEVICE} if answer[0] == 0 else set())
    assert "use_clientcert  Error!" not in process.texts()


def below(device):
    """Has the device's certificate signed by an intermediate authority below the one that the store trusts.

    @return the certificate of the intermediate authority, as PEM
    """
    key = rsa.generate_private_key(65537, 2048)
    lab = device.credentials.folder
    name = x509.Name([x509.NameAttribute(NameOID.COMMON_NAME, "Between")])
    between = certificates.certify(
        (lab / "ca.pem").read_bytes(),
        (lab / "ca.key").read_bytes(),
        key.public_key(),
        name,
        certificates.VALID,
        x509.BasicConstraints(ca=True, path_length=0),
    )
    own = x509.load_pem_x509_certificate(device.credentials.certificate.read_bytes())
    device.credentials.install(
        certificates.certify(between, certificates.pem_of(key), own.public_key(), own.subject, certificates.VALID) + between
    )
    return between


def test_a_chain_file_sends_the_first_certificate_alone(needs_view, start_daemon, caller, store, a_device):
    below(a_device)
    process = start_daemon()
    process.wait_for_name(caller)
    assert caller.call("check_server_availability") == FAILED and store.requests == []
    assert any("unknown ca" in text for text in process.texts("E"))


def test_an_authority_among_those_of_the_store_is_sent_along(needs_view, start_daemon, caller, store, a_device):
    between = below(a_device)
    a_device.ca_file.write_bytes(a_device.ca_file.read_bytes() + between)
    start_daemon().wait_for_name(caller)
    assert caller.call("check_server_availability") == (0, "{}")
    assert {request.client for request in store.requests} == {DEVICE}


@pytest.fixture
def asking(authority, provisioned, other_store, a_device):
    """A store that asks for a certificate and also accepts clients without one."""
    context = authority.server_context("localhost", clients=provisioned.authority)
    context.verify_mode = ssl.CERT_OPTIONAL
    running = other_store(context)
    a_device.set("deployment", "production_host", f"localhost:{running.port}")
    return running


def test_a_store_that_only_asks_is_shown_the_certificate_too(service, caller, asking):
    assert answers(caller) == all_alike((0, "{}"))
    assert {request.client for request in asking.requests} == {DEVICE}


@pytest.mark.parametrize("newest", [ssl.TLSVersion.TLSv1_2, ssl.TLSVersion.TLSv1_3])
def test_nothing_of_a_call_without_a_certificate_is_used_again(
    needs_view, start_daemon, caller, authority, provisioned, other_store, a_device, newest
):
    context = authority.server_context("localhost", clients=provisioned.authority)
    context.verify_mode = ssl.CERT_OPTIONAL
    context.maximum_version = newest
    store = other_store(context)
    a_device.set("deployment", "production_host", f"localhost:{store.port}")
    good = a_device.credentials.certificate.read_bytes()
    a_device.credentials.certificate.unlink()
    start_daemon().wait_for_name(caller)

    for _ in range(3):
        assert caller.call("check_server_availability") == (0, "{}")
    anonymous = store.take_requests()
    assert [request.client for request in anonymous] == [None] * 3
    assert [request.resumed for request in anonymous] == [False] * 3
    assert len({request.connection for request in anonymous}) == 3

    # Once the certificate is installed, the daemon presents it. From then on it also keeps a connection.
    a_device.credentials.install(good)
    for _ in range(3):
        assert caller.call("check_server_availability") == (0, "{}")
    known = store.take_requests()
    assert [request.client for request in known] == [DEVICE] * 3
    assert known[0].resumed is False
    assert len({request.connection for request in known}) == 1


def test_a_store_that_does_not_ask_sees_none(service, caller, authority, other_store, a_device):
    store = other_store(authority.server_context("localhost", clients=None))
    a_device.set("deployment", "production_host", f"localhost:{store.port}")

    assert answers(caller) == all_alike((0, "{}"))

    assert {request.client for request in store.requests} == {None}
    assert "Encrypt by KeyStore" not in service.texts()
