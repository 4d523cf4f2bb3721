#!/usr/bin/env python3
"""A whole far side: takes the frames of docs/frames.md on standard input and output and opens the connections.

    gx-ssh -- ssh -T host python3 far_side.py           # the two find each other by their ready lines
    gx-ssh --raw -- ssh -T host python3 far_side.py --raw

Whoever reaches it opens connections from this computer to HOST:PORT of --target, and to nothing else."""

import argparse
import queue
import socket
import struct
import sys
import threading

HEADER = struct.Struct("<IIIB3x")  # reserved, length, connection id, type
CONNECT, DATA, CLOSE = 1, 2, 3
PING, PONG, GOODBYE, END_OF_INPUT = 0xF0, 0xF1, 0xF2, 0xF3  # of gx-ssh; not with --raw
FRAMES = 256  # queued for one target at most; while its queue is full, no frame is read
NOISE = 64 * 1024  # bytes before the other side's ready line at most, a login banner for example


class Output:
    """Whole frames to standard output, one at a time. A thread that writes waits until the other side reads."""

    def __init__(self, file):
        self.file, self.lock = file, threading.Lock()

    def send(self, kind, number=0, payload=b""):
        with self.lock:
            self.file.write(HEADER.pack(0, len(payload), number, kind) + payload)
            self.file.flush()


class Connection:
    """One connection to the target. It has two threads: one writes to the target, one reads from it."""

    def __init__(self, number, target, output):
        self.number, self.target, self.output = number, target, output
        self.frames = queue.Queue(FRAMES)  # (type, payload) for the target
        threading.Thread(target=self.run, daemon=True).start()

    def run(self):
        try:
            with socket.create_connection(self.target) as self.socket:
                threading.Thread(target=self.upload, daemon=True).start()
                while data := self.socket.recv(32 * 1024):
                    self.output.send(DATA, self.number, data)
        except OSError as error:
            print(f"far_side: {self.target[0]}:{self.target[1]}: {error}", file=sys.stderr)
        self.output.send(CLOSE, self.number)
        while self.frames.get()[0] != CLOSE:  # drop late frames until the other side answers with a Close
            pass

    def upload(self):
        try:
            while (frame := self.frames.get())[0] != CLOSE:
                self.socket.sendall(frame[1])
                if frame[0] == END_OF_INPUT:  # the target may continue to send
                    self.socket.shutdown(socket.SHUT_WR)
                    self.output.send(END_OF_INPUT, self.number)
            self.socket.shutdown(socket.SHUT_RDWR)  # ends run, too
        except OSError:
            pass  # run reports the error


def read_frames(source, output, target):
    """Handles frames until the stream ends or a goodbye arrives. Leaves writing, which may block, to other threads."""
    connections = {}
    while len(header := source.read(HEADER.size)) == HEADER.size:
        _, length, number, kind = HEADER.unpack(header)
        payload = source.read(length) if length else b""
        if kind == CONNECT:
            connections[number] = Connection(number, target, output)
        elif kind in (DATA, CLOSE, END_OF_INPUT) and number in connections:
            connections[number].frames.put((kind, payload))
            if kind == CLOSE:
                connections.pop(number).frames.put((kind, payload))  # both threads wait for a Close
        elif kind == PING:
            threading.Thread(target=output.send, args=(PONG, 0, payload), daemon=True).start()
        elif kind == GOODBYE:
            return


def find_host(source, sink):
    """Sends this side's ready line and skips everything before the other side's."""
    sink.write(b"GX-SSH-PEER 1\n")
    sink.flush()
    noise = 0
    while (line := source.readline(NOISE)) != b"GX-SSH-HOST 1\n":
        noise += len(line)
        if not line or noise > NOISE:
            sys.exit("far_side: no gx-ssh at the other end")


def main():
    parser = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("--raw", action="store_true", help="no ready lines")
    parser.add_argument("--target", default="127.0.0.1:22", metavar="HOST:PORT")
    options = parser.parse_args()
    if not options.raw:
        find_host(sys.stdin.buffer, sys.stdout.buffer)
    host, _, port = options.target.rpartition(":")
    read_frames(sys.stdin.buffer, Output(sys.stdout.buffer), (host.strip("[]"), int(port)))


if __name__ == "__main__":
    main()
