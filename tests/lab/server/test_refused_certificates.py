"""A device's certificate that the store refuses: the client gets TLS's alert, and the journal the reason."""
import datetime
import socket
import ssl
import time

import pytest
import trustme
from billing_lab.shop import journal
from cryptography import x509
from cryptography.hazmat.primitives import hashes, serialization

from conftest import HOST, Client, request

DAY = datetime.timedelta(days=1)
REASONS = {
    "expired": "certificate verify failed: certificate has expired",
    "foreign": "certificate verify failed: unable to get local issuer certificate",
}
REFUSED = pytest.mark.parametrize("refused", REASONS)


@REFUSED
@pytest.mark.parametrize("version", [ssl.TLSVersion.TLSv1_2, ssl.TLSVersion.TLSv1_3], ids=["1.2", "1.3"])
def test_a_client_gets_the_alert_and_the_journal_the_reason(store, refused, version):
    if refused == "expired":
        authority = trustme.CA.from_pem((store.folder / "ca.pem").read_bytes(), (store.folder / "ca.key").read_bytes())
        own = authority.issue_cert("device.example", not_after=datetime.datetime.now(datetime.timezone.utc) - DAY)
    else:
        own = trustme.CA().issue_cert("device.example")
    context = ssl.create_default_context(cafile=store.folder / "ca.pem")
    own.configure_cert(context)
    context.minimum_version = context.maximum_version = version
    with pytest.raises(ssl.SSLError) as caught:
        Client(store, context).send(request("country", store.device))
    assert caught.value.reason == {"expired": "SSLV3_ALERT_CERTIFICATE_EXPIRED", "foreign": "TLSV1_ALERT_UNKNOWN_CA"}[refused]
    assert [entry["reason"] for entry in store.do(journal.entries, store.db)] == [REASONS[refused]]


def test_a_client_that_sends_the_rest_later_gets_the_alert(store):
    context = ssl.create_default_context(cafile=store.folder / "ca.pem")
    trustme.CA().issue_cert("device.example").configure_cert(context)
    context.maximum_version = ssl.TLSVersion.TLSv1_2
    incoming, outgoing = ssl.MemoryBIO(), ssl.MemoryBIO()
    client = context.wrap_bio(incoming, outgoing, server_hostname=HOST)
    with socket.create_connection(("127.0.0.1", store.port), timeout=20) as raw:
        with pytest.raises(ssl.SSLWantReadError):
            client.do_handshake()
        raw.sendall(outgoing.read())
        while not (flight := outgoing.read()):
            incoming.write(raw.recv(65536))
            with pytest.raises(ssl.SSLWantReadError):
                client.do_handshake()
        # The first record of this flight has the certificate.
        first = 5 + int.from_bytes(flight[3:5], "big")
        raw.sendall(flight[:first])
        incoming.write(raw.recv(65536))
        for byte in flight[first:]:
            raw.sendall(bytes([byte]))
        with pytest.raises(ssl.SSLError, match="unknown ca"):
            client.do_handshake()


@pytest.fixture
def certified(lab, refused):
    """The lab with a certificate for the device's key that its store refuses."""
    file = lab.folder.certificate_view / "bgclient.crt"
    good = file.read_bytes()
    file.write_bytes(_refused(x509.load_pem_x509_certificate(good), lab.folder.device, refused))
    lab.device("service", "restart")
    yield lab
    file.write_bytes(good)
    lab.device("service", "restart")


def _refused(good, folder, refused):
    """@return PEM of a certificate like the good one, but expired, or of an authority with another key"""
    key = serialization.load_pem_private_key((folder / "ca.key").read_bytes(), None)
    issuer, end = good.issuer, good.not_valid_before
    if refused == "foreign":
        other = trustme.CA()
        key = serialization.load_pem_private_key(other.private_key_pem.bytes(), None)
        issuer, end = x509.load_pem_x509_certificate(other.cert_pem.bytes()).subject, good.not_valid_after
    made = x509.CertificateBuilder(issuer, good.subject, good.public_key(), x509.random_serial_number())
    made = made.not_valid_before(good.not_valid_before - 2 * DAY).not_valid_after(end)
    for extension in good.extensions:
        if extension.oid != x509.AuthorityKeyIdentifier.oid:
            made = made.add_extension(extension.value, extension.critical)
    return made.sign(key, hashes.SHA256()).public_bytes(serialization.Encoding.PEM)


@REFUSED
def test_log_doctor_and_journal_of_a_lab_name_the_cause(certified, cli, refused):
    log = certified.folder.logs / "daemon.log"
    start = log.stat().st_size
    assert certified.call("check_server_availability") == (-1, "")
    assert {entry["reason"] for entry in certified.journal()} == {REASONS[refused]}
    said = {"expired": "says that the certificate of this device has expired", "foreign": "alert unknown ca"}[refused]
    end = time.monotonic() + 20
    while said not in (told := log.read_bytes()[start:].decode()):
        assert time.monotonic() < end, told
        time.sleep(0.02)
    found = cli("doctor", "-o", "terse", folder=certified.folder.path).stdout
    assert {"expired": "\nrequest.expired: ", "foreign": "\nrequest.authority: "}[refused] in "\n" + found
