"""Real programs for the end-to-end tests: an OpenSSH server, the tunnel to it, and clients that go through.

Everything lives in one temporary folder and ends with its `with` block. No wait is without a bound: what has
no time-out of its own is cut short by the alarm that `bounded` sets.
"""

import concurrent.futures
import contextlib
import filecmp
import glob
import os
import pwd
import re
import secrets
import shutil
import signal
import socket
import subprocess
import threading
import time

READY_S = 30  # until a program that was started is ready
END_S = 30  # until a program that was told to end is gone
TRANSFER_S = 300  # until a client has done its work


class Failure(Exception):
    """What went wrong, for people."""


class Stopped(Failure):
    """The time is over, or somebody wants an end: nothing more is tried."""


def expect(condition, *what):
    if not condition:
        raise Failure(" ".join(map(str, what)))


def eventually(condition, what):
    """What the condition gives once that is true."""
    limit = time.monotonic() + READY_S
    while not (found := condition()):
        expect(time.monotonic() < limit, what)
        time.sleep(0.01)
    return found


def read(path):
    with open(path, encoding="utf-8", errors="replace") as file:
        return file.read()


def side_by_side(function, rows):
    """Calls it with each row; a few at the same time, since most of them wait."""
    with concurrent.futures.ThreadPoolExecutor(4) as pool:
        for _ in pool.map(lambda row: function(*row), rows):
            pass


@contextlib.contextmanager
def bounded(seconds):
    """Turns the alarm, SIGTERM and SIGHUP into failures, so that the clean-up of every `with` block runs."""
    ends = (signal.SIGALRM, signal.SIGTERM, signal.SIGHUP)

    def fail(number, _frame):
        for each in ends:
            signal.signal(each, signal.SIG_IGN)
        raise Stopped(f"not done after {seconds} s" if number == signal.SIGALRM else signal.Signals(number).name)

    for each in ends:
        signal.signal(each, fail)
    # A shell's background job ignores these two, and what it starts would as well.
    signal.signal(signal.SIGINT, signal.default_int_handler)
    signal.signal(signal.SIGQUIT, signal.SIG_DFL)
    signal.alarm(seconds)
    yield
    signal.alarm(0)


class Lines:
    """Collects the lines of a pipe on a thread of its own. The pipe ends when nobody can write to it any more."""

    def __init__(self, pipe):
        self._lines = []
        self._ended = False
        self._changed = threading.Condition()
        threading.Thread(target=self._collect, args=(pipe,), daemon=True).start()

    def _collect(self, pipe):
        with pipe:
            for line in pipe:
                with self._changed:
                    self._lines.append(line.rstrip("\r\n"))
                    self._changed.notify_all()
        with self._changed:
            self._ended = True
            self._changed.notify_all()

    def _find(self, pattern):
        return next(filter(None, (re.search(pattern, line) for line in self._lines)), None)

    def wait_for(self, pattern, timeout):
        """The match of the first line that has one; None when none came in time."""
        with self._changed:
            self._changed.wait_for(lambda: self._find(pattern) or self._ended, timeout)
            return self._find(pattern)

    def wait_for_end(self, timeout):
        with self._changed:
            return self._changed.wait_for(lambda: self._ended, timeout)

    def text(self):
        with self._changed:
            return "\n".join(self._lines)


class Child:
    """A program in a group of its own. Leaving the `with` block kills whatever is left of it."""

    def __init__(self, command, **options):
        self.name = os.path.basename(command[0])
        self._process = subprocess.Popen(
            command, stdin=subprocess.PIPE, stdout=subprocess.PIPE, stderr=subprocess.PIPE,
            text=True, errors="replace", **{"start_new_session": True, **options})
        self.pid = self._process.pid
        self.stdin = self._process.stdin
        self.out = Lines(self._process.stdout)
        self.err = Lines(self._process.stderr)

    def __enter__(self):
        return self

    def __exit__(self, *_):
        with contextlib.suppress(ProcessLookupError):
            os.killpg(self._process.pid, signal.SIGKILL)
        with contextlib.suppress(BrokenPipeError):
            self.stdin.close()
        self._process.wait()

    def expect(self, lines, pattern, timeout=READY_S):
        match = lines.wait_for(pattern, timeout)
        expect(match, f"{self.name} printed no line like {pattern!r}; it said:\n{self.err.text()}")
        return match

    def send(self, text):
        self.stdin.write(text)
        self.stdin.flush()

    def signal(self, number):
        self._process.send_signal(number)

    def wait(self, timeout=END_S):
        """The exit status, once the program and all that shares its output are gone."""
        try:
            status = self._process.wait(timeout)
        except subprocess.TimeoutExpired:
            raise Failure(f"{self.name} still runs after {timeout} s; it said:\n{self.err.text()}") from None
        expect(self.out.wait_for_end(timeout) and self.err.wait_for_end(timeout),
               f"{self.name} ended, but something that it started still runs")
        return status

    def expect_status(self, expected, timeout=END_S):
        status = self.wait(timeout)
        expect(status == expected, f"{self.name} ended with {status}, not {expected}; it said:\n{self.err.text()}")


def run_to_the_end(command, **options):
    """Whatever the status is."""
    try:
        return subprocess.run(command, **{"check": False, "capture_output": True, "timeout": END_S, **options})
    except subprocess.TimeoutExpired as late:
        raise Failure(f"{' '.join(command)} still ran after {late.timeout} s") from None


def run(command, timeout=TRANSFER_S, **options):
    """Runs a program to its end and returns what it printed; any status but 0 is a failure."""
    done = run_to_the_end(command, timeout=timeout, text=True, stdin=subprocess.DEVNULL, **options)
    expect(done.returncode == 0, f"{' '.join(command)} ended with {done.returncode}: {done.stderr}")
    return done.stdout


def write(path, text):
    with open(path, "w", encoding="utf-8") as file:
        file.write(text)


def write_script(path, text):
    write(path, f"#!/bin/sh\n{text}\n")
    os.chmod(path, 0o700)


class SshServer:
    """An OpenSSH server on 127.0.0.1 with keys of its own, which lets in whoever runs this and nobody else."""

    def __init__(self, folder, *settings):
        """`settings` are lines of sshd_config that go before the others, and so over them."""
        self.folder = folder
        self._settings = settings

    def __enter__(self):
        if os.geteuid() == 0:  # as the machine's own sshd does when it starts
            os.makedirs("/run/sshd", exist_ok=True)
        for key in ("host_key", "user_key"):
            run(["ssh-keygen", "-q", "-t", "ed25519", "-N", "", "-C", key, "-f", f"{self.folder}/{key}"])
        self.daemon = self._start()
        return self

    def __exit__(self, *failure):
        with self.daemon:
            self.daemon.signal(signal.SIGTERM)
            if failure[0] is None:
                self.daemon.wait()

    def _start(self):
        # sshd runs itself anew for each connection and wants to be called by its full path.
        program = shutil.which("sshd", path=os.environ.get("PATH", "") + ":/usr/sbin:/usr/local/sbin")
        expect(program, "no sshd here; scripts/bootstrap installs it")
        # Another program may take the port between the probe and sshd's bind.
        for _ in range(5):
            with socket.create_server(("127.0.0.1", 0)) as probe:
                self.port = probe.getsockname()[1]
            self.address = f"127.0.0.1:{self.port}"
            self._write_config()
            daemon = Child([program, "-D", "-e", "-f", f"{self.folder}/sshd_config"])
            if daemon.err.wait_for(r"^Server listening on ", READY_S):
                return daemon
            with daemon:
                said = daemon.err.text()
                expect("Address already in use" in said, f"sshd does not start: {said}")
        raise Failure("no free port for sshd")

    def _write_config(self):
        # Without StrictModes, which rejects keys below a temporary folder that everybody may write to.
        write(f"{self.folder}/sshd_config", "\n".join(self._settings) + f"""
            ListenAddress {self.address}
            HostKey "{self.folder}/host_key"
            AuthorizedKeysFile "{self.folder}/user_key.pub"
            AllowUsers {pwd.getpwuid(os.geteuid()).pw_name}
            AuthenticationMethods publickey
            StrictModes no
            PidFile none
            MaxStartups 100
            Subsystem sftp internal-sftp
            """)


class Clients:
    """ssh, scp and what builds on them, set up to know the server by the name `far`."""

    def __init__(self, server, *way):
        """`way` are the lines of the configuration that tell how to get there."""
        self.server = server
        self.folder = server.folder
        write(f"{self.folder}/known_hosts", f"throwaway {read(f'{self.folder}/host_key.pub')}")
        self.config = f"{self.folder}/ssh_config.{secrets.token_hex(4)}"
        write(self.config, "\n".join(["Host far", *way]) + f"""
            HostKeyAlias throwaway
            UserKnownHostsFile "{self.folder}/known_hosts"
            GlobalKnownHostsFile none
            StrictHostKeyChecking yes
            IdentityFile "{self.folder}/user_key"
            IdentityAgent none
            BatchMode yes
            ConnectTimeout {READY_S}
            LogLevel ERROR
            """)

    def command(self, program, *arguments):
        return [program, "-F", self.config, *arguments]

    def run(self, program, *arguments):
        return run(self.command(program, *arguments))

    def expect_command(self, timeout=END_S):
        """A command's input, both its outputs and its status; returns what came on standard error."""
        with Child(self.command("ssh", "far", "cat; echo err >&2; exit 42")) as session:
            session.send("hello\n")
            session.expect(session.out, "^hello$", timeout)
            session.stdin.close()
            session.expect_status(42, timeout)
            said = session.err.text()
            expect(session.out.text() == "hello" and "err" in said.splitlines(),
                   f"ssh printed {session.out.text()!r} and {said!r}")
            return said

    def expect_copies(self, size, folder=None):
        """A copy there and one back are the same. `folder` is one over there."""
        original, there, back = f"{self.folder}/original", f"{folder or self.folder}/there", f"{self.folder}/back"
        with open(original, "wb") as file:
            file.write(os.urandom(size))
        self.run("scp", "-q", original, f"far:{there}")
        self.run("scp", "-q", f"far:{there}", back)
        expect(filecmp.cmp(original, back, shallow=False), "the copies differ")


def started_with(marker):
    """The processes that have `marker` in their environment."""
    found = []
    for path in glob.glob("/proc/[0-9]*/environ"):
        with contextlib.suppress(OSError), open(path, "rb") as file:  # it may be gone, or another user's
            if marker.encode() in file.read():
                found.append(int(path.split("/")[2]))
    return found


def kill(processes):
    for process in processes:
        with contextlib.suppress(ProcessLookupError):
            os.kill(process, signal.SIGKILL)
    return processes


@contextlib.contextmanager
def nothing_left(folder):
    """What is started inside has ended by itself when the block is left, and no sanitizer has complained. What has not,
    as after another failure, is killed."""
    os.environ["GX_SSH_TEST"] = marker = secrets.token_hex(16)
    for name in ("ASAN_OPTIONS", "TSAN_OPTIONS", "UBSAN_OPTIONS"):
        os.environ[name] = ":".join(filter(None, [os.environ.get(name), f"log_path={folder}/report"]))
    try:
        yield
        eventually(lambda: not started_with(marker), "something that was started still runs")
    finally:
        eventually(lambda: not kill(started_with(marker)), "something that was killed still runs")
    for path in glob.glob(f"{glob.escape(folder)}/report.*"):
        raise Failure(f"a sanitizer reported:\n{read(path)}")
