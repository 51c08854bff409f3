"""Servers with TLS requirements other than the store's, and servers that are not the store."""
import pathlib
import re
import ssl

import pytest
from cryptography.hazmat.primitives.asymmetric import rsa
from cryptography.x509 import DNSName, Name, SubjectAlternativeName
from harness import daemon
from harness.device import certificates
from harness.methods import EVERY_CALL, all_alike, answers

DEVICE = "CN=Billing lab device"
FAILED = (-1, "")
V11, V12, V13 = ssl.TLSVersion.TLSv1_1, ssl.TLSVersion.TLSv1_2, ssl.TLSVersion.TLSv1_3
DEMANDS, ASKS, NOTHING = ssl.CERT_REQUIRED, ssl.CERT_OPTIONAL, ssl.CERT_NONE


def signatures(process):
    return process.texts().count("Encrypt by KeyStore")


@pytest.fixture
def store_with(authority, provisioned, other_store, a_device):
    """A function that runs a store with certain TLS versions and sets it as the device's store."""

    def make(lowest, highest, wish, ciphers="DEFAULT"):
        context = authority.server_context("localhost", clients=provisioned.authority)
        # OpenSSL speaks a version below 1.2 at security level 0 only.
        context.set_ciphers(ciphers + ":@SECLEVEL=0")
        context.minimum_version, context.maximum_version = lowest, highest
        context.verify_mode = wish
        running = other_store(context)
        a_device.set("deployment", "production_host", f"localhost:{running.port}")
        return running

    return make


@pytest.mark.parametrize("wish, client", [(DEMANDS, DEVICE), (ASKS, DEVICE), (NOTHING, None)])
@pytest.mark.parametrize("newest", [V12, V13])
def test_a_store_of_tls_12_or_newer_is_reached(service, caller, store_with, newest, wish, client):
    store = store_with(V12, newest, wish)

    assert answers(caller) == all_alike((0, "{}"))

    assert [request.client for request in store.requests] == [client] * len(EVERY_CALL)
    assert signatures(service) == (client is not None)


@pytest.mark.parametrize(
    "cipher, reached",
    [
        ("AES128-SHA", False),
        ("AES128-GCM-SHA256", False),
        ("AES256-GCM-SHA384", False),
        ("ECDHE-RSA-AES128-SHA", False),
        ("ECDHE-RSA-AES256-SHA384", False),
        ("DHE-RSA-AES128-SHA", False),
        ("CAMELLIA128-SHA", False),
        ("ECDHE-RSA-AES128-GCM-SHA256", True),
        ("ECDHE-RSA-AES256-GCM-SHA384", True),
        ("ECDHE-RSA-CHACHA20-POLY1305", True),
    ],
)
def test_only_suites_of_fresh_keys_and_authenticated_encryption_are_spoken(service, caller, store_with, cipher, reached):
    store = store_with(V12, V12, DEMANDS, cipher)

    assert caller.call("check_server_availability") == ((0, "{}") if reached else FAILED)
    assert len(store.requests) == reached


@pytest.mark.parametrize("wish", [DEMANDS, ASKS, NOTHING])
@pytest.mark.parametrize("only", [V11, V13])
@pytest.mark.filterwarnings("ignore:ssl.TLSVersion.TLSv1_1")
def test_a_store_of_another_tls_only_is_a_failure_that_says_so(service, caller, store_with, only, wish):
    store = store_with(only, only, wish)

    assert answers(caller) == all_alike(FAILED)

    assert store.requests == []
    assert signatures(service) == 0
    said = service.failures()
    assert len(said) == len(EVERY_CALL)
    # A server of TLS 1.1 checks the cipher suites first and shares none with the client.
    cause = "handshake failure" if only == V11 else " protocol"
    assert all("ErrorCode = 35" in text and cause in text for text in said), said


def test_http_2_carries_the_certificate_too(service, caller, start_nginx):
    running = start_nginx(listen="http2")

    calls = [caller.start("get_product_list", f"app-{i}", "0", "check") for i in range(20)]
    caller.finish(calls)

    assert {call.result for call in calls} == {(0, "nginx")}
    asked = running.stop()
    assert [(entry[0], entry[1], entry[3]) for entry in asked] == (
        [("HTTP/2.0", DEVICE, asked[0][3])] * len(calls)
    ), "one connection for all"
    assert signatures(service) == 1


def test_a_store_that_takes_pss_signatures_only_sees_no_certificate(service, caller, start_nginx):
    running = start_nginx(
        extra="ssl_protocols TLSv1.2; ssl_conf_command ClientSignatureAlgorithms rsa_pss_rsae_sha256:rsa_pss_rsae_sha384;"
    )

    for result, body in answers(caller).values():
        assert result == 0 and "No required SSL certificate was sent" in body

    assert {entry[1] for entry in running.stop()} == {"-"}
    assert signatures(service) == 0


def a_server_context(issuer, clients, validity=certificates.VALID, name="localhost"):
    """TLS context of a server whose certificate this authority issued and that demands a device's certificate."""
    key = rsa.generate_private_key(65537, 2048)
    pem = certificates.certify(
        issuer.pem, issuer.key_pem, key.public_key(), Name([]), validity, SubjectAlternativeName([DNSName(name)])
    )
    return certificates.context_of(pem + certificates.pem_of(key), clients)


# Servers that are not the store, each with the log line of the cause.
STRANGERS = {
    "of another authority": (dict(issuer=certificates.Authority()), "unable to get local issuer"),
    "for another host": (dict(name="elsewhere.example"), r"matches target host ?name"),
    "expired": (dict(validity=certificates.EXPIRED), r"has expired \(the clock of this device says 2"),
    "not yet valid": (dict(validity=certificates.NOT_YET), r"is not yet valid \(the clock of this device says 2"),
}


@pytest.mark.parametrize("demands", [True, False])
@pytest.mark.parametrize("stranger", STRANGERS)
def test_a_server_that_is_not_the_store_gets_no_byte(
    service, caller, authority, provisioned, other_store, a_device, stranger, demands
):
    changes, reason = STRANGERS[stranger]
    context = a_server_context(**{"issuer": authority, **changes}, clients=provisioned.authority if demands else None)
    store = other_store(context)
    a_device.set("deployment", "production_host", f"localhost:{store.port}")

    assert answers(caller) == all_alike(FAILED)

    assert len(store.connections) >= len(EVERY_CALL)
    assert b"".join(store.connections) == b""
    # libcurl checks the name after the handshake, so any server that the authority has certified can see the device's
    # certificate.
    assert (signatures(service) > 0) == (stranger == "for another host" and demands)
    said = service.failures()
    assert len(said) == len(EVERY_CALL)
    assert all("ErrorCode = 60" in text and re.search(reason, text) for text in said), said


def test_the_same_server_with_a_right_certificate_is_the_store(service, caller, authority, provisioned, other_store, a_device):
    # Counter-check of the test above: the same server with a right certificate is accepted.
    store = other_store(a_server_context(authority, provisioned.authority))
    a_device.set("deployment", "production_host", f"localhost:{store.port}")

    assert answers(caller) == all_alike((0, "{}"))

    assert {request.client for request in store.requests} == {DEVICE}


def test_a_clock_of_1970_is_an_ordinary_failure_whose_line_names_the_clock(needs_view, start_daemon, caller, store):
    clock = daemon.binary().parents[1] / "tests" / "support" / "clock-1970.so"
    assert pathlib.Path(clock).exists()
    process = start_daemon(
        environment={"LD_PRELOAD": str(clock), "ASAN_OPTIONS": daemon.SANITIZERS["ASAN_OPTIONS"] + ":verify_asan_link_order=0"}
    )
    process.wait_for_name(caller)

    assert answers(caller) == all_alike(FAILED)

    assert b"".join(store.connections) == b""
    assert signatures(process) == 0
    said = process.failures()
    assert len(said) == len(EVERY_CALL)
    assert all(
        re.search(
            r"ErrorCode = 60; .*certificate is not yet valid \(the clock of this device says 1970-01-01 00:01 UTC\)!", text
        )
        for text in said
    ), said
