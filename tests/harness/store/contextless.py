"""TLS of a server on plain OpenSSL that demands certificates and sets no session id context. OpenSSL
then refuses every handshake that offers a session. Python's own module always sets a context."""
import contextlib
import socket

from OpenSSL import SSL, crypto


@contextlib.contextmanager
def _errors_of_python():
    try:
        yield
    except SSL.Error as error:
        raise OSError(repr(error)) from error


class _Socket(socket.socket):
    """A connection with those methods of Python's TLS sockets that StoreServer uses."""

    # This server never resumes a session.
    session_reused = False

    def __init__(self, context, raw):
        super().__init__(raw.family, raw.type, raw.proto, fileno=raw.detach())
        self._tls = SSL.Connection(context, self)
        self._tls.set_accept_state()

    def do_handshake(self):
        with _errors_of_python():
            self._tls.do_handshake()

    def recv(self, size):
        with _errors_of_python(), contextlib.suppress(SSL.ZeroReturnError):
            return self._tls.recv(size)
        return b""

    def sendall(self, data):
        with _errors_of_python():
            self._tls.sendall(data)

    def unwrap(self):
        with _errors_of_python():
            self._tls.shutdown()

    def getpeercert(self, binary_form):
        assert binary_form
        return crypto.dump_certificate(crypto.FILETYPE_ASN1, self._tls.get_peer_certificate())


class Context:
    """For a StoreServer.

    @param pem_file  key and certificate
    @param clients  the authority of the clients' certificates
    """

    def __init__(self, pem_file, clients):
        self._context = SSL.Context(SSL.TLS_SERVER_METHOD)
        self._context.use_privatekey_file(str(pem_file))
        self._context.use_certificate_chain_file(str(pem_file))
        self._context.load_verify_locations(str(clients))
        self._context.set_verify(SSL.VERIFY_PEER | SSL.VERIFY_FAIL_IF_NO_PEER_CERT)

    def wrap_socket(self, raw, server_side, do_handshake_on_connect):
        assert server_side and not do_handshake_on_connect
        return _Socket(self._context, raw)
