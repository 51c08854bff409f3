"""An ordinary web server: its process, its port and its access log."""
import contextlib
import os
import pathlib
import random
import shutil
import signal
import socket
import subprocess
import time
import typing

# Time limit of a start or a graceful end, in seconds.
PATIENCE = 20
PORTS_BELOW = 12_000
METHODS = ("GET", "POST")


def program(name):
    """Path of a server's program, or None."""
    return shutil.which(name, path="/usr/sbin:/usr/bin:/sbin:/bin")


def is_root():
    return os.geteuid() == 0


def free_port():
    """A free port of 127.0.0.1 that stays free while its server is down: it is outside of the range from
    which the kernel takes ports for connections."""
    lowest = int(pathlib.Path("/proc/sys/net/ipv4/ip_local_port_range").read_text().split()[0])
    chooser = random.SystemRandom()
    while True:
        port = chooser.randrange(max(1024, lowest - PORTS_BELOW), lowest)
        with contextlib.suppress(OSError), socket.create_server(("127.0.0.1", port)):
            return port


class Entry(typing.NamedTuple):
    """One line of an access log. `client` is the subject of the client's certificate, `resumed` and
    `connection` are in the server's own form, "-" when the server does not log them."""

    protocol: str
    client: str
    resumed: str
    connection: str
    target: str
    method: str


class WebServer:
    """The process. A subclass defines PROGRAM, signals, command line and configuration. Its server writes
    `access.log` with the fields of an Entry, separated by "|"."""

    PROGRAM: str = None
    RELOAD: signal.Signals = None
    LEAVE: signal.Signals = None

    def __init__(self, folder, server_pem):
        self.folder = pathlib.Path(folder)
        self.folder.mkdir()
        self.port = free_port()
        self.certify(server_pem)
        self.configuration = self.folder / "server.conf"
        self.configuration.write_text(self._configuration())
        self.start()
        self.wait_until_it_answers()

    def _configuration(self):
        raise NotImplementedError

    def _command(self):
        raise NotImplementedError

    @property
    def _access_log(self):
        return self.folder / "access.log"

    def certify(self, server_pem):
        """Replaces key and certificate. The server reads them at reload()."""
        fresh = self.folder / "server.pem.new"
        fresh.write_bytes(server_pem)
        os.replace(fresh, self.folder / "server.pem")

    def start(self):
        """Starts the process and does not wait for it. Its output goes to its logs."""
        self.leaving = False
        with open(self._access_log, "ab") as access, open(self.folder / "error.log", "ab") as errors:
            self._process = subprocess.Popen(
                ["setpriv", "--pdeathsig", "TERM", *map(str, self._command())],
                cwd=self.folder,
                stdin=subprocess.DEVNULL,
                stdout=access,
                stderr=errors,
                start_new_session=True,
            )

    def wait_until_it_answers(self):
        end = time.monotonic() + PATIENCE
        while time.monotonic() < end and not self.has_left():
            with contextlib.suppress(OSError), socket.create_connection(("127.0.0.1", self.port), 1):
                return
            time.sleep(0.01)
        raise AssertionError(f"{self.PROGRAM} does not answer: {self.errors()}")

    def errors(self):
        return (self.folder / "error.log").read_text(errors="replace")

    def reload(self):
        """Makes the server read its configuration again without losing a request. Does not wait."""
        self._process.send_signal(self.RELOAD)

    def leave(self):
        """Makes the server finish its requests and end. Does not wait."""
        self.leaving = True
        self._process.send_signal(self.LEAVE)

    def has_left(self):
        return self._process.poll() is not None

    def wait_until_it_has_left(self):
        self._process.wait(PATIENCE)

    def restart(self):
        """Ends the server gracefully and starts it on the same port. Waits for both."""
        self.leave()
        self.wait_until_it_has_left()
        self.start()
        self.wait_until_it_answers()

    @property
    def group(self):
        """The process group of the server and its workers."""
        return self._process.pid

    def send(self, number):
        """Sends a signal to the server and its workers: SIGSTOP makes it hang."""
        os.killpg(self.group, number)

    def stop(self):
        """Stops the server at once.

        @return each of its requests as an Entry
        """
        if not self.has_left():
            self._process.terminate()
        try:
            self._process.wait(PATIENCE)
        except subprocess.TimeoutExpired:
            with contextlib.suppress(ProcessLookupError):
                self.send(signal.SIGKILL)
            self._process.wait()
        return self.asked()

    def asked(self):
        """The entries of the access log so far. A server may write them late."""
        if not self._access_log.exists():
            return []
        lines = [line.split("|") for line in self._access_log.read_text().splitlines()]
        return [Entry(*line) for line in lines if len(line) == len(Entry._fields) and line[-1] in METHODS]
