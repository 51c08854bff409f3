"""Plays the journal for a daemon in its own view."""
import queue
import socket
import threading


class Journal:
    """Takes what the daemon that is started with `options` sends to the journal."""

    def __init__(self, folder):
        path = folder / "journalled" / "systemd" / "journal"
        path.mkdir(parents=True)
        self._socket = socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM)
        self._socket.bind(str(path / "socket"))
        self._come = queue.Queue()
        # The socket holds ten of them, and then the daemon waits.
        threading.Thread(target=self._receive, daemon=True).start()
        # The daemon believes that its standard error is the journal's.
        self.options = {
            "files": {"/run": folder / "journalled"},
            "tool": ["sh", "-c", 'JOURNAL_STREAM=$(stat -L -c %d:%i /dev/stderr) exec "$0" "$@"'],
        }

    def _receive(self):
        while record := self._socket.recv(1 << 16):
            fields = dict(line.split("=", 1) for line in record.decode().splitlines())
            self._come.put((fields, len(record)))

    def records(self, seconds=1):
        """Those that have come, until none has for a while: (the fields, how many bytes)."""
        found = []
        while True:
            try:
                found.append(self._come.get(timeout=seconds))
            except queue.Empty:
                return found

    def close(self):
        self._socket.shutdown(socket.SHUT_RDWR)
        self._socket.close()
