"""A throw-away certificate authority and the TLS contexts of servers that it vouches for."""
import ssl

import trustme


class Authority:
    """One root certificate. Nothing of it is kept on disk but what the daemon must read."""

    def __init__(self):
        self._ca = trustme.CA()

    @property
    def pem(self):
        return self._ca.cert_pem.bytes()

    def server_pem(self, *names):
        """Key and certificates of a server in one file, for programs that read such files."""
        return self._ca.issue_cert(*names).private_key_and_cert_chain_pem.bytes()

    def server_context(self, *names, clients, not_after=None):
        """A context for a server that answers to these names and lets in whoever has a certificate
        of the authority in the file `clients`; None lets in everybody and asks nobody."""
        context = ssl.SSLContext(ssl.PROTOCOL_TLS_SERVER)
        self._ca.issue_cert(*names, not_after=not_after).configure_cert(context)
        if clients is not None:
            context.verify_mode = ssl.CERT_REQUIRED
            context.load_verify_locations(clients)
        return context
