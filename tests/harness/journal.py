"""A stand-in for the journal in the view of a daemon."""
import os
import queue
import socket
import threading


class Journal:
    """Receives the journal entries of the daemon that is started with `options`."""

    def __init__(self, folder):
        path = folder / "journalled" / "systemd" / "journal"
        path.mkdir(parents=True)
        self._socket = socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM)
        # By a descriptor, since an address has 107 bytes at most, and the folder's own path may be longer.
        descriptor = os.open(path, os.O_PATH)
        self._socket.bind(f"/proc/self/fd/{descriptor}/socket")
        os.close(descriptor)
        self._come = queue.Queue()
        # The socket holds ten entries. This thread empties it, so that the daemon does not wait.
        threading.Thread(target=self._receive, daemon=True).start()
        # JOURNAL_STREAM makes the daemon take its standard error for the journal.
        self.options = {
            "files": {"/run": folder / "journalled"},
            "tool": ["sh", "-c", 'JOURNAL_STREAM=$(stat -L -c %d:%i /dev/stderr) exec "$0" "$@"'],
        }

    def _receive(self):
        while record := self._socket.recv(1 << 16):
            fields = dict(line.split("=", 1) for line in record.decode().splitlines())
            self._come.put((fields, len(record)))

    def records(self, seconds=1):
        """Reads entries until none has come for a while: (fields, size in bytes)."""
        found = []
        while True:
            try:
                found.append(self._come.get(timeout=seconds))
            except queue.Empty:
                return found

    def close(self):
        self._socket.shutdown(socket.SHUT_RDWR)
        self._socket.close()
