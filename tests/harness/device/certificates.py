"""A certificate authority for one test run, and TLS contexts of servers with its certificates."""
import datetime
import ssl
import tempfile

import trustme
from cryptography import x509
from cryptography.hazmat.primitives import hashes, serialization

# Newer versions would make other keys, with which a server speaks other suites.
RSA = {"key_type": trustme.KeyType.RSA} if hasattr(trustme, "KeyType") else {}
A_DAY = datetime.timedelta(days=1)

# Begin and end of validity, relative to now.
VALID = (-A_DAY, 30 * A_DAY)
EXPIRED = (-30 * A_DAY, -A_DAY)
NOT_YET = (A_DAY, 30 * A_DAY)


def certify(authority, authority_key, public_key, subject, validity, *extensions):
    """A certificate signed by the authority. All arguments but the public key are PEM.

    @param subject an x509.Name
    """
    issuer = x509.load_pem_x509_certificate(authority)
    now = datetime.datetime.utcnow()
    begins, ends = (now + time for time in validity)
    builder = x509.CertificateBuilder(
        issuer_name=issuer.subject,
        subject_name=subject,
        public_key=public_key,
        serial_number=x509.random_serial_number(),
        not_valid_before=begins,
        not_valid_after=ends,
    )
    for extension in extensions:
        builder = builder.add_extension(extension, critical=False)
    key = serialization.load_pem_private_key(authority_key, None)
    return builder.sign(key, hashes.SHA256()).public_bytes(serialization.Encoding.PEM)


def pem_of(private_key):
    return private_key.private_bytes(
        serialization.Encoding.PEM, serialization.PrivateFormat.PKCS8, serialization.NoEncryption()
    )


def context_of(pem, clients):
    """The context of a server with this key and certificate. `clients` as in Authority."""
    context = ssl.SSLContext(ssl.PROTOCOL_TLS_SERVER)
    with tempfile.NamedTemporaryFile() as file:
        file.write(pem)
        file.flush()
        context.load_cert_chain(file.name)
    if clients is not None:
        context.verify_mode = ssl.CERT_REQUIRED
        context.load_verify_locations(clients)
    return context


class Authority:
    """A root certificate. Only the files that the daemon reads are on disk."""

    def __init__(self):
        self._ca = trustme.CA(**RSA)

    @property
    def pem(self):
        return self._ca.cert_pem.bytes()

    @property
    def key_pem(self):
        return self._ca.private_key_pem.bytes()

    def server_pem(self, *names, not_after=None):
        """Key and certificates of a server in one file, for programs that read such files."""
        issued = self._ca.issue_cert(*names, not_after=not_after, **RSA)
        return issued.private_key_and_cert_chain_pem.bytes()

    def server_context(self, *names, clients, not_after=None):
        """A context of a server with these names. It demands a certificate of the authority in the file
        `clients`; with None it asks for no certificate."""
        return context_of(self.server_pem(*names, not_after=not_after), clients)
