#!/usr/bin/python3
"""Runs in a network namespace in front of another command.

usage: inside.py DESCRIPTOR COMMAND...

Opens two listening sockets and sends them over DESCRIPTOR. Starts an agent that runs the commands it
reads from DESCRIPTOR. Then becomes COMMAND.
"""
import os
import shutil
import socket
import subprocess
import sys

# Exit status of a shell for a command that it cannot run.
MISSING = 127


def serve(channel):
    """The agent: reads a line, runs it, writes the status and what was said; ends when the other side closes."""
    while command := channel.recv(4096):
        program, *arguments = command.decode().split()
        found = shutil.which(program, path="/usr/sbin:/sbin:/usr/bin:/bin")
        if found is None:
            channel.sendall(f"{MISSING} {program} is not installed".encode())
            continue
        done = subprocess.run([found, *arguments], stderr=subprocess.PIPE, check=False)
        channel.sendall(f"{done.returncode} ".encode() + done.stderr[:3000])


def main():
    channel = socket.socket(fileno=int(sys.argv[1]))
    channel.set_inheritable(False)
    listeners = [socket.create_server(("127.0.0.1", 0), backlog=512) for _ in range(2)]
    socket.send_fds(channel, [b"sockets"], [listener.fileno() for listener in listeners])
    # Forks twice, so that COMMAND has no unexpected child.
    if os.fork() == 0:
        if os.fork() == 0:
            for listener in listeners:
                listener.close()
            serve(channel)
        os._exit(0)
    os.wait()
    os.execvp(sys.argv[2], sys.argv[2:])


if __name__ == "__main__":
    main()
