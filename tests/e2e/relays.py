"""What gx-ssh carries itself between its clients and the module: who gets in, how much, and to the last byte."""

import contextlib
import os
import re
import resource
import select
import selectors
import signal
import socket
import subprocess
import threading
import time

from throwaway import READY_S, Child, Clients, Failure, write_script

CONNECTIONS = 950
FORWARDED = 100  # connections of each -L
ADDRESS = r"^(unix:/.*|127\.0\.0\.1:\d+|\[::\]:\d+)$"
LISTENING = "0A"
NOBODY = 65534


def expect(condition, *what):
    if not condition:
        raise Failure(" ".join(map(str, what)))


def eventually(condition, what):
    limit = time.monotonic() + READY_S
    while not condition():
        expect(time.monotonic() < limit, what)
        time.sleep(0.01)


def stop(host, number=signal.SIGTERM, status=0):
    host.signal(number)
    host.expect_status(status)


def ways(folder):
    """The modes in which gx-ssh listens itself."""
    return {"listen": ["--listen", "127.0.0.1:0"], "unix": ["--listen", f"unix:{folder}/socket"],
            "reconnect": ["--reconnect"], "user-only": ["--user-only"]}


class Target:
    """Answers each connection with what it has sent: at once, or (`last`) when it has sent its last byte. Ends with
    this program."""

    def __init__(self, last=False, path=None):
        """`path` is that of a Unix socket, before which few can wait."""
        self._last = last
        if path:
            self._listener = socket.socket(socket.AF_UNIX)
            self._listener.bind(path)
            self._listener.listen(2)
            self.address = f"unix:{path}"
        else:
            self._listener = socket.create_server(("127.0.0.1", 0), backlog=1024)
            self.address = "127.0.0.1:%d" % self._listener.getsockname()[1]
        self.connections = 0
        threading.Thread(target=self._serve, daemon=True).start()

    def _serve(self):
        owed = {}
        ready = selectors.DefaultSelector()
        ready.register(self._listener, selectors.EVENT_READ)
        while True:
            for key, _ in ready.select():
                if key.fileobj is self._listener:
                    client, _ = self._listener.accept()
                    ready.register(client, selectors.EVENT_READ)
                    owed[client] = b""
                    self.connections += 1
                elif not self._answer(key.fileobj, owed):
                    ready.unregister(key.fileobj)
                    key.fileobj.close()

    def _answer(self, client, owed):
        try:
            piece = client.recv(1 << 16)
            owed[client] += piece
            if piece and self._last:
                return True
            client.sendall(owed.pop(client))
            owed[client] = b""
        except OSError:
            return False
        return piece


class Host:
    """gx-ssh before that target, with the limit of descriptors that most systems give a program."""

    def __init__(self, tools, target, *options, local=False):
        far_side = ["--local"] if local else ["--", tools.gx_ssh_peer, "-q", "--allow", target.address]
        own = [] if "-L" in options else ["--target", target.address]
        self.process = Child(["sh", "-c", 'ulimit -Sn 1024; exec "$@"', "sh", tools.gx_ssh, *own, *options, *far_side])
        self.address = ""
        self._stdio = "-W" in options

    def __enter__(self):
        return self

    def __exit__(self, *failure):
        with self.process:
            if failure[0] is None:
                stop(self.process)

    def connect(self):
        if not self.address:
            self.address = self.process.expect(self.process.out, ADDRESS).group(1)
        return connect(self.address)

    def echoes(self, exits, word):
        """Through a new connection, or the only one that there is."""
        if self._stdio:
            self.process.send(f"{word}\n")
            self.process.expect(self.process.out, f"^{word}$")
        else:
            expect_echo(exits.enter_context(self.connect()), word)

    def module_port(self):
        """Of the sockets of 127.0.0.1 at which the process listens the one that it has not announced."""
        inodes = set()
        for name in os.listdir(f"/proc/{self.process.pid}/fd"):
            with contextlib.suppress(FileNotFoundError):
                inodes.update(re.findall(r"^socket:\[(\d+)\]$", os.readlink(f"/proc/{self.process.pid}/fd/{name}")))
        with open("/proc/net/tcp", encoding="ascii") as table:
            rows = [line.split() for line in table]
        ports = {int(row[1].split(":")[1], 16) for row in rows if row[3] == LISTENING and row[9] in inodes}
        return (ports - {int(self.address.rpartition(":")[2])} if self.address[:1].isdigit() else ports).pop()


def connect(address):
    family = socket.AF_UNIX if address.startswith("unix:") else socket.AF_INET
    client = socket.socket(family)
    client.settimeout(30)
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


def strangers(tools, server):
    """Who finds the module's own port reaches nothing, and keeps nobody out of the front door: in all modes at once."""
    with contextlib.ExitStack() as exits:
        silent, hosts = [], []
        for name, options in [*ways(server.folder).items(), ("stdio", ["-W"])]:
            target = Target()
            host = exits.enter_context(Host(tools, target, *options))
            hosts.append((name, host, target))
            host.echoes(exits, "hello")
            address = f"127.0.0.1:{host.module_port()}"
            silent += [(name, exits.enter_context(connect(address))) for _ in range(100)]
            bold = exits.enter_context(connect(address))
            bold.sendall(b"x" * 100_000)
            expect_end(bold, f"{name}: a stranger that talks")
        for name, client in silent:
            expect_end(client, f"{name}: a silent stranger")
        for name, host, target in hosts:
            host.echoes(exits, "again")
            expect(target.connections == (1 if name == "stdio" else 2), name, target.connections, "reached the target")


def half_close(tools, server):
    """An answer that the target begins when it has heard all comes back whole."""
    text = os.urandom(3_000_000)
    for name, options in ways(server.folder).items():
        for size in (0, 5, len(text)):
            target = Target(last=True)
            with Host(tools, target, *options) as host, host.connect() as client:
                threading.Thread(target=lambda: (client.sendall(text[:size]), client.shutdown(socket.SHUT_WR))).start()
                expect_answer(client, text[:size], f"{name}, {size} bytes before the end of the input")
                expect_end(client, name)


def many(tools, server):
    """So many connections at once, in each mode; and a carrier gets the limit of descriptors that gx-ssh had."""
    resource.setrlimit(resource.RLIMIT_NOFILE, (resource.getrlimit(resource.RLIMIT_NOFILE)[1],) * 2)
    limit = f"{server.folder}/limit"
    write_script(f"{server.folder}/peer", f'ulimit -Sn >"{limit}"; exec "{tools.gx_ssh_peer}" "$@"')
    carriers = type(tools)(gx_ssh=tools.gx_ssh, gx_ssh_peer=f"{server.folder}/peer")
    modes = [(name, options, False) for name, options in ways(server.folder).items()]
    for name, options, local in [*modes, ("local", [], True), ("local listen", modes[0][1], True)]:
        target = Target()
        with Host(carriers, target, *options, local=local) as host, contextlib.ExitStack() as clients:
            opened = [clients.enter_context(host.connect()) for _ in range(CONNECTIONS)]
            for number, client in enumerate(opened):
                client.sendall(b"%d" % number)
            for number, client in enumerate(opened):
                expect_answer(client, b"%d" % number, f"{name}, connection {number}")
    with open(limit, encoding="ascii") as file:
        expect(file.read() == "1024\n", "the carrier did not get the old limit of descriptors")


@contextlib.contextmanager
def stalled(peer, address):
    """Stops that far side, and fills all between it and a client."""
    os.kill(peer, signal.SIGSTOP)
    with connect(address) as client:
        client.setblocking(False)
        while select.select([], [client], [], 0.1)[1]:
            with contextlib.suppress(BlockingIOError):
                client.send(bytes(65536))
        yield


def forwards(tools, server):
    """Each -L leads to its target over the one carrier, however many go through; those that are refused harm no other.

    They come while the module is held up by the far side, so that it takes them all at once.
    """
    with contextlib.ExitStack() as exits:
        paths = [f"{server.folder}/{name}" for name in ("target", "near", "refused")]
        targets = [Target(), Target(), Target(path=paths[0]), Target(), Target(path=paths[2]), Target()]
        named = [target.address.removeprefix("unix:") for target in targets]
        named[1] = named[1].replace("127.0.0.1", "localhost")
        starts = ["0", "localhost:0", "*:0", paths[1], "0", "127.0.0.1:0"]
        options = [word for start, name in zip(starts, named) for word in ("-L", f"{start}:{name}")]
        write_script(f"{server.folder}/peer", f'echo $$ >"{server.folder}/pid"; exec "{tools.gx_ssh_peer}" "$@"')
        carrier = [f"{server.folder}/peer", "-q"]
        for target, name in list(zip(targets, named))[:4]:
            carrier += ["--allow", target.address if name.startswith("/") else name]
        process = exits.enter_context(Child([tools.gx_ssh, "--port-file", f"{server.folder}/addresses", *options, "--",
                                             *carrier]))
        process.expect(process.err, "other computers can reach ")
        process.expect(process.out, ADDRESS)
        with open(f"{server.folder}/addresses", encoding="ascii") as file:
            addresses = file.read().splitlines()
        for address in addresses:
            process.expect(process.out, f"^{re.escape(address)}$")
        with open(f"{server.folder}/pid", encoding="ascii") as file:
            peer = int(file.read())
        exits.enter_context(stalled(peer, addresses[0]))
        clients = [(number, exits.enter_context(connect(address)))
                   for _ in range(FORWARDED) for number, address in enumerate(addresses)]
        texts = [os.urandom(20_000) for _ in clients]
        for (_, client), text in zip(clients, texts):
            with contextlib.suppress(ConnectionError):
                client.sendall(text)
        os.kill(peer, signal.SIGCONT)
        for (number, client), text in zip(clients, texts):
            if number < 4:
                expect_answer(client, text, f"connection through {addresses[number]}")
            else:
                expect_end(client, "a connection to a target that is refused")
        wanted = [FORWARDED + 1] + [FORWARDED] * 3 + [0, 0]
        eventually(lambda: [target.connections for target in targets] == wanted, "other targets were reached")
        stop(process)


def unix_target(tools, server):
    """-W and --local lead to a Unix socket, too, and a far side that has one target opens that one."""
    path = f"{server.folder}/target"
    for options in ([], ["--allow", f"unix:{path}"], ["--target", f"unix:{path}"]):
        carrier = ["--", tools.gx_ssh_peer, "-q", *options] if options else ["--local"]
        target = Target(last=True, path=path)
        done = subprocess.run([tools.gx_ssh, "-W", target.address, *carrier], check=False, input="hello",
                              capture_output=True, text=True)
        os.unlink(path)
        expect((done.returncode, done.stdout) == (0, "hello"), options, done)


def socket_config(tools, server):
    """ssh finds its way to a Unix socket by what --print ssh-config says, whatever the path is like."""
    before = os.getcwd()
    os.chdir(server.folder)
    try:
        with Child([tools.gx_ssh, "--target", f"127.0.0.1:{server.port}", "--listen", "unix:it's 50%h of a $HOME",
                    "--print", "ssh-config", "--local"]) as host:
            proxy = host.expect(host.out, r"^ *(ProxyCommand .*)$").group(1)
            os.chdir("/")
            expect(Clients(server, proxy).run("ssh", "far", "cat; echo done") == "done\n", "it printed something else")
            nowhere = subprocess.run([tools.gx_ssh, "--connect", f"unix:{server.folder}/none"], check=False,
                                     stdin=subprocess.DEVNULL, capture_output=True, text=True)
            expect(nowhere.returncode == 1 and "No such file" in nowhere.stderr, "--connect to nothing:", nowhere)
            stop(host)
    finally:
        os.chdir(before)


def user_only(tools, _server):
    """With --user-only another user, and a socket that nobody holds any more, get nowhere; needs root."""
    if os.geteuid() != 0:
        return
    for way in ([], ["--listen", "127.0.0.1:0"], ["-L", "*:0:%s"]):
        target = Target()
        turn_others_away(tools, target, [word.replace("%s", target.address) for word in way])


def turn_others_away(tools, target, way):
    with Host(tools, target, "--user-only", *way) as host, host.connect() as own:
        expect_echo(own, "the same user")
        stranger = ("import socket, sys; c = socket.create_connection(('127.0.0.1', int(sys.argv[1]))); "
                    "c.sendall(b'x')")
        command = ["python3", "-c", stranger, host.address.rpartition(":")[2]]
        subprocess.run([*command[:2], stranger + "; c.recv(1)", *command[3:]], user=NOBODY, check=False,
                       stderr=subprocess.DEVNULL)
        host.process.signal(signal.SIGSTOP)  # so that it looks when the stranger has gone
        subprocess.run(command, user=NOBODY, check=True)
        host.process.signal(signal.SIGCONT)
        with host.connect() as other:
            expect_echo(other, "the same user")
        expect(target.connections == 2, target.connections, "connections reached the target, and two of them were ours")


SCENARIOS = {each.__name__: each for each in (strangers, half_close, many, forwards, unix_target, socket_config, user_only)}
