"""gx-ssh on a terminal, with somebody who types."""

import os
import pty
import select
import shlex
import signal
import subprocess
import tempfile
import time

from throwaway import END_S, READY_S, Failure

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
            if not self._read(max(0, limit - time.monotonic())):
                raise Failure(f"the terminal did not show {text!r}, but {self._unread!r}")
        before, self._unread = self._unread.split(text, 1)
        return before

    def expect_silence(self, seconds):
        limit = time.monotonic() + seconds
        while self._read(max(0, limit - time.monotonic())):
            pass
        if self._unread:
            raise Failure(f"the terminal showed {self._unread!r}")

    def expect_status(self, expected):
        limit = time.monotonic() + END_S
        while self._read(max(0, limit - time.monotonic())):
            pass
        _, status = os.waitpid(self._pid, 0)
        self._pid = 0
        if os.waitstatus_to_exitcode(status) != expected:
            raise Failure(f"the status was {os.waitstatus_to_exitcode(status)}, not {expected}: {self._unread!r}")


class Typist:
    """What a person does with gx-ssh."""

    def __init__(self, tools):
        self._gx_ssh_path = tools.gx_ssh
        self._gx_ssh = shlex.quote(tools.gx_ssh)
        self._peer = shlex.quote(tools.gx_ssh_peer)

    def _asking(self, before=""):
        """A carrier that asks for a password first."""
        return f"sh -c '{before}printf \"Password: \" >/dev/tty; read p </dev/tty; exec {self._peer}'"

    @staticmethod
    def _shell():
        """An interactive one, without prompts, that does not show what is typed."""
        shell = Terminal("bash", "--norc", "--noediting", "-i")
        shell.type("stty -echo; PS1=; echo rea\\dy\n")
        shell.expect("ready")
        shell.expect("\n")
        return shell

    def interrupts_a_command(self):
        """It is the command's affair, once for each key, and the carrier's not at all."""
        command = shlex.quote("trap 'echo got it' INT; echo up; "
                              "until [ \"$x\" = end ]; do read x; echo \"<$x>\"; done; exit 7")
        for errors in ("", " 2>/dev/null"):
            with Terminal("sh", "-c", f"{self._gx_ssh} --run {command} -- {self._peer}{errors}; exit $?") as terminal:
                terminal.expect("up")
                terminal.type(INTERRUPT)
                terminal.expect("got it")
                terminal.type("one\n")
                if "got it" in terminal.expect("<one>"):
                    raise Failure("one key interrupted the command twice")
                terminal.type("end\n")
                terminal.expect_status(7)

    def interrupts_a_carrier(self):
        with Terminal("sh", "-c", f"exec {self._gx_ssh} -- {self._asking()}") as terminal:
            terminal.expect("Password: ")
            terminal.type(INTERRUPT)
            terminal.expect_status(0)
        # gx-ssh may hear of the end of such a carrier before it hears of the key.
        with Terminal(self._gx_ssh_path, "--", "sh", "-c", "kill -INT $$") as terminal:
            terminal.expect_status(0)

    def goes_on_in_a_script(self):
        """The script has the terminal again, whoever had it."""
        for command in ("--run true --", "--run true -- false;", "-- false;"):
            script = f"{self._gx_ssh} {command} {self._peer}; echo over; read x; echo \"<$x>\""
            with Terminal("sh", "-c", script) as terminal:
                terminal.expect("over")
                terminal.type("typed\n")
                terminal.expect("<typed>")

    def suspends_and_continues(self):
        with self._shell() as shell:
            command = shlex.quote("echo up; read x; echo \"<$x>\"; exit 7")
            shell.type(f"{self._gx_ssh} --run {command} -- {self._asking()}\n")
            for prompt, answer in (("Password: ", "secret\n"), ("up", "text\n")):
                shell.expect(prompt)
                shell.type(SUSPEND)
                shell.expect("Stopped")
                shell.type("echo the shell; fg\n")
                shell.expect("the shell")
                shell.expect("gx-ssh-peer")  # as the shell repeats the command
                shell.type(answer)
            shell.expect("<text>")
            shell.type("echo status $?\n")
            shell.expect("status 7")

    def has_another_carrier_ask(self):
        """When that carrier has been answered the command has the terminal again."""
        with tempfile.TemporaryDirectory() as folder:
            command = shlex.quote(f"echo up; until test -e {folder}/go; do sleep 0.1; done; read x; echo \"<$x>\"; exit 7")
            carrier = self._asking(f"echo $$ >{folder}/pid; ")
            with Terminal("sh", "-c", f"exec {self._gx_ssh} --reconnect --run {command} -- {carrier}") as terminal:
                for shown, action in (("up", "kill -9 $(cat pid)"), ("the link is up again", "touch go")):
                    terminal.expect("Password: ")
                    terminal.type("secret\n")
                    terminal.expect(shown)
                    subprocess.run(["sh", "-c", action], check=True, cwd=folder)
                terminal.type("text\n")
                terminal.expect("<text>")
                terminal.expect_status(7)

    def suspends_where_no_shell_could_continue(self):
        command = shlex.quote("echo up; read x; echo \"<$x>\"; exit 7")
        with Terminal("sh", "-c", f"exec {self._gx_ssh} --run {command} -- {self._peer}") as terminal:
            terminal.expect("up")
            terminal.type(SUSPEND + "text\n")
            terminal.expect("<text>")
            terminal.expect_status(7)

    def is_stopped_inside_a_script(self):
        """By a signal that is not typed: it stops with its carrier, and the script goes on."""
        with tempfile.NamedTemporaryFile() as carrier, self._shell() as shell:
            stopped = "grep -q '^State:.T' /proc/{}/status"
            shell.type(f"""cat >{carrier.name}.sh <<'END'
{self._gx_ssh} -- sh -c 'echo $$ >{carrier.name}; exec {self._peer}' &
read x
kill -TSTP $!
until {stopped.format('$!')} && {stopped.format(f'$(cat {carrier.name})')}; do :; done
echo on it goes
kill -CONT $!
kill $!
wait $!
echo status $?
END
""")
            shell.type(f"sh {carrier.name}.sh\n")
            shell.expect("127.0.0.1:")
            shell.type("\n")
            shell.expect("on it goes")
            shell.expect("status 0")
            shell.type(f"rm {carrier.name}.sh; exit\n")
            shell.expect_status(0)

    def has_it_in_the_background(self):
        """It shows how things stand, but not over the shell."""
        with self._shell() as shell:
            shell.type(f"TERM=vt100 {self._gx_ssh} -- {self._peer} &\n")
            shell.expect("127.0.0.1:")
            shell.expect("\n")
            shell.expect_silence(1.2)
            shell.type("fg\n")
            shell.expect(" open, ")
            shell.type(SUSPEND)
            shell.expect("Stopped")
            shell.type("fg\n")
            shell.expect(" open, ")
            shell.type(INTERRUPT)
            shell.type("echo status $?\n")
            shell.expect("status 0")
