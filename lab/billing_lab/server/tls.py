"""Makes the server's TLS contexts, with a valid certificate or with one that a fault asks for."""
import datetime
import pathlib
import ssl

import trustme
from cryptography import x509
from cryptography.hazmat.primitives import hashes

HOSTS = ("production.localhost", "sandbox.localhost")


class HandshakeError(ssl.SSLError):
    """A handshake that failed.

    why    the reason, for the journal
    alert  the bytes for the client that the transport did not send
    """

    def __init__(self, error: ssl.SSLError, alert: bytes):
        super().__init__(*error.args)
        self.why = (error.reason or str(error)).lower().replace("_", " ")
        if isinstance(error, ssl.SSLCertVerificationError):
            self.why += f": {error.verify_message}"
        self.alert = alert


class _Session(ssl.SSLObject):
    """Hands the alert of a failed handshake to the caller: asyncio drops it."""

    outgoing: ssl.MemoryBIO

    def do_handshake(self) -> None:
        try:
            super().do_handshake()
        except (ssl.SSLWantReadError, ssl.SSLSyscallError):
            # asyncio goes on after these.
            raise
        except ssl.SSLError as error:
            raise HandshakeError(error, self.outgoing.read()) from error


class _Context(ssl.SSLContext):
    sslobject_class = _Session

    def wrap_bio(self, incoming: ssl.MemoryBIO, outgoing: ssl.MemoryBIO, *arguments, **options) -> ssl.SSLObject:
        made = super().wrap_bio(incoming, outgoing, *arguments, **options)
        made.outgoing = outgoing
        return made


def server_context(fault: str, folder: pathlib.Path) -> ssl.SSLContext:
    """A context that demands a client certificate. A new context resumes no session of an earlier one.

    @param folder has ca.pem and ca.key, the authority of server and clients, and server.pem and server.key
    """
    context = _Context(ssl.PROTOCOL_TLS_SERVER)
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
