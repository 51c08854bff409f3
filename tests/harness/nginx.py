"""An nginx that demands the device's certificate, for what the server of our own does not do."""
import os
import pathlib
import shutil
import subprocess

from . import server

PROGRAM = shutil.which("nginx", path="/usr/sbin:/usr/bin:/sbin:/bin")

CONFIGURATION = """
daemon off;
worker_processes 1;
{user}
pid {folder}/nginx.pid;
events {{ worker_connections {connections}; }}
http {{
    log_format short '$server_protocol|$ssl_client_s_dn|$ssl_session_reused|$connection|$request_uri';
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


class Nginx:
    """It takes over a socket that listens already, so it needs no port of its own and is ready from
    the start."""

    def __init__(self, folder, server_pem, clients, *, listen="", extra="",
                 answer='return 200 "nginx";', connections=64):
        self._folder = pathlib.Path(folder)
        self._folder.mkdir()
        (self._folder / "server.pem").write_bytes(server_pem)
        listener = server.listen()
        self.port = listener.getsockname()[1]
        user = "user root;" if pathlib.Path("/proc/self").stat().st_uid == 0 else ""
        (self._folder / "nginx.conf").write_text(CONFIGURATION.format(
            folder=self._folder, port=self.port, clients=clients, listen=listen, extra=extra,
            answer=answer, connections=connections, user=user))
        self._process = subprocess.Popen(
            ["setpriv", "--pdeathsig", "TERM", PROGRAM, "-p", self._folder, "-c",
             self._folder / "nginx.conf", "-e", self._folder / "error.log"],
            env={"NGINX": f"{listener.fileno()};"}, pass_fds=(listener.fileno(),),
            start_new_session=True)
        listener.close()

    @property
    def group(self):
        """The process group of it and its worker."""
        return self._process.pid

    def send(self, number):
        """A signal to its worker too: SIGSTOP makes it a server that hangs."""
        os.killpg(self.group, number)

    def stop(self):
        """Ends it. @return what it was asked: for each request protocol, client, "r" or "." for a
        session taken up again or a new one, number of the connection, path and query"""
        self._process.terminate()
        self._process.wait()
        log = self._folder / "access.log"
        return [line.split("|") for line in log.read_text().splitlines()] if log.exists() else []
