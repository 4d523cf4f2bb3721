"""gx-ssh on a terminal, with somebody who types."""

import contextlib
import os
import select
import shlex
import signal
import subprocess
import time

from hosts import Host, Target
from throwaway import READY_S, eventually, expect, read

INTERRUPT, SUSPEND = "\x03", "\x1a"


class Terminal:
    """A program in a session of its own on a terminal of its own. Leaving the `with` block kills it."""

    def __init__(self, *command):
        self.unread = ""
        self._fd, theirs = os.openpty()
        self._process = subprocess.Popen(["setsid", "-c", *command], stdin=theirs, stdout=theirs, stderr=theirs)
        os.close(theirs)

    def __enter__(self):
        return self

    def __exit__(self, *_):
        os.close(self._fd)
        self._process.kill()
        self._process.wait()

    def type(self, keys):
        os.write(self._fd, keys.encode())

    def read(self, seconds=READY_S):
        """False: nothing came in time, or nothing comes any more."""
        piece = b""
        if select.select([self._fd], [], [], seconds)[0]:
            with contextlib.suppress(OSError):  # nobody has the terminal open any more
                piece = os.read(self._fd, 4096)
        self.unread += piece.decode(errors="replace")
        return bool(piece)

    def expect(self, text):
        """Waits for the text and returns what came before it."""
        limit = time.monotonic() + READY_S
        while text not in self.unread:
            expect(self.read() and time.monotonic() < limit, f"it did not show {text!r}, but {self.unread!r}")
        before, self.unread = self.unread.split(text, 1)
        return before

    def expect_status(self, expected):
        eventually(lambda: not self.read(0) and self._process.poll() is not None, "it does not end")
        status = self._process.returncode
        expect(status == expected, f"it ended with {status}, not {expected}: {self.unread!r}")


def interactive_shell():
    """Without prompts, and it does not show what is typed."""
    shell = Terminal("bash", "--norc", "--noediting", "-i")
    shell.type("stty -echo; PS1=; echo rea\\dy\n")
    shell.expect("ready")
    shell.expect("\n")
    return shell


def asking(tools, before=""):
    return f"sh -c '{before}printf \"Password: \" >/dev/tty; read p </dev/tty; exec {tools.gx_ssh_peer}'"


def interrupts_a_command(tools):
    """The command gets the key once and the carrier never; no key stops them, since no shell could continue them."""
    command = shlex.quote("trap 'echo got it' INT; echo up; "
                          "until [ \"$x\" = end ]; do read x; echo \"<$x>\"; done; exit 7")
    for errors in ("", " 2>/dev/null"):
        with Terminal("sh", "-c", f"{tools.gx_ssh} --run {command} -- {tools.gx_ssh_peer}{errors}; exit $?") as terminal:
            terminal.expect("up")
            terminal.type(INTERRUPT)
            terminal.expect("got it")
            terminal.type("one\n")
            expect("got it" not in terminal.expect("<one>"), "one key interrupted the command twice")
            terminal.type(SUSPEND + "end\n")
            terminal.expect_status(7)


def goes_on_in_a_script(tools):
    """Afterwards the script has the terminal again."""
    for command in ("--run true --", "--run true -- false;", "-- false;"):
        script = f"{tools.gx_ssh} {command} {tools.gx_ssh_peer}; echo over; read x; echo \"<$x>\""
        with Terminal("sh", "-c", script) as terminal:
            terminal.expect("over")
            terminal.type("typed\n")
            terminal.expect("<typed>")


def suspends_and_continues(tools):
    with interactive_shell() as shell:
        command = shlex.quote("echo up; read x; echo \"<$x>\"; exit 7")
        shell.type(f"{tools.gx_ssh} --run {command} -- {asking(tools)}\n")
        for prompt, typed in (("Password: ", "secret\n"), ("up", "text\n")):
            shell.expect(prompt)
            shell.type(SUSPEND)
            shell.expect("Stopped")
            shell.type("echo the shell; fg\n")
            shell.expect("the shell")
            shell.expect("gx-ssh-peer")  # as the shell repeats the command
            shell.type(typed)
        shell.expect("<text>")
        shell.type("echo status $?\n")
        shell.expect("status 7")


def has_another_carrier_ask(tools):
    """When that carrier has been answered the command has the terminal again."""
    folder = tools.folder
    command = shlex.quote(f"echo up; until test -e {folder}/go; do sleep 0.1; done; read x; echo \"<$x>\"; exit 7")
    carrier = asking(tools, f"echo $$ >{folder}/asking; ")
    with Terminal("sh", "-c", f"exec {tools.gx_ssh} --reconnect --run {command} -- {carrier}") as terminal:
        for shown, action in (("up", "kill -9 $(cat asking)"), ("the link is up again", "touch go")):
            terminal.expect("Password: ")
            terminal.type("secret\n")
            terminal.expect(shown)
            subprocess.run(["sh", "-c", action], check=True, cwd=folder)
        terminal.type("text\n")
        terminal.expect("<text>")
        terminal.expect_status(7)


def is_stopped_inside_a_script(tools):
    """By a signal that is not typed: it stops with its carrier, and nothing else of the script does."""
    def state(process):
        return read(f"/proc/{process}/stat").rpartition(")")[2].split()[0]

    other = f"{tools.folder}/other"
    script = f'sleep 600 >/dev/null 2>&1 & echo $! >{other}; exec "$@"'
    # In a group of its own in this session, as a shell's jobs are: a session's leader could not be stopped.
    with Host(tools, Target(), through=["sh", "-c", script, "sh"], start_new_session=False, process_group=0) as host:
        expect(host.address, "it did not start")
        host.signal(signal.SIGTSTP)
        eventually(lambda: state(host.pid) == state(host.peer_pid) == "T", "it or its carrier goes on")
        expect(state(int(read(other))) != "T", "it stopped the script")
        host.signal(signal.SIGCONT)


def has_it_in_the_background(tools):
    """It shows how things stand, but not over the shell."""
    with interactive_shell() as shell:
        shell.type(f"TERM=vt100 {tools.gx_ssh} --stats 600ms -- {tools.gx_ssh_peer} &\n")
        shell.expect("127.0.0.1:")
        # Between two of these lines it has had something to show.
        shown = shell.expect("0 B sent, ") + shell.expect("0 B sent, ")
        expect(" in all   sent" not in shown, f"it showed {shown!r}")
        shell.type("fg\n")
        shell.expect(" in all   sent")
        shell.type(INTERRUPT)
        shell.type("echo status $?\n")
        shell.expect("status 0")


def terminal(tools):
    """Who gets what is typed, and who may write."""
    for case in (interrupts_a_command, goes_on_in_a_script, suspends_and_continues, has_another_carrier_ask,
                 is_stopped_inside_a_script, has_it_in_the_background):
        case(tools)
