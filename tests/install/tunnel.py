"""A tunnel as its user sees it: a program that tells its address, and bytes that go through and come back."""

import contextlib
import os
import secrets
import signal
import socket
import subprocess
import threading

LIMIT_S = 120


@contextlib.contextmanager
def echo_server():
    """Sends back whatever one client says."""
    with socket.create_server(("127.0.0.1", 0)) as listener:
        listener.settimeout(LIMIT_S)

        def serve():
            client = listener.accept()[0]
            with client:
                client.settimeout(LIMIT_S)
                while chunk := client.recv(65536):
                    client.sendall(chunk)

        thread = threading.Thread(target=serve, daemon=True)
        thread.start()
        yield listener.getsockname()[1]
        thread.join(LIMIT_S)


def end_input(process):
    process.stdin.close()


def interrupt(process):
    process.send_signal(signal.SIGINT)


@contextlib.contextmanager
def host(end, command):
    """The program, and the first line that it prints. It is told to `end` behind the `with` block."""
    process = subprocess.Popen(command, stdin=subprocess.PIPE, stdout=subprocess.PIPE, start_new_session=True, text=True)
    alarm = threading.Timer(LIMIT_S, os.killpg, (process.pid, signal.SIGKILL))
    alarm.start()
    try:
        yield process.stdout.readline().strip()
        end(process)
        process.wait()
    finally:
        alarm.cancel()
        with contextlib.suppress(ProcessLookupError):
            os.killpg(process.pid, signal.SIGKILL)
        process.wait()
    if process.returncode != 0:
        raise SystemExit(f"{command[0]}: status {process.returncode}")


def echo_through(address, size=1 << 20):
    name, port = address.split(":")
    sent = secrets.token_bytes(size)
    received = b""
    with socket.create_connection((name, int(port)), LIMIT_S) as client:
        sender = threading.Thread(target=client.sendall, args=(sent,), daemon=True)
        sender.start()
        while len(received) < size and (chunk := client.recv(65536)):
            received += chunk
        sender.join(LIMIT_S)
    if received != sent:
        raise SystemExit(f"{len(received)} of {size} bytes came back, or other ones")
