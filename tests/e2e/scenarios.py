#!/usr/bin/env python3
"""What users do with the system, with the real programs: one scenario per call. The first is also the demo."""

import argparse
import contextlib
import hashlib
import os
import random
import secrets
import shutil
import signal
import sys
import tempfile
import time

import relays
from kills import VICTIMS, WAYS, KillRound
from terminal import Typist
from throwaway import (TRANSFER_S, Child, Clients, Failure, ProxyCommand, SshServer, Tunnel, bounded, free_port,
                       nothing_left, run, write_script)

SCENARIOS = dict(relays.SCENARIOS)


def scenario(function):
    SCENARIOS[function.__name__] = function
    return function


def say(text):
    print(text, flush=True)


def expect(condition, text):
    if not condition:
        raise Failure(text)


def random_file(path, size_mib):
    with open(path, "wb") as file:
        for _ in range(size_mib):
            file.write(secrets.token_bytes(1 << 20))


def wait_for_path(path):
    """Bounded by the alarm of the whole run."""
    while not os.path.exists(path):
        time.sleep(0.01)


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
def parallel_sessions(tools, server):
    """Twenty sessions that are all open at once, each with data of its own."""
    with Tunnel(tools, server, local=True) as tunnel, contextlib.ExitStack() as open_sessions:
        sessions = [open_sessions.enter_context(tunnel.session("far", "cat")) for _ in range(20)]
        texts = [secrets.token_hex(32 * 1024) for _ in sessions]
        for session, text in zip(sessions, texts):
            session.send(text + "\n")
        for session, text in zip(sessions, texts):
            session.expect(session.out, f"^{text}$", timeout=120)
        for session in sessions:
            session.stdin.close()
        for session in sessions:
            session.expect_status(0)


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


def make_tree(root):
    os.makedirs(f"{root}/a/b/c")
    os.makedirs(f"{root}/empty folder")
    for number in range(50):
        with open(f"{root}/a/b/{number}.bin", "wb") as file:
            file.write(secrets.token_bytes(number * 997))
    random_file(f"{root}/a/b/c/large", 2)
    with open(f"{root}/a/name with blanks.sh", "w", encoding="ascii") as file:
        os.fchmod(file.fileno(), 0o750)


def describe_tree(root):
    """Relative path, mode and SHA-256 of everything below `root`."""
    found = []
    for folder, folders, files in os.walk(root):
        for name in folders + files:
            path = os.path.join(folder, name)
            digest = sha256(path) if name in files else ""
            found.append((os.path.relpath(path, root), os.stat(path).st_mode, digest))
    return sorted(found)


@scenario
def tree_copies(tools, server):
    """A tree there and back by scp, rsync and git."""
    tree, there, back, clone = (f"{server.folder}/{name}" for name in ("tree", "there", "back", "clone"))
    make_tree(tree)
    proxy = ProxyCommand(tools, server)
    ssh = f"ssh -F {proxy.config}"
    for command in (proxy.command("scp", "-q", "-p", "-r"), ["rsync", "-a", "-e", ssh]):
        # rsync copies what is in a folder whose name ends in a slash, scp the folder itself.
        slash = "/" if command[0] == "rsync" else ""
        run([*command, tree + slash, f"far:{there}"])
        run([*command, f"far:{there}{slash}", back])
        expect(describe_tree(tree) == describe_tree(there) == describe_tree(back), f"{command[0]}: trees differ")
        shutil.rmtree(there)
        shutil.rmtree(back)
    git = ["git", "-C", tree, "-c", "user.name=x", "-c", "user.email=x", "-c", f"core.sshCommand={ssh}"]
    run([*git, "init", "-q"])
    run([*git, "add", "."])
    run([*git, "commit", "-q", "-m", "x"])
    run([*git, "clone", "-q", f"far:{tree}", clone])
    expect(sha256(f"{clone}/a/b/c/large") == sha256(f"{tree}/a/b/c/large"), "git cloned something else")


@scenario
def interrupted(tools, server):
    """Ctrl-C with a session open ends gx-ssh and its far side in order."""
    with Tunnel(tools, server) as tunnel, tunnel.session("far", "cat") as session:
        session.send("hello\n")
        session.expect(session.out, "^hello$")
        tunnel.stop(signal.SIGINT)
        expect(session.wait() != 0, "the session ended with 0 although its tunnel was closed")


@scenario
def proxy_command(tools, server):
    """ssh starts gx-ssh -W itself: one after the other, and many at once."""
    proxy = ProxyCommand(tools, server)
    with contextlib.ExitStack() as open_sessions:
        for number in range(tools.rounds):
            expect(proxy.run("ssh", "far", f"echo {number}") == f"{number}\n", "a command printed something else")
        sessions_at_once = [open_sessions.enter_context(proxy.session("far", "cat; exit 42"))
                            for _ in range(tools.rounds)]
        for number, session in enumerate(sessions_at_once):
            session.send(f"text {number}\n")
            session.expect(session.out, f"^text {number}$", timeout=120)
            session.stdin.close()
        for session in sessions_at_once:
            session.expect_status(42)


@scenario
def shared_proxy(tools, server):
    """Sessions that share one ssh connection through gx-ssh -W, and a forwarded port inside it."""
    port = free_port()
    control = ("-o", f"ControlPath={server.folder}/control")
    proxy = ProxyCommand(tools, server)
    with proxy.session("-M", "-N", *control, "-L", f"{port}:127.0.0.1:{server.port}", "far") as master:
        wait_for_path(f"{server.folder}/control")
        expect(proxy.run("ssh", *control, "far", "echo shared") == "shared\n", "the shared session failed")
        inner = Clients(server, "HostName 127.0.0.1", f"Port {port}")
        expect(inner.run("ssh", "far", "echo inner") == "inner\n", "the forwarded port does not lead to sshd")
        proxy.run("ssh", *control, "-O", "exit", "far")
        master.wait()


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


def resident_mib(pid):
    with open(f"/proc/{pid}/statm", encoding="ascii") as file:
        return int(file.read().split()[1]) * os.sysconf("SC_PAGE_SIZE") / (1 << 20)


@scenario
def stopped_client(tools, server):
    """An ssh that is stopped in the middle of a flood costs the tunnel little, and gets every byte afterwards."""
    lines = tools.size_mib * 125_000  # of 9 bytes or less
    flood = f"seq 1 {lines}"
    received = f"{server.folder}/received"
    with Tunnel(tools, server, local=True) as tunnel:
        write_script(f"{server.folder}/client", f'exec ssh -F {tunnel.config} far "{flood}" >"{received}"')
        with Child([f"{server.folder}/client"]) as client:
            while not os.path.exists(received) or os.path.getsize(received) < 1 << 20:
                time.sleep(0.01)
            before = resident_mib(tunnel.host.pid)
            client.signal(signal.SIGSTOP)
            end = time.monotonic() + min(10, tools.rounds)
            most = before
            while time.monotonic() < end:
                most = max(most, resident_mib(tunnel.host.pid))
                time.sleep(0.05)
            stopped_at = os.path.getsize(received)
            client.signal(signal.SIGCONT)
            client.expect_status(0, timeout=TRANSFER_S)
        digest = run(["sh", "-c", f"{flood} | sha256sum"]).split()[0]
        expect(sha256(received) == digest, "what came is not what was sent")
        expect(stopped_at < os.path.getsize(received), "all had come before the client was stopped")
        expect(most - before <= 4, f"it cost {most - before:.1f} MiB")
    say(f"stopped after {stopped_at >> 20} MiB it cost {most - before:.1f} MiB")


@scenario
def kills(tools, server):
    """At some moment the far side, the carrier or gx-ssh is killed: everything else ends soon, and says why."""
    slowest = 0
    for _ in range(tools.rounds):
        for victim in VICTIMS:
            for way in WAYS:
                took = KillRound(tools, server, way).kill(victim, random.random() * 0.4)
                expect(took < tools.end_s, f"after the kill of {victim} ({way}) it took {took:.2f} s to end")
                slowest = max(slowest, took)
    say(f"all was over {slowest:.2f} s after a kill, at the latest")


@scenario
def terminal(tools, _):
    """Who gets what is typed, and who may write."""
    typist = Typist(tools)
    typist.interrupts_a_command()
    typist.interrupts_a_carrier()
    typist.goes_on_in_a_script()
    typist.suspends_and_continues()
    typist.suspends_where_no_shell_could_continue()
    typist.is_stopped_inside_a_script()
    typist.has_it_in_the_background()


def parse_arguments():
    parser = argparse.ArgumentParser(description=__doc__)
    parser.add_argument("--gx-ssh", required=True, type=os.path.abspath, help="the program")
    parser.add_argument("--gx-ssh-peer", required=True, type=os.path.abspath, help="the program")
    parser.add_argument("--size-mib", type=int, default=64, help="size of the file that the demo copies")
    parser.add_argument("--rounds", type=int, default=20, help="how often a scenario does what it repeats")
    parser.add_argument("--end-s", type=float, default=2, help="within which all is over after a kill")
    parser.add_argument("--limit-s", type=int, default=240, help="fail when this takes longer")
    parser.add_argument("scenario", choices=SCENARIOS)
    return parser.parse_args()


def main():
    arguments = parse_arguments()
    try:
        with bounded(arguments.limit_s), tempfile.TemporaryDirectory(prefix="gx-ssh-") as folder:
            with SshServer(folder) as server, nothing_left(folder):
                SCENARIOS[arguments.scenario](arguments, server)
        say(f"{arguments.scenario} succeeded")
    except Failure as failure:
        sys.exit(f"{arguments.scenario} failed: {failure}")
    except KeyboardInterrupt:
        sys.exit(f"{arguments.scenario} interrupted")


if __name__ == "__main__":
    main()
