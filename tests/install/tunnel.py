"""A tunnel as its user sees it: a program that tells its address, and bytes that go through and come back."""

import os
import secrets
import signal
import socket
import sys
import threading

sys.path.insert(0, f"{os.path.dirname(os.path.realpath(__file__))}/../e2e")

from throwaway import Child, Failure, run  # noqa: E402,F401

LIMIT_S = 120
TARGET = "TARGET"  # in a command line: the address of an echo server


def echo(listener):
    """Sends back whatever one client says."""
    client = listener.accept()[0]
    with client:
        client.settimeout(LIMIT_S)
        while chunk := client.recv(65536):
            client.sendall(chunk)


def end_input(program):
    program.stdin.close()


def interrupt(program):
    program.signal(signal.SIGINT)


def check_tunnel(end, command):
    """Sends bytes through `command`, whose first line is the tunnel's address; then tells it to `end`."""
    with socket.create_server(("127.0.0.1", 0)) as listener:
        listener.settimeout(LIMIT_S)
        threading.Thread(target=echo, args=(listener,), daemon=True).start()
        target = f"127.0.0.1:{listener.getsockname()[1]}"
        with Child([word.replace(TARGET, target) for word in command]) as program:
            echo_through(int(program.expect(program.out, r"^127\.0\.0\.1:(\d+)$").group(1)))
            end(program)
            program.expect_status(0)


def echo_through(port, size=1 << 20):
    sent = secrets.token_bytes(size)
    received = b""
    with socket.create_connection(("127.0.0.1", port), LIMIT_S) as client:
        sender = threading.Thread(target=client.sendall, args=(sent,), daemon=True)
        sender.start()
        while len(received) < size and (chunk := client.recv(65536)):
            received += chunk
        sender.join(LIMIT_S)
    if received != sent:
        raise Failure(f"{len(received)} of {size} bytes came back, or other ones")
