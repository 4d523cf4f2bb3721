"""Runs a command and does something to the bytes on their way. The first argument is Python that sets

there, back   functions from bytes to bytes
limit         how many bytes go there before the line is cut
terminal      the command gets a pseudo terminal
"""

import contextlib
import os
import pty
import select
import socket
import subprocess
import sys

PIECE = 4096


def write(descriptor, data):
    while data:
        data = data[os.write(descriptor, data):]


def carry(settings, line):
    """Until one end has nothing more, or the line is cut."""
    left = settings["limit"]
    while left:
        for end in select.select([0, line], [], [])[0]:
            data = os.read(end, PIECE)
            if not data:
                return
            if end == 0:
                data = data[:min(left, len(data))]
                left -= len(data)
                write(line, settings["there"](data))
            else:
                write(1, settings["back"](data))


def main():
    settings = {"there": bytes, "back": bytes, "limit": float("inf"), "terminal": False}
    exec(sys.argv[1], settings)
    terminal = settings["terminal"]
    line, theirs = pty.openpty() if terminal else (end.detach() for end in socket.socketpair())
    process = subprocess.Popen(sys.argv[2:], stdin=theirs, stdout=theirs, stderr=theirs if terminal else None,
                               start_new_session=terminal)
    os.close(theirs)
    with contextlib.suppress(OSError):
        carry(settings, line)
    os.close(line)
    process.wait()


main()
