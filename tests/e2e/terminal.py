"""gx-ssh on a terminal, with somebody who types."""

import os
import pty
import select
import shlex
import signal
import subprocess
import time

from hosts import Host, Target
from throwaway import END_S, READY_S, eventually, expect, read

INTERRUPT, SUSPEND = "\x03", "\x1a"


class Terminal:
    """A program in a session of its own on a terminal of its own. Leaving the `with` block kills it."""

    def __init__(self, *command):
        self._unread = ""
        self._pid, self._fd = pty.fork()
        if self._pid == 0:
            try:
                os.execvp(command[0], command)
            finally:
                os._exit(127)

    def __enter__(self):
        return self

    def __exit__(self, *_):
        os.close(self._fd)
        if self._pid:
            os.kill(self._pid, signal.SIGKILL)
            os.waitpid(self._pid, 0)

    def type(self, keys):
        os.write(self._fd, keys.encode())

    def _read(self, seconds):
        """False: nothing came in time, or nothing comes any more."""
        if not select.select([self._fd], [], [], seconds)[0]:
            return False
        try:
            piece = os.read(self._fd, 4096)
        except OSError:  # nobody has the terminal open any more
            return False
        self._unread += piece.decode(errors="replace")
        return bool(piece)

    def expect(self, text):
        """Waits for the text and returns what came before it."""
        limit = time.monotonic() + READY_S
        while text not in self._unread:
            expect(self._read(max(0, limit - time.monotonic())), f"it did not show {text!r}, but {self._unread!r}")
        before, self._unread = self._unread.split(text, 1)
        return before

    def rest(self, seconds):
        """What it shows until it ends, or the time is over."""
        limit = time.monotonic() + seconds
        while self._read(max(0, limit - time.monotonic())):
            pass
        return self._unread

    def expect_status(self, expected):
        shown = self.rest(END_S)
        status = os.waitstatus_to_exitcode(os.waitpid(self._pid, 0)[1])
        self._pid = 0
        expect(status == expected, f"the status was {status}, not {expected}: {shown!r}")


def interactive_shell():
    """Without prompts, and it does not show what is typed."""
    shell = Terminal("bash", "--norc", "--noediting", "-i")
    shell.type("stty -echo; PS1=; echo rea\\dy\n")
    shell.expect("ready")
    shell.expect("\n")
    return shell


def asking(tools, before=""):
    """A carrier that asks for a password first."""
    return f"sh -c '{before}printf \"Password: \" >/dev/tty; read p </dev/tty; exec {tools.gx_ssh_peer}'"


def interrupts_a_command(tools):
    """That is the command's affair, once for each key, and the carrier's not at all; no shell could continue it."""
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


def interrupts_a_carrier(tools):
    with Terminal("sh", "-c", f"exec {tools.gx_ssh} -- {asking(tools)}") as terminal:
        terminal.expect("Password: ")
        terminal.type(INTERRUPT)
        terminal.expect_status(0)
    # gx-ssh may hear of the end of such a carrier before it hears of the key.
    with Terminal(tools.gx_ssh, "--", "sh", "-c", "kill -INT $$") as terminal:
        terminal.expect_status(0)


def goes_on_in_a_script(tools):
    """The script has the terminal again, whoever had it."""
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
        eventually(lambda: state(host.pid) == state(host.peer) == "T", "it or its carrier goes on")
        expect(state(int(read(other))) == "S", "it stopped the script")
        host.signal(signal.SIGCONT)


def has_it_in_the_background(tools):
    """It shows how things stand, but not over the shell."""
    with interactive_shell() as shell:
        shell.type(f"TERM=vt100 {tools.gx_ssh} -- {tools.gx_ssh_peer} &\n")
        shell.expect("127.0.0.1:")
        shell.expect("\n")
        shown = shell.rest(1.2)
        expect(not shown, f"it showed {shown!r}")
        shell.type("fg\n")
        shell.expect(" open, ")
        shell.type(SUSPEND)
        shell.expect("Stopped")
        shell.type("fg\n")
        shell.expect(" open, ")
        shell.type(INTERRUPT)
        shell.type("echo status $?\n")
        shell.expect("status 0")


def terminal(tools):
    """Who gets what is typed, and who may write."""
    interrupts_a_command(tools)
    interrupts_a_carrier(tools)
    goes_on_in_a_script(tools)
    suspends_and_continues(tools)
    has_another_carrier_ask(tools)
    is_stopped_inside_a_script(tools)
    has_it_in_the_background(tools)
