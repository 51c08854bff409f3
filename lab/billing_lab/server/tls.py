"""Makes the server's TLS contexts, with a valid certificate or with one that a fault asks for."""
import datetime
import pathlib
import ssl

import trustme
from cryptography import x509
from cryptography.hazmat.primitives import hashes

HOSTS = ("production.localhost", "sandbox.localhost")


def server_context(fault: str, folder: pathlib.Path) -> ssl.SSLContext:
    """A context that demands a client certificate. A new context resumes no session of an earlier one.

    @param folder has ca.pem and ca.key, the authority of server and clients, and server.pem and server.key
    """
    context = ssl.SSLContext(ssl.PROTOCOL_TLS_SERVER)
    if fault in ("expired", "wrong-host", "untrusted"):
        _wrong_certificate(fault, folder).configure_cert(context)
    else:
        context.load_cert_chain(folder / "server.pem", folder / "server.key")
    context.verify_mode = ssl.CERT_REQUIRED
    context.load_verify_locations(folder / "ca.pem")
    context.set_alpn_protocols(["h2", "http/1.1"])
    return context


def _wrong_certificate(fault: str, folder: pathlib.Path) -> trustme.LeafCert:
    if fault == "untrusted":
        return trustme.CA().issue_cert(*HOSTS)
    authority = trustme.CA.from_pem((folder / "ca.pem").read_bytes(), (folder / "ca.key").read_bytes())
    if fault == "wrong-host":
        return authority.issue_cert("elsewhere.example")
    yesterday = datetime.datetime.now(datetime.timezone.utc) - datetime.timedelta(days=1)
    return authority.issue_cert(*HOSTS, not_after=yesterday)


def presented(tls: ssl.SSLObject) -> dict | None:
    """Subject, issuer, end of validity and SHA-256 of the client's certificate; None if it sent none."""
    der = tls.getpeercert(binary_form=True)
    if der is None:
        return None
    certificate = x509.load_der_x509_certificate(der)
    return {
        "subject": certificate.subject.rfc4514_string(),
        "issuer": certificate.issuer.rfc4514_string(),
        "not_after": certificate.not_valid_after.strftime("%Y-%m-%dT%H:%M:%SZ"),
        "sha256": certificate.fingerprint(hashes.SHA256()).hex(),
    }


def fingerprint(file: pathlib.Path) -> str:
    """The SHA-256 of the certificate in a PEM file, as presented() gives it."""
    return x509.load_pem_x509_certificate(file.read_bytes()).fingerprint(hashes.SHA256()).hex()
