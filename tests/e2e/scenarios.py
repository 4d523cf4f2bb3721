"""What users do with the system, with the real programs: one scenario per call. The first is also the demo."""

import argparse
import contextlib
import os
import sys
import tempfile
import time

import bringing
import carriers
import programs
import relays
from hosts import Host, tunnel
from terminal import terminal
from throwaway import Clients, Failure, SshServer, bounded, nothing_left


def say(text):
    print(text, flush=True)


def demo(tools, server):
    """A command, and a file there and back."""
    say(f"sshd      listens on {server.address}, with keys of its own")
    with tunnel(tools, server) as clients:
        say("gx-ssh    forwards a port to it through gx-ssh-peer")
        clients.expect_command()
        say("ssh       ran a command on the far side")

        start = time.monotonic()
        clients.expect_copies(tools.size_mib << 20)
        seconds = time.monotonic() - start
        say(f"scp       took {tools.size_mib} MiB of random bytes there and back in {seconds:.1f} s; they are the same")
    say("gx-ssh    ended in order")


def proxies(tools, server):
    """As ssh's proxy: -W, and --connect to a Unix socket as --print ssh-config says, whatever its path is like."""
    peer = f"{tools.gx_ssh_peer} -q --allow {server.address}"
    proxy = f"ProxyCommand {tools.gx_ssh} -q -W %h:%p -- sh -c 'echo a banner; exec {peer}'"
    Clients(server, "HostName 127.0.0.1", f"Port {server.port}", proxy).expect_command()
    os.chdir(server.folder)
    with Host(tools, server, "--listen", "unix:it's 50%h of a $HOME", "--print", "ssh-config") as host:
        proxy = host.expect(host.out, r"^ *(ProxyCommand .*)$").group(1)
        os.chdir("/")
        Clients(server, proxy).expect_command()


def another_far_side(tools, server):
    """The example that knows docs/frames.md and nothing else."""
    example = os.path.join(os.path.dirname(os.path.abspath(__file__)), "../../examples/far_side.py")
    for raw in ([], ["--raw"]):
        carrier = [sys.executable, example, *raw, "--target", server.address]
        with tunnel(tools, server, far_side=[*raw, "--", *carrier]) as clients:
            clients.expect_command()
            clients.expect_copies(1 << 20)


# Those before an SSH server, and those that need none.
SSH = {**carriers.SCENARIOS, **{each.__name__: each for each in (demo, proxies, another_far_side)}}
SCENARIOS = {**relays.SCENARIOS, **bringing.SCENARIOS, **programs.SCENARIOS, "terminal": terminal}


def play(tools):
    with tempfile.TemporaryDirectory(prefix="gx-ssh-") as tools.folder, contextlib.ExitStack() as exits:
        server = [exits.enter_context(SshServer(tools.folder))] if tools.scenario in SSH else []
        exits.enter_context(nothing_left(tools.folder))
        (SSH | SCENARIOS)[tools.scenario](tools, *server)


def parse_arguments():
    parser = argparse.ArgumentParser(description=__doc__)
    parser.add_argument("--gx-ssh", required=True, type=os.path.abspath, help="the program")
    parser.add_argument("--gx-ssh-peer", required=True, type=os.path.abspath, help="the program")
    parser.add_argument("--size-mib", type=int, default=64, help="size of the file that the demo copies")
    parser.add_argument("--rounds", type=int, default=1, help="how often the scenario is played")
    parser.add_argument("--limit-s", type=int, default=240, help="fail when this takes longer")
    parser.add_argument("scenario", choices=[*SSH, *SCENARIOS])
    return parser.parse_args()


def main():
    arguments = parse_arguments()
    try:
        with bounded(arguments.limit_s):
            for _ in range(arguments.rounds):
                play(arguments)
        say(f"{arguments.scenario} succeeded")
    except Failure as failure:
        sys.exit(f"{arguments.scenario} failed: {failure}")
    except KeyboardInterrupt:
        sys.exit(f"{arguments.scenario} interrupted")


if __name__ == "__main__":
    main()
