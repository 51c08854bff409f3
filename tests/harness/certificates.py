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

    def server_context(self, *names, not_after=None):
        """A context for a server that answers to these names."""
        context = ssl.SSLContext(ssl.PROTOCOL_TLS_SERVER)
        self._ca.issue_cert(*names, not_after=not_after).configure_cert(context)
        return context
