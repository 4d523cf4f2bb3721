#!/usr/bin/env python3
"""What users do with the system, with the real programs: one scenario per call. The first is also the demo."""

import argparse
import hashlib
import os
import secrets
import sys
import tempfile
import time

import bringing
import carriers
import programs
import relays
from relays import expect
from terminal import Typist
from throwaway import Failure, ProxyCommand, SshServer, Tunnel, bounded, nothing_left

SCENARIOS = {**relays.SCENARIOS, **bringing.SCENARIOS, **carriers.SCENARIOS,
             **programs.SCENARIOS}


def scenario(function):
    SCENARIOS[function.__name__] = function
    return function


def say(text):
    print(text, flush=True)


def random_file(path, size_mib):
    with open(path, "wb") as file:
        for _ in range(size_mib):
            file.write(secrets.token_bytes(1 << 20))


def sha256(path):
    with open(path, "rb") as file:
        return hashlib.file_digest(file, "sha256").hexdigest()


def timed_copy(tunnel, source, destination, size_mib):
    start = time.monotonic()
    tunnel.run("scp", "-q", source, destination)
    seconds = time.monotonic() - start
    return f"{seconds:.1f} s, {size_mib / seconds:.0f} MiB/s"


@scenario
def demo(tools, server):
    """A command, and a file there and back."""
    say(f"sshd      listens on 127.0.0.1:{server.port}, with keys of its own")
    with Tunnel(tools, server) as tunnel:
        say(f"gx-ssh    forwards 127.0.0.1:{tunnel.port} to it through gx-ssh-peer")
        answer = tunnel.run("ssh", "far", "echo it said $((6 * 7))").splitlines()
        expect(answer[-1:] == ["it said 42"], f"the command through ssh printed {answer}")
        say("ssh       ran a command on the far side")

        original, there, back = (f"{server.folder}/{name}" for name in ("original", "there", "back"))
        random_file(original, tools.size_mib)
        took = timed_copy(tunnel, original, f"far:{there}", tools.size_mib)
        say(f"scp       took {tools.size_mib} MiB of random bytes there ({took})")
        took = timed_copy(tunnel, f"far:{there}", back, tools.size_mib)
        say(f"scp       brought them back ({took})")
        expect(sha256(original) == sha256(there) == sha256(back), "the SHA-256 of the copies differ")
        say(f"SHA-256   is the same for all three: {sha256(back)}")
    say("gx-ssh    ended in order")


@scenario
def sessions(tools, server):
    """A command's two outputs and its status, a terminal and its shell's status; through a port and through -W."""
    with Tunnel(tools, server) as tunnel:
        for way in (tunnel, ProxyCommand(tools, server)):
            with way.session("far", "echo out; echo err >&2; exit 42") as command:
                command.expect_status(42)
                expect(command.out.text() == "out", "its standard output did not come through")
                expect("err" in command.err.text().split(), "its standard error did not come through")
            with way.session("-tt", "far") as terminal:
                terminal.send("echo typed-'by'-hand\n")
                terminal.expect(terminal.out, "typed-by-hand")
                terminal.send("exit 7\n")
                terminal.expect_status(7)


@scenario
def another_far_side(tools, server):
    """The example that knows docs/frames.md and nothing else: a command's status, a copy, a shared connection."""
    example = os.path.join(os.path.dirname(os.path.abspath(__file__)), "../../examples/far_side.py")
    original, back = f"{server.folder}/original", f"{server.folder}/back"
    random_file(original, 4)
    for raw in ([], ["--raw"]):
        carrier = [sys.executable, example, *raw, "--target", f"127.0.0.1:{server.port}"]
        with Tunnel(tools, server, far_side=[*raw, "--", *carrier]) as tunnel:
            with tunnel.session("far", "cat; exit 42") as session:
                session.send("hello\n")
                session.expect(session.out, "^hello$")
                session.stdin.close()
                session.expect_status(42)
            tunnel.run("scp", "-q", original, f"far:{back}")
            tunnel.run("scp", "-q", f"far:{back}", f"{back}-again")
        expect(sha256(original) == sha256(back) == sha256(f"{back}-again"), "the copies differ")


@scenario
def terminal(tools, _):
    """Who gets what is typed, and who may write."""
    typist = Typist(tools)
    typist.interrupts_a_command()
    typist.interrupts_a_carrier()
    typist.goes_on_in_a_script()
    typist.suspends_and_continues()
    typist.has_another_carrier_ask()
    typist.suspends_where_no_shell_could_continue()
    typist.is_stopped_inside_a_script()
    typist.has_it_in_the_background()


def parse_arguments():
    parser = argparse.ArgumentParser(description=__doc__)
    parser.add_argument("--gx-ssh", required=True, type=os.path.abspath, help="the program")
    parser.add_argument("--gx-ssh-peer", required=True, type=os.path.abspath, help="the program")
    parser.add_argument("--size-mib", type=int, default=64, help="size of the file that the demo copies")
    parser.add_argument("--rounds", type=int, default=1, help="how often the scenario is played")
    parser.add_argument("--limit-s", type=int, default=240, help="fail when this takes longer")
    parser.add_argument("scenario", choices=SCENARIOS)
    return parser.parse_args()


def main():
    arguments = parse_arguments()
    if why_not := carriers.why_not(arguments.scenario):
        say(why_not)
        return
    try:
        with bounded(arguments.limit_s):
            for _ in range(arguments.rounds):
                with tempfile.TemporaryDirectory(prefix="gx-ssh-") as folder:
                    with SshServer(folder) as server, nothing_left(folder):
                        SCENARIOS[arguments.scenario](arguments, server)
        say(f"{arguments.scenario} succeeded")
    except Failure as failure:
        sys.exit(f"{arguments.scenario} failed: {failure}")
    except KeyboardInterrupt:
        sys.exit(f"{arguments.scenario} interrupted")


if __name__ == "__main__":
    main()
