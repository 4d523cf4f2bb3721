"""What gx-ssh carries itself between its clients and the module: who gets in, how much, and to the last byte."""

import contextlib
import os
import re
import resource
import select
import signal
import socket
import subprocess
import threading

from hosts import Host, Target, connect, expect_answer, expect_echo, expect_end
from throwaway import eventually, expect, read

CONNECTIONS = 950
STRANGERS = 40  # more than the 32 that may be silent at the same time
FORWARDED = 100  # connections of each -L
LISTENING = "0A"
NOBODY = 65534


def module_port(host):
    """Of the sockets of 127.0.0.1 at which the process listens the one that it has not announced."""
    inodes = set()
    for name in os.listdir(f"/proc/{host.pid}/fd"):
        with contextlib.suppress(FileNotFoundError):
            inodes.update(re.findall(r"^socket:\[(\d+)\]$", os.readlink(f"/proc/{host.pid}/fd/{name}")))
    rows = [line.split() for line in read("/proc/net/tcp").splitlines()]
    ports = {str(int(row[1].split(":")[1], 16)) for row in rows if row[3] == LISTENING and row[9] in inodes}
    return (ports - set(re.findall(r":(\d+)$", host.out.text()))).pop()


def expect_whole(host, text, what):
    """The answer that the target begins when it has heard all."""
    with connect(host.address) as client:
        threading.Thread(target=lambda: (client.sendall(text), client.shutdown(socket.SHUT_WR))).start()
        expect_answer(client, text, what)
        expect_end(client, what)


def modes(tools):
    """Strangers, who find the module's own port, get nowhere and keep nobody out; bytes come back whole."""
    ways = [["-W", "@TARGET"], ["--listen", "127.0.0.1:0"], ["--listen", f"unix:{tools.folder}/socket"],
            ["--reconnect"], ["--user-only"]]
    text = os.urandom(3_000_000)
    with contextlib.ExitStack() as exits:
        hosts, silent = [], []
        for way in ways:
            target = Target(last=True)
            host = exits.enter_context(Host(tools, target, *way))
            hosts.append((way, host, target))
            if way[0] == "-W":
                host.send("hello\n")
                eventually(lambda: target.connections == 1, "-W did not connect")
            else:
                expect_whole(host, b"", way)
            address = f"127.0.0.1:{module_port(host)}"
            silent += [(way, exits.enter_context(connect(address))) for _ in range(STRANGERS)]
            bold = exits.enter_context(connect(address))
            bold.send(b"x" * 100_000)  # what it takes before the connection is closed
            expect_end(bold, f"{way}: a stranger that talks")
        for way, host, target in hosts[1:]:
            for size in (5, len(text)):
                expect_whole(host, text[:size], f"{way}, {size} bytes before the end of the input")
        for way, client in silent:
            expect_end(client, f"{way}: a silent stranger")
        hosts[0][1].stdin.close()
        hosts[0][1].expect_status(0)
        expect(hosts[0][1].out.text() == "hello", "-W printed", hosts[0][1].out.text())
        for way, _, target in hosts:
            expect(target.connections == (1 if way[0] == "-W" else 3), way, target.connections, "reached the target")


def many(tools):
    """So many connections at once, in each mode."""
    resource.setrlimit(resource.RLIMIT_NOFILE, (resource.getrlimit(resource.RLIMIT_NOFILE)[1],) * 2)
    listen = ["--listen", "127.0.0.1:0"]
    for way in (listen, ["--listen", f"unix:{tools.folder}/socket"], ["--reconnect"], ["--user-only"], ["--local"],
                [*listen, "--local"]):
        target = Target()
        far_side = [] if "--local" in way else None
        limited = ["sh", "-c", 'ulimit -Sn 1024; exec "$@"', "sh"]
        with Host(tools, target, *way, far_side=far_side, through=limited) as host, contextlib.ExitStack() as exits:
            clients = [exits.enter_context(connect(host.address)) for _ in range(CONNECTIONS)]
            for number, client in enumerate(clients):
                client.sendall(b"%d" % number)
            for number, client in enumerate(clients):
                expect_answer(client, b"%d" % number, f"{way}, connection {number}")


def forwards(tools):
    """Each -L leads to its target over the one carrier; connections that are refused harm no other."""
    paths = [f"{tools.folder}/{name}" for name in ("target", "near", "refused")]
    targets = [Target(), Target(), Target(), Target(path=paths[0]), Target(path=paths[2]), Target()]
    named = [target.address.removeprefix("unix:") for target in targets]
    named[1] = named[1].replace("127.0.0.1", "localhost")
    starts = ["0", "localhost:0", "*:0", paths[1], "0", "127.0.0.1:0"]
    options = [word for start, name in zip(starts, named) for word in ("-L", f"{start}:{name}")]
    allowed = " ".join(f"--allow {name}" for name in (named[1], targets[2].address, targets[3].address))
    with contextlib.ExitStack() as exits:
        host = exits.enter_context(Host(tools, targets[0], "--port-file", f"{tools.folder}/addresses", *options,
                                        allowed=allowed))
        host.expect(host.err, "other computers can reach ")
        addresses = host.addresses(len(targets))
        expect(read(f"{tools.folder}/addresses").split() == addresses, "the port file has others")
        # The connections come while the module waits for the far side; then it takes all at once.
        with connect(addresses[0]) as filler:
            expect_echo(filler, "the first connection")
            os.kill(host.peer_pid, signal.SIGSTOP)
            filler.setblocking(False)
            while select.select([], [filler], [], 0.1)[1]:
                with contextlib.suppress(BlockingIOError):
                    filler.send(bytes(65536))
            clients = [(number, exits.enter_context(connect(address)))
                       for _ in range(FORWARDED) for number, address in enumerate(addresses)]
            texts = [os.urandom(20_000) for _ in clients]
            for (_, client), text in zip(clients, texts):
                with contextlib.suppress(ConnectionError):
                    client.sendall(text)
            os.kill(host.peer_pid, signal.SIGCONT)
        for (number, client), text in zip(clients, texts):
            if number < 4:
                expect_answer(client, text, f"connection through {addresses[number]}")
            else:
                expect_end(client, "a connection to a target that is refused")
        wanted = [FORWARDED + 1] + [FORWARDED] * 3 + [0, 0]
        eventually(lambda: [target.connections for target in targets] == wanted, "other targets were reached")


def user_only(tools):
    """With --user-only another user and a connection that its client has closed get nowhere; needs root."""
    stranger = ["python3", "-c", "import socket, sys; c = socket.create_connection(('127.0.0.1', int(sys.argv[1]))); "
                "c.sendall(b'x'); sys.argv[2:] and c.recv(1)"]
    for way in ([], ["--listen", "127.0.0.1:0"], ["-L", "*:0:@TARGET"]) if os.geteuid() == 0 else ():
        target = Target()
        with Host(tools, target, "--user-only", *way) as host:
            port = host.address.rpartition(":")[2]
            with connect(host.address) as own:
                expect_echo(own, "the same user")
            subprocess.run([*stranger, port, "waits"], user=NOBODY, check=False, stderr=subprocess.DEVNULL)
            host.signal(signal.SIGSTOP)  # so that it looks when the stranger has gone
            subprocess.run([*stranger, port], user=NOBODY, check=True)
            host.signal(signal.SIGCONT)
            with connect(host.address) as own:
                expect_echo(own, "the same user")
        expect(target.connections == 2, target.connections, "connections reached the target, and two of them were ours")


SCENARIOS = {each.__name__: each for each in (modes, many, forwards, user_only)}
