"""dbus-broker, the other message bus of Linux systems, in the place of dbus-daemon."""
import os
import pathlib
import shutil
import socket
import subprocess
import sys

from billing_lab.device import bus as message_bus

# The launcher takes its listening socket as a service manager hands one over, and looks for its own number there.
LAUNCH = """
import os, sys
os.dup2(int(sys.argv[1]), 3)
os.environ.update(LISTEN_PID=str(os.getpid()), LISTEN_FDS="1")
os.execvp(sys.argv[2], sys.argv[2:])
"""


def why_not():
    """None where it can be started, else what to do about it."""
    if shutil.which("dbus-broker-launch") is None:
        return "dbus-broker is not installed (apt install dbus-broker)"
    return None


class Broker:
    """The bus, in a folder of the caller's. The broker needs a journal's socket: it runs with a /run of its own, which has one.

    @param policy  further rules, which count more than those of the system bus
    """

    def __init__(self, folder, policy=()):
        folder = pathlib.Path(folder)
        self.socket = folder / "bus"
        self.address = f"unix:path={self.socket}"
        configuration = folder / "bus.conf"
        name = message_bus.SERVICE
        configuration.write_text(
            message_bus.CONFIGURATION.format(
                address=self.address,
                names=f'    <allow own="{name}"/>\n    <allow send_destination="{name}"/>\n',
                rules="".join(f"    {rule}\n" for rule in policy),
                limits="",
            )
        )
        journal = folder / "journal"
        journal.mkdir()
        self._journal = socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM)
        self._journal.bind(str(journal / "socket"))
        with socket.socket(socket.AF_UNIX) as listening:
            listening.bind(str(self.socket))
            listening.listen(128)
            view = ["bwrap", "--die-with-parent", "--dev-bind", "/", "/", "--tmpfs", "/run"]
            view += ["--bind", str(journal), "/run/systemd/journal", "--setenv", "DBUS_SYSTEM_BUS_ADDRESS", self.address]
            launcher = ["dbus-broker-launch", "--scope", "system", "--config-file", str(configuration)]
            self.process = subprocess.Popen(
                [*view, "--", sys.executable, "-c", LAUNCH, str(listening.fileno()), *launcher],
                pass_fds=(listening.fileno(),),
                start_new_session=True,
            )
        self._wait_until_ready()

    def _wait_until_ready(self):
        self._journal.settimeout(60)
        try:
            while b"MESSAGE=Ready\n" not in self._journal.recv(1 << 16):
                pass
        except TimeoutError:
            self.kill()
            raise RuntimeError("dbus-broker did not start") from None

    def kill(self):
        """Without any notice, as a crash would: the launcher goes with bubblewrap, and the broker with the launcher."""
        self.process.kill()
        self.process.wait()

    def stop(self):
        self.kill()
        self._journal.close()
        if os.path.exists(self.socket):
            os.unlink(self.socket)
