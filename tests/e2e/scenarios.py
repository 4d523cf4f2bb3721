#!/usr/bin/env python3
"""What users do with the system, with the real programs: one scenario per call. The first is also the demo."""

import argparse
import contextlib
import hashlib
import os
import secrets
import signal
import sys
import tempfile
import time

from throwaway import Clients, Failure, ProxyCommand, SshServer, Tunnel, bounded, free_port, run

SCENARIOS = {}


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
def interactive_session(tools, server):
    """A terminal on the far side, and the status with which its shell ends."""
    with Tunnel(tools, server, local=True) as tunnel:
        with tunnel.session("-tt", "far") as session:
            session.send("echo typed-'by'-hand\n")
            session.expect(session.out, "typed-by-hand")
            session.send("exit 7\n")
            session.expect_status(7)


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
def tree_copy(tools, server):
    """scp -r of a tree, there and back."""
    tree, there, back = (f"{server.folder}/{name}" for name in ("tree", "there", "back"))
    make_tree(tree)
    with Tunnel(tools, server, local=True) as tunnel:
        tunnel.run("scp", "-q", "-p", "-r", tree, f"far:{there}")
        tunnel.run("scp", "-q", "-p", "-r", f"far:{there}", back)
    expect(describe_tree(tree) == describe_tree(there) == describe_tree(back), "the trees differ")


@scenario
def exit_status(tools, server):
    """What a remote command prints and how it ends comes through, its two outputs apart."""
    with Tunnel(tools, server) as tunnel:
        with tunnel.session("far", "echo out; echo err >&2; exit 42") as session:
            session.expect_status(42)
            expect("out" in session.out.text().split(), "its standard output did not come through")
            expect("err" in session.err.text().split(), "its standard error did not come through")


@scenario
def far_side_killed(tools, server):
    """With a session open, the far side dies: the session and gx-ssh end, and gx-ssh says why."""
    with Tunnel(tools, server) as tunnel, tunnel.session("far", "cat") as session:
        session.send("hello\n")
        session.expect(session.out, "^hello$")
        status, words = tunnel.kill_peer()
        expect(status > 0, f"gx-ssh ended with {status} although the far side was killed")
        expect("gx-ssh: " in words, f"gx-ssh did not say why it ended, only: {words}")
        expect(session.wait() != 0, "the session ended with 0 although the far side was killed")


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
    """ssh starts gx-ssh -W itself: one after the other, many at once, and what builds on ssh."""
    with ProxyCommand(tools, server) as proxy, contextlib.ExitStack() as open_sessions:
        for number in range(20):
            expect(proxy.run("ssh", "far", f"echo {number}") == f"{number}\n", "a command printed something else")
        sessions = [open_sessions.enter_context(proxy.session("far", "cat; exit 42")) for _ in range(20)]
        for number, session in enumerate(sessions):
            session.send(f"text {number}\n")
            session.expect(session.out, f"^text {number}$", timeout=120)
            session.stdin.close()
        for session in sessions:
            session.expect_status(42)

        tree, there, clone = (f"{server.folder}/{name}" for name in ("tree", "there", "clone"))
        make_tree(tree)
        proxy.run("scp", "-q", "-p", "-r", tree, f"far:{there}")
        expect(describe_tree(tree) == describe_tree(there), "the trees differ")
        run(["git", "init", "-q", tree])
        run(["git", "-C", tree, "add", "."])
        run(["git", "-C", tree, "-c", "user.name=x", "-c", "user.email=x", "commit", "-q", "-m", "x"])
        run(["git", "-c", f"core.sshCommand=ssh -F {proxy.config}", "clone", "-q", f"far:{tree}", clone])
        expect(os.path.exists(f"{clone}/a/b/c/large"), "git cloned nothing")


@scenario
def shared_proxy(tools, server):
    """Sessions that share one ssh connection through gx-ssh -W, and a forwarded port inside it."""
    port = free_port()
    control = ("-o", f"ControlPath={server.folder}/control")
    with ProxyCommand(tools, server) as proxy:
        with proxy.session("-M", "-N", *control, "-L", f"{port}:127.0.0.1:{server.port}", "far") as master:
            wait_for_path(f"{server.folder}/control")
            expect(proxy.run("ssh", *control, "far", "echo shared") == "shared\n", "the shared session failed")
            inner = Clients(server, "HostName 127.0.0.1", f"Port {port}")
            expect(inner.run("ssh", "far", "echo inner") == "inner\n", "the forwarded port does not lead to sshd")
            proxy.run("ssh", *control, "-O", "exit", "far")
            master.wait()


def parse_arguments():
    parser = argparse.ArgumentParser(description=__doc__)
    parser.add_argument("--gx-ssh", required=True, help="the program")
    parser.add_argument("--gx-ssh-peer", required=True, help="the program")
    parser.add_argument("--size-mib", type=int, default=64, help="size of the file that the demo copies")
    parser.add_argument("--limit-s", type=int, default=240, help="fail when this takes longer")
    parser.add_argument("scenario", choices=SCENARIOS)
    return parser.parse_args()


def main():
    arguments = parse_arguments()
    try:
        with bounded(arguments.limit_s), tempfile.TemporaryDirectory(prefix="gx-ssh-") as folder:
            with SshServer(folder) as server:
                SCENARIOS[arguments.scenario](arguments, server)
        say(f"{arguments.scenario} succeeded")
    except Failure as failure:
        sys.exit(f"{arguments.scenario} failed: {failure}")
    except KeyboardInterrupt:
        sys.exit(f"{arguments.scenario} interrupted")


if __name__ == "__main__":
    main()
