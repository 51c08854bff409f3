"""Acts as the journal for one program; runs in a mount namespace of its own.

usage: journal_receiver.py PROGRAM [ARGUMENT ...]
Prints the entries that the program sent, as a list of objects. Forwards SIGTERM to the program.
"""
import json
import os
import signal
import socket
import subprocess
import sys


def main():
    subprocess.run(["mount", "-t", "tmpfs", "none", "/run"], check=True)
    os.makedirs("/run/systemd/journal")
    journal = socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM)
    journal.bind("/run/systemd/journal/socket")
    ours, theirs = socket.socketpair()
    stream = os.fstat(theirs.fileno())
    program = subprocess.Popen(
        sys.argv[1:],
        stderr=theirs.fileno(),
        stdout=subprocess.DEVNULL,
        env={**os.environ, "JOURNAL_STREAM": f"{stream.st_dev}:{stream.st_ino}"},
    )
    theirs.close()
    signal.signal(signal.SIGTERM, lambda *_: program.terminate())
    signal.pthread_sigmask(signal.SIG_UNBLOCK, {signal.SIGTERM})
    entries = []
    journal.settimeout(0.2)
    while True:
        # Entries that were sent before the program ended have arrived at this point.
        ended = program.poll() is not None
        try:
            lines = journal.recv(1 << 20).decode().splitlines()
            entries.append(dict(line.split("=", 1) for line in lines))
        except TimeoutError:
            if ended:
                break
    if program.returncode != 0 or ours.recv(1 << 16):
        sys.exit("the program failed, or wrote to standard error itself")
    print(json.dumps(entries))


if __name__ == "__main__":
    main()
