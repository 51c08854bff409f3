"""Web servers configured as in their Debian packages, in front of the same shop. Each demands the
device's certificate and keeps its default idle limit, sessions and tickets unless a test changes them."""
import contextlib
import pathlib
import signal
import subprocess

from . import nginx, web_server

APACHE = """
ServerRoot {folder}
ServerName localhost
PidFile {folder}/apache.pid
DefaultRuntimeDir {folder}
Listen 127.0.0.1:{port}
{user}
{modules}
ErrorLog {folder}/error.log
LogFormat "%H|%{{SSL_CLIENT_S_DN}}x|%{{SSL_SESSION_RESUMED}}x|%{{remote}}p|%U%q|%m" short
CustomLog {folder}/access.log short
Timeout 300
KeepAlive On
{limits}
SSLSessionCache shmcb:{folder}/sessions(512000)
SSLSessionCacheTimeout 300
Protocols {protocols}
SSLEngine on
SSLCertificateFile {folder}/server.pem
SSLCACertificateFile {clients}
SSLVerifyClient require
SSLVerifyDepth 10
ProxyPass / http://127.0.0.1:{backend}/ disablereuse=On
"""
APACHE_MODULES = pathlib.Path("/usr/lib/apache2/modules")
# Names of the modules and of their files.
APACHE_LOADED = {
    "mpm_event_module": "mpm_event",
    "ssl_module": "ssl",
    "http2_module": "http2",
    "socache_shmcb_module": "socache_shmcb",
    "proxy_module": "proxy",
    "proxy_http_module": "proxy_http",
    "authz_core_module": "authz_core",
}

HAPROXY = """
global
    log stdout format raw local0
    tune.ssl.default-dh-param 2048
    ssl-default-bind-options ssl-min-ver TLSv1.2 no-tls-tickets
defaults
    log global
    mode http
    option dontlognull
    timeout connect 5000
    timeout client 50000
    timeout server 50000
    {idle}
frontend shop
    bind 127.0.0.1:{port} ssl crt {folder}/server.pem ca-file {clients} verify required alpn {alpn}
    log-format "%HV|%[ssl_c_s_dn]|%[ssl_fc_is_resumed]|%cp|%HU|%HM"
    {answer}
backend shop
    server shop 127.0.0.1:{backend}
"""

# lighttpd of Debian 13 demands TLS 1.3 by default; with a device's certificate the service uses TLS 1.2.
LIGHTTPD = """
server.modules = ("mod_openssl", "mod_accesslog", "mod_proxy")
server.bind = "127.0.0.1"
server.port = {port}
server.document-root = "{folder}"
server.errorlog = "{folder}/error.log"
server.feature-flags = ("server.h2proto" => "{http2}", "server.graceful-shutdown-timeout" => 5)
server.max-connections = 1024
accesslog.filename = "{folder}/access.log"
accesslog.format = "%H|%{{SSL_CLIENT_S_DN}}e|-|-|%U|%m"
ssl.engine = "enable"
ssl.pemfile = "{folder}/server.pem"
ssl.openssl.ssl-conf-cmd = ("MinProtocol" => "TLSv1.2")
ssl.verifyclient.activate = "enable"
ssl.verifyclient.enforce = "enable"
ssl.verifyclient.ca-file = "{clients}"
proxy.server = ("" => (("host" => "127.0.0.1", "port" => {backend})))
{limits}
"""


# Protocols in access logs, by whether HTTP/2 is offered.
PROTOCOLS = {False: "HTTP/1.1", True: "HTTP/2.0"}


class Nginx(nginx.Nginx):
    """Parameters: those of the other servers."""

    IDLE = 75
    LIMITS_REQUESTS = True

    def __init__(self, folder, server_pem, clients, backend, *, http2=False, idle=None, requests=None):
        self.protocol = PROTOCOLS[http2]
        limits = [f"keepalive_timeout {idle}s;"] if idle else []
        limits += [f"keepalive_requests {requests};"] if requests else []
        super().__init__(
            folder,
            server_pem,
            clients,
            listen="http2" if http2 else "",
            extra=" ".join(limits),
            connections=1024,
            answer=f"proxy_pass http://127.0.0.1:{backend};",
        )


class _Ordinary(web_server.WebServer):
    """The common part of the other three servers.

    @param backend  the port of the shop
    @param idle  seconds after which an idle connection is closed, None for the server's default
    @param requests  after how many requests a connection is closed, None for the server's default
    """

    # Default idle limit, in seconds.
    IDLE = 5
    # True if the server closes a connection after a number of requests.
    LIMITS_REQUESTS = True
    TEMPLATE = ""

    def __init__(self, folder, server_pem, clients, backend, *, http2=False, idle=None, requests=None):
        self.protocol = PROTOCOLS[http2]
        self._http2, self._idle, self._requests = http2, idle, requests
        self._values = dict(clients=clients, backend=backend)
        super().__init__(folder, server_pem)

    def _wishes(self):
        """Values of the template besides folder, ports and certificates."""
        raise NotImplementedError

    def _limits(self, idle, requests):
        """Lines of the configuration for the wanted limits."""
        return "\n".join(line.format(value) for line, value in ((idle, self._idle), (requests, self._requests)) if value)

    def _configuration(self):
        return self.TEMPLATE.format(folder=self.folder, port=self.port, **self._values, **self._wishes())


class Apache(_Ordinary):
    PROGRAM = web_server.program("apache2")
    RELOAD, LEAVE = signal.SIGUSR1, signal.SIGWINCH
    TEMPLATE = APACHE

    def _wishes(self):
        return dict(
            modules="\n".join(f"LoadModule {name} {APACHE_MODULES}/mod_{file}.so" for name, file in APACHE_LOADED.items()),
            # It refuses to serve as root.
            user="User www-data\nGroup www-data" if web_server.is_root() else "",
            limits=self._limits("KeepAliveTimeout {}", "MaxKeepAliveRequests {}"),
            protocols="h2 http/1.1" if self._http2 else "http/1.1",
        )

    def _command(self):
        return [self.PROGRAM, "-DFOREGROUND", "-f", self.configuration]


class HAProxy(_Ordinary):
    """With `by_itself` the server answers before it has read the request's body."""

    PROGRAM = web_server.program("haproxy")
    RELOAD, LEAVE = signal.SIGUSR2, signal.SIGUSR1
    TEMPLATE = HAPROXY
    IDLE = 50
    LIMITS_REQUESTS = False
    OWN_ANSWER = "by itself"

    def __init__(self, *arguments, by_itself=False, **options):
        self._by_itself = by_itself
        super().__init__(*arguments, **options)

    def _wishes(self):
        return dict(
            idle=self._limits("timeout http-keep-alive {}s", ""),
            alpn="h2,http/1.1" if self._http2 else "http/1.1",
            answer=f'http-request return status 200 content-type text/plain string "{self.OWN_ANSWER}"'
            if self._by_itself
            else "default_backend shop",
        )

    def _command(self):
        return [self.PROGRAM, "-W", "-f", self.configuration]

    def stop(self):
        if self._by_itself:
            # A request has its line in the log when all of it was read, which is after the answer. Kept connections stay.
            self.leave()
            with contextlib.suppress(subprocess.TimeoutExpired):
                self._process.wait(5)
        return super().stop()


class Lighttpd(_Ordinary):
    PROGRAM = web_server.program("lighttpd")
    RELOAD, LEAVE = signal.SIGUSR1, signal.SIGINT
    TEMPLATE = LIGHTTPD

    def _wishes(self):
        return dict(
            http2="enable" if self._http2 else "disable",
            limits=self._limits("server.max-keep-alive-idle = {}", "server.max-keep-alive-requests = {}"),
        )

    def _command(self):
        return [self.PROGRAM, "-D", "-f", self.configuration]


SERVERS = {"nginx": Nginx, "apache": Apache, "haproxy": HAProxy, "lighttpd": Lighttpd}
