"""The compared ways from a local port to the target: gx-ssh, other tunnels, and no tunnel."""

import contextlib
import os
import random
import shlex
import shutil
import signal
import socket
import subprocess
import time

from throwaway import READY_S, Child, Clients, Failure, Stopped, run, write

ASKED_S = 5  # a program that does not end within this time after SIGTERM is killed


def quiet_port():
    """A free port outside the range for outgoing connections."""
    for _ in range(100):
        port = random.randrange(20000, 32000)
        with socket.socket() as probe, contextlib.suppress(OSError):
            probe.bind(("127.0.0.1", port))
            return port
    raise Failure("no free port")


def listens(port):
    """Whether a port of 127.0.0.1 is open. It does not connect, because the tunnel would carry that connection."""
    wanted = f"0100007F:{port:04X}"
    with open("/proc/net/tcp", encoding="ascii") as table:
        return any(line.split()[1] == wanted and line.split()[3] == "0A" for line in table)


def wait_until(condition, what):
    end = time.monotonic() + READY_S
    while not condition():
        if time.monotonic() > end:
            raise Failure(f"not after {READY_S} s: {what}")
        time.sleep(0.02)


def children(pid):
    with open(f"/proc/{pid}/task/{pid}/children", encoding="ascii") as file:
        return [int(child) for child in file.read().split()]


@contextlib.contextmanager
def running(command):
    """A program that gets SIGTERM at the end of the block, and is killed if it takes too long to end."""
    with Child(command) as child:
        yield child
        child.signal(signal.SIGTERM)
        try:
            child.wait(ASKED_S)
        except Stopped:
            raise
        except Failure:
            pass  # the way other programs end is not measured


@contextlib.contextmanager
def listening(command, port):
    with running(command) as child:
        wait_until(lambda: listens(port), f"{child.name} listens")
        yield child


# Options of `line`, for both directions. The last line changes its rate during the run. --then takes all arguments up
# to the next option, so it is not the last option.
LINES = {
    "11.5K": ["--rate", "11500", "--delay", "5"],
    "100K": ["--rate", "100e3", "--delay", "20"],
    "1M": ["--rate", "1e6", "--delay", "20"],
    "10M": ["--rate", "10e6", "--delay", "100"],
    "1M-100K-1M": ["--then", "10", "100e3", "--then", "20", "1e6", "--rate", "1e6", "--delay", "20"],
}


class World:
    """The environment of all runs: programs, SSH server, port of the target, folder, perhaps a slow line."""

    def __init__(self, build, folder, server, line=None, edges=None):
        self.folder = folder
        self.server = server
        self.build = build
        self.load = f"{build}/bench/tunnel/tunnel"
        self.gx_ssh = f"{build}/tools/gx-ssh/gx-ssh"
        self.gx_ssh_peer = f"{build}/tools/peer/gx-ssh-peer"
        self.line = [f"{build}/bench/line/line", *LINES[line]] if line else None
        # Bytes in the sockets of a slow line are sent after the run and prolong it, so limit them. On a fast line the
        # limit would slow the transfer down.
        self.load_options = ["--patience", "400"] if line else []
        self.load_options += ["--unsent", "16384"] if line and line != "10M" else []
        self.load_options += ["--edges", edges] if edges else []
        self.target_port = quiet_port()

    def along(self, *command):
        """The command, started by `line` if there is a slow line."""
        return [*self.line, "--", *command] if self.line else [*command]


class Tunnel:
    """One way to the target. `open(world)` is a context with the local port and the processes of the tunnel."""

    package = None  # installed by --setup when `program` is missing
    program = None
    most_connections = 100_000

    def __init__(self, name):
        self.name = name

    def missing(self):
        return self.program is not None and find(self.program) is None


def find(program):
    return shutil.which(program, path=os.environ.get("PATH", "") + ":/usr/sbin:/usr/local/sbin")


class NoTunnel(Tunnel):
    @contextlib.contextmanager
    def open(self, world):
        yield world.target_port, []


class GxSsh(Tunnel):
    @contextlib.contextmanager
    def open(self, world):
        target = f"127.0.0.1:{world.target_port}"
        with running([world.gx_ssh, "-q", "--target", target, *self.far_side(world, target)]) as child:
            port = child.expect(child.out, r"^127\.0\.0\.1:(\d+)$").group(1)
            yield int(port), [child.pid]
            child.signal(signal.SIGTERM)
            child.expect_status(0)

    @staticmethod
    def far_side(world, target):
        return ["--", *world.along(world.gx_ssh_peer, "-q", "--allow", target, "--max-connections", "2000")]


class GxSshLocal(GxSsh):
    most_connections = 250

    @staticmethod
    def far_side(_world, _target):
        return ["--local"]


class Ssh(Tunnel):
    program = "ssh"
    package = "openssh-client"

    @contextlib.contextmanager
    def open(self, world):
        port = quiet_port()
        with listening(self.command(world, f"127.0.0.1:{port}:127.0.0.1:{world.target_port}"), port) as child:
            yield port, [child.pid, *children(world.server.daemon.pid)]
        wait_until(lambda: not children(world.server.daemon.pid), "sshd's session ends")

    @staticmethod
    def command(world, forward):
        way = ["HostName 127.0.0.1", f"Port {world.server.port}"]
        if world.line:
            one_session = world.along(find("sshd"), "-i", "-f", f"{world.folder}/sshd_config")
            way = [f"ProxyCommand {shlex.join(one_session)}"]
        clients = Clients(world.server, *way)
        return clients.command("ssh", "-N", "-c", "aes128-gcm@openssh.com", "-L", forward, "far")


class Dbclient(Ssh):
    program = "dbclient"
    package = "dropbear-bin"

    @staticmethod
    def command(world, forward):
        key = f"{world.folder}/dropbear_key"
        if not os.path.exists(key):
            run(["dropbearconvert", "openssh", "dropbear", f"{world.folder}/user_key", key])
        return ["dbclient", "-N", "-y", "-y", "-i", key, "-L", forward, "-p", str(world.server.port), "127.0.0.1"]


class Socat(Tunnel):
    """Two socats in a row, as the other tunnels have two halves."""

    program = "socat"
    package = "socat"

    @contextlib.contextmanager
    def open(self, world):
        first, second = quiet_port(), quiet_port()
        with (listening(self.hop(second, world.target_port), second) as far,
              listening(self.hop(first, second), first) as near):
            yield first, [near.pid, far.pid]

    @staticmethod
    def hop(port, onward):
        return ["socat", f"TCP-LISTEN:{port},bind=127.0.0.1,fork,reuseaddr,backlog=1024,nodelay",
                f"TCP:127.0.0.1:{onward},nodelay"]


class Bare(Tunnel):
    """One of our own programs that only copy: the least cost of two programs, or of two that carry frames."""

    def __init__(self, name, program, most_connections):
        super().__init__(name)
        self.program_name = program
        self.most_connections = most_connections

    @contextlib.contextmanager
    def open(self, world):
        port = quiet_port()
        program = f"{world.build}/bench/{self.program_name}/{self.program_name}"
        with listening([program, str(port), f"127.0.0.1:{world.target_port}"], port) as child:
            yield port, [child.pid]


class Configured(Tunnel):
    """A relay with a configuration file."""

    @contextlib.contextmanager
    def open(self, world):
        port = quiet_port()
        config = f"{world.folder}/{self.name}.conf"
        write(config, self.config(world, port))
        with listening([find(self.program), *self.options(world, config)], port) as child:
            yield port, [child.pid]


class Haproxy(Configured):
    program = "haproxy"
    package = "haproxy"

    @staticmethod
    def options(_world, config):
        return ["-db", "-q", "-f", config]

    @staticmethod
    def config(world, port):
        return f"""
global
    maxconn 4000
defaults
    mode tcp
    timeout connect 10s
    timeout client 1h
    timeout server 1h
listen tunnel
    bind 127.0.0.1:{port}
    server target 127.0.0.1:{world.target_port}
"""


class Nginx(Configured):
    program = "nginx"
    package = "libnginx-mod-stream"

    @staticmethod
    def options(world, config):
        return ["-p", world.folder, "-e", "stderr", "-c", config]

    @staticmethod
    def config(world, port):
        return f"""
load_module /usr/lib/nginx/modules/ngx_stream_module.so;
daemon off;
pid {world.folder}/nginx.pid;
events {{ worker_connections 4096; }}
stream {{
    server {{
        listen 127.0.0.1:{port};
        proxy_pass 127.0.0.1:{world.target_port};
        proxy_timeout 1h;
    }}
}}
"""


ALL = [NoTunnel("none"), GxSsh("gx-ssh"), GxSshLocal("gx-ssh --local"), Ssh("ssh -L"), Dbclient("dbclient -L"),
       Socat("2 socat"), Bare("bare relay", "relay", 100), Bare("bare multiplexer", "multiplexer", 1_000),
       Haproxy("haproxy"), Nginx("nginx")]

POLICY = "/usr/sbin/policy-rc.d"


def set_up(tunnels):
    """Installs missing programs. Services of new packages are neither started now nor at the next boot."""
    packages = sorted({each.package for each in tunnels if each.missing()})
    if not packages:
        return
    apt = ["apt-get", "-qq", "-o", "DPkg::Lock::Timeout=300"]
    environment = dict(os.environ, DEBIAN_FRONTEND="noninteractive")
    forbid = not os.path.exists(POLICY)
    try:
        if forbid:
            write(POLICY, "#!/bin/sh\nexit 101\n")
            os.chmod(POLICY, 0o755)
        run([*apt, "update"], env=environment)
        run([*apt, "install", "-y", "--no-install-recommends", *packages], timeout=900, env=environment)
    finally:
        if forbid:
            os.remove(POLICY)
    for service in {"haproxy", "nginx"} & {each.program for each in tunnels if each.package in packages}:
        for disable in (["update-rc.d", service, "disable"], ["systemctl", "--quiet", "disable", service]):
            if find(disable[0]):
                subprocess.run(disable, check=False, capture_output=True, timeout=60)
