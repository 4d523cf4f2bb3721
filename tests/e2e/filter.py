"""Runs a command and does something to the bytes on their way. The first argument is Python that sets

there, back   functions from bytes to bytes
limit         how many bytes go there before the line is cut
terminal      the command gets a pseudo terminal
"""

import os
import pty
import selectors
import subprocess
import sys

PIECE = 4096


def start(command, terminal):
    """The process, and the descriptors to and from it."""
    if terminal:
        ours, theirs = pty.openpty()
        process = subprocess.Popen(command, stdin=theirs, stdout=theirs, stderr=theirs, start_new_session=True)
        os.close(theirs)
        return process, ours, ours
    process = subprocess.Popen(command, stdin=subprocess.PIPE, stdout=subprocess.PIPE)
    return process, os.dup(process.stdin.fileno()), process.stdout.fileno()


def write(descriptor, data):
    while data:
        data = data[os.write(descriptor, data):]


def carry(settings, to, back):
    """Until one end has nothing more, or the line is cut."""
    left = settings.get("limit", float("inf"))
    with selectors.DefaultSelector() as ready:
        ready.register(0, selectors.EVENT_READ)
        ready.register(back, selectors.EVENT_READ)
        while left:
            for key, _ in ready.select():
                data = os.read(key.fd, PIECE)
                if not data:
                    return
                if key.fd == 0:
                    data = data[:min(left, len(data))]
                    left -= len(data)
                    write(to, settings["there"](data))
                else:
                    write(1, settings["back"](data))


def main():
    settings = {"there": bytes, "back": bytes}
    exec(sys.argv[1], settings)
    process, to, back = start(sys.argv[2:], settings.get("terminal"))
    if process.stdin:
        process.stdin.close()
    try:
        carry(settings, to, back)
    except OSError:
        pass
    os.close(to)
    process.wait()


main()
