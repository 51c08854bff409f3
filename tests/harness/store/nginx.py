"""An nginx that demands the device's certificate, for tests that StoreServer cannot serve."""
import signal

from . import web_server

PROGRAM = web_server.program("nginx")

CONFIGURATION = """
daemon off;
worker_processes 1;
{user}
pid {folder}/nginx.pid;
events {{ worker_connections {connections}; }}
http {{
    log_format short '$server_protocol|$ssl_client_s_dn|$ssl_session_reused|$connection|'
                     '$request_uri|$request_method';
    access_log {folder}/access.log short;
    client_body_temp_path {folder}/body;
    proxy_temp_path {folder}/proxy;
    fastcgi_temp_path {folder}/fastcgi;
    uwsgi_temp_path {folder}/uwsgi;
    scgi_temp_path {folder}/scgi;
    server {{
        listen 127.0.0.1:{port} ssl {listen};
        ssl_certificate {folder}/server.pem;
        ssl_certificate_key {folder}/server.pem;
        ssl_client_certificate {clients};
        ssl_verify_client on;
        ssl_protocols TLSv1.2 TLSv1.3;
        {extra}
        location / {{ {answer} }}
    }}
}}
"""


class Nginx(web_server.WebServer):
    """Returns a fixed text, unless `answer` is another directive for its location."""

    PROGRAM = PROGRAM
    RELOAD, LEAVE = signal.SIGHUP, signal.SIGQUIT

    def __init__(self, folder, server_pem, clients, *, listen="", extra="", answer='return 200 "nginx";', connections=64):
        self._values = dict(clients=clients, listen=listen, extra=extra, answer=answer, connections=connections)
        super().__init__(folder, server_pem)

    def _configuration(self):
        return CONFIGURATION.format(
            folder=self.folder, port=self.port, user="user root;" if web_server.is_root() else "", **self._values
        )

    def _command(self):
        return [PROGRAM, "-p", self.folder, "-c", self.configuration, "-e", self.folder / "error.log"]
