"""What the store pays for one TV: bytes on the wire and processor time of its server, for a first connection, one whose TLS
session is taken up again, and a call on a connection that is kept."""
import os
import pathlib
import select
import socket
import threading

from billing_lab.device import bus

from . import stage

COUNT = 100
KINDS = ("full handshake", "resumed handshake", "kept connection")


class Relay:
    """Passes connections on to a server, counts the bytes, and can cut what is open."""

    def __init__(self, port):
        self._target = port
        self._listener = socket.create_server(("127.0.0.1", 0))
        self.port = self._listener.getsockname()[1]
        self._lock = threading.Lock()
        self._pairs, self._bytes = [], 0
        threading.Thread(target=self._accept, daemon=True).start()

    def _accept(self):
        while True:
            try:
                client, _ = self._listener.accept()
            except OSError:
                return
            pair = (client, socket.create_connection(("127.0.0.1", self._target)))
            with self._lock:
                self._pairs.append(pair)
            threading.Thread(target=self._pass_on, args=pair, daemon=True).start()

    def _pass_on(self, client, server):
        other = {client: server, server: client}
        try:
            while True:
                for ready in select.select([client, server], [], [])[0]:
                    data = ready.recv(65536)
                    if not data:
                        return
                    with self._lock:
                        self._bytes += len(data)
                    other[ready].sendall(data)
        except (OSError, ValueError):
            pass  # cut
        finally:
            client.close()
            server.close()

    def cut(self):
        """The connections that are open now end."""
        with self._lock:
            pairs, self._pairs = self._pairs, []
        for pair in pairs:
            for end in pair:
                try:
                    end.shutdown(socket.SHUT_RDWR)
                except OSError:
                    pass  # it has ended already

    def taken(self):
        """@return the bytes in both directions since the last question"""
        with self._lock:
            taken, self._bytes = self._bytes, 0
        return taken

    def stop(self):
        self._listener.close()
        self.cut()


def processor_time(group):
    """@return the seconds that the processes of a group have run"""
    spent = 0
    for folder in pathlib.Path("/proc").glob("[0-9]*"):
        try:
            if os.getpgid(int(folder.name)) == group:
                spent += int((folder / "schedstat").read_text().split()[0])
        except (OSError, IndexError):
            pass  # it has ended
    return spent / 1e9


def measure(on, figures):
    """Bytes without those of TCP and IP; the server's processor time is nginx's, of which most is TLS."""
    on.use("http1")
    relay = Relay(on.server.port)
    on.reach(relay.port)
    on.start_daemon()
    on.call(bus.SERVICE, 1, 1)
    for kind in KINDS:
        relay.taken()
        before = processor_time(on.server.group)
        for _ in range(COUNT):
            if kind != "kept connection":
                relay.cut()
            if kind == "full handshake":
                # Another bundle, for all that the daemon knows: its sessions are verified anew.
                os.utime(on.device.ca_file)
            on.call(bus.SERVICE, 1, 1)
        figures.add(f"bytes of a call, {stage.SMALL} of them the answer's: {kind}", "bytes", relay.taken() / COUNT)
        figures.add(
            f"server's processor time of a call: {kind}", "us", (processor_time(on.server.group) - before) / COUNT * 1e6
        )
    on.stop_daemon()
    relay.stop()
