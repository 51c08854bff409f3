#!/usr/bin/python3
"""Runs in a network namespace in front of another command.

usage: inside.py DESCRIPTOR COMMAND...

Opens a listening socket there and hands it out on DESCRIPTOR, leaves an agent behind that runs
ip(8) as it is told on the same descriptor, and becomes COMMAND.
"""
import os
import socket
import subprocess
import sys


def serve(channel):
    """The agent: one line, one run, one status, until the other side goes."""
    while command := channel.recv(4096):
        done = subprocess.run(["ip", *command.decode().split()], check=False)
        channel.sendall(str(done.returncode).encode())


def main():
    channel = socket.socket(fileno=int(sys.argv[1]))
    channel.set_inheritable(False)
    listener = socket.create_server(("127.0.0.1", 0), backlog=512)
    socket.send_fds(channel, [b"socket"], [listener.fileno()])
    # Twice, so that the command has no child that it knows nothing of.
    if os.fork() == 0:
        if os.fork() == 0:
            listener.close()
            serve(channel)
        os._exit(0)
    os.wait()
    os.execv(sys.argv[2], sys.argv[2:])


if __name__ == "__main__":
    main()
