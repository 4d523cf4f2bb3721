"""gx-ssh before gx-ssh-peer and an echo server, clients that go through, and what is expected of them."""

import contextlib
import functools
import re
import signal
import socket
import threading

from throwaway import READY_S, Child, Clients, eventually, expect, read

ADDRESS = r"^(unix:.*|127\.0\.0\.1:\d+|\[::\]:\d+)$"


class Target:
    """Answers each connection with what it has sent: at once, or (`last`) when it has sent its last byte."""

    def __init__(self, last=False, path=None):
        """`path` is that of a Unix socket, before which few can wait."""
        self._last = last
        self._listener = socket.socket(socket.AF_UNIX if path else socket.AF_INET)
        self._listener.bind(path or ("127.0.0.1", 0))
        self._listener.listen(2 if path else 1024)
        self.address = f"unix:{path}" if path else "127.0.0.1:%d" % self._listener.getsockname()[1]
        self.connections = 0
        threading.Thread(target=self._accept, daemon=True).start()

    def _accept(self):
        while True:
            client, _ = self._listener.accept()
            self.connections += 1
            threading.Thread(target=self._answer, args=(client,), daemon=True).start()

    def _answer(self, client):
        heard = b""
        with client, contextlib.suppress(OSError):
            while piece := client.recv(1 << 16):
                heard += piece
                if not self._last:
                    client.sendall(heard)
                    heard = b""
            client.sendall(heard)


class Host(Child):
    """gx-ssh, which leads to `target`. Leaving the `with` block ends it in order."""

    def __init__(self, tools, target, *options, far_side=None, shell=None, allowed="", through=(), **more):
        """@TARGET in the options is its address. `far_side` or the `shell` commands say what the far side is; by itself
        gx-ssh-peer, which may open `allowed`, too. There the carrier's own status tells nothing, and a carrier that
        could speak for gx-ssh does not become ready."""
        self._pid_file = f"{tools.folder}/pid"
        allowed = f"--allow {target.address} {allowed}"
        peer = ('test -z "$NOTIFY_SOCKET$LISTEN_FDS" && '
                f"sh -c 'echo $$ >{self._pid_file}; exec {tools.gx_ssh_peer} {allowed}'; exit 9")
        own = [] if {"-L", "-W"} & set(options) and "--listen" not in options else ["--target", target.address]
        told = [word.replace("@TARGET", target.address) for word in options]
        super().__init__([*through, tools.gx_ssh, *own, *told,
                          *(["--", "sh", "-c", shell or peer] if far_side is None else far_side)], **more)

    def __exit__(self, *failure):
        with contextlib.ExitStack() as exits:
            exits.push(super().__exit__)
            if failure[0] is None and self._process.poll() is None:
                self.stop()

    @functools.cached_property
    def address(self):
        """The first one at which it listens."""
        return self.expect(self.out, ADDRESS).group(1)

    def addresses(self, count):
        def told():
            found = re.findall(ADDRESS, self.out.text(), re.MULTILINE)
            return found if len(found) == count else None
        return eventually(told, "not all addresses were told")

    @property
    def peer_pid(self):
        return int(read(self._pid_file))

    def converse(self, line="hello", ends=True):
        """Over its standard input and output: sends a line and gets it back."""
        self.send(f"{line}\n")
        self.expect(self.out, f"^{line}$", timeout=120)
        if ends:
            self.stdin.close()
            self.expect_status(0)

    def stop(self, number=signal.SIGTERM, status=0):
        self.signal(number)
        self.expect_status(status)


@contextlib.contextmanager
def tunnel(tools, server, *options, **more):
    with Host(tools, server, *options, **more) as host:
        yield Clients(server, "HostName 127.0.0.1", f"Port {host.address.rpartition(':')[2]}")


def connect(address):
    client = socket.socket(socket.AF_UNIX if address.startswith("unix:") else socket.AF_INET)
    client.settimeout(READY_S)
    host, _, port = address.rpartition(":")
    client.connect(port if host == "unix" else (host.replace("[::]", "127.0.0.1"), int(port)))
    return client


def expect_answer(client, text, what):
    """The answer, or the end of a connection that is over."""
    received = b""
    with contextlib.suppress(ConnectionError):
        while len(received) < len(text) and (piece := client.recv(1 << 16)):
            received += piece
    expect(received == text, f"{what}: {len(received)} bytes of {len(text)} came back")


def expect_echo(client, what):
    client.sendall(b"hello")
    expect_answer(client, b"hello", what)


def expect_end(client, what):
    with contextlib.suppress(ConnectionResetError):
        expect(not client.recv(1), what, "got a byte")
