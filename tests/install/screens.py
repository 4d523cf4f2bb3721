#!/usr/bin/env python3
"""docs/screens.md shows what the programs show: their help, and the status on a real terminal, which goes at the end."""

import argparse
import contextlib
import fcntl
import os
import pty
import re
import select
import signal
import struct
import subprocess
import termios
import time

LIMIT_S = 60


class Screen:
    """As much of a terminal as the status needs."""

    def __init__(self):
        self.rows, self.row, self.column = [""], 0, 0

    def show(self, text):
        for control, count, word in re.findall("(\x1b\\[(\\d*)[AJ]|\r|\n)|([^\x1b\r\n]+)", text):
            if control == "\r":
                self.column = 0
            elif control == "\n":
                self.row += 1
                self.rows += [""] * (self.row + 1 - len(self.rows))
            elif control.endswith("A"):
                self.row -= int(count)
            elif control.endswith("J"):
                self.rows[self.row:] = [self.rows[self.row][:self.column]]
            else:
                before = self.rows[self.row].ljust(self.column)
                self.rows[self.row] = before[:self.column] + word + before[self.column + len(word):]
                self.column += len(word)

    def shape(self):
        return shape("\n".join(self.rows))


def shape(text):
    """Figures and their units differ from run to run."""
    return re.sub(r"[\d.]+( [KMGT]?i?B\b)?", "N", text).strip()


def documented(page):
    """What the page shows, by the command that it shows it for."""
    with open(page, encoding="ascii") as file:
        lines = [line[4:].rstrip() for line in file if line.startswith("    ") or line == "\n"]
    screens = re.split(r"^\$ (.*)$", "\n".join(lines), flags=re.MULTILINE)
    return dict(zip(screens[1::2], (screen.strip() for screen in screens[2::2])))


def check(what, shown, told):
    if shown != told:
        raise SystemExit(f"{what} shows\n{shown}\nand the page tells\n{told}")


@contextlib.contextmanager
def on_a_terminal(*command):
    master, slave = pty.openpty()
    fcntl.ioctl(slave, termios.TIOCSWINSZ, struct.pack("4H", 24, 100, 0, 0))
    process = subprocess.Popen(command, stdin=slave, stdout=slave, stderr=slave, start_new_session=True,
                               preexec_fn=lambda: fcntl.ioctl(0, termios.TIOCSCTTY, 0),
                               env=dict(os.environ, TERM="xterm"))
    os.close(slave)
    try:
        yield process, master
    finally:
        with contextlib.suppress(ProcessLookupError):
            os.killpg(process.pid, signal.SIGKILL)
        process.wait()
        os.close(master)


def follow(terminal, screen, until=None):
    """Shows what comes until the screen looks so, or to the end."""
    end = time.monotonic() + LIMIT_S
    while until is None or screen.shape() != until:
        ready = select.select([terminal], [], [], max(0, end - time.monotonic()))[0]
        try:
            text = os.read(terminal, 65536).decode() if ready else ""
        except OSError:  # how Linux tells the end of a terminal
            text = ""
        if not text:
            return
        screen.show(text)


def main():
    parser = argparse.ArgumentParser(description=__doc__)
    parser.add_argument("--page", required=True)
    parser.add_argument("gx_ssh")
    parser.add_argument("peer")
    arguments = parser.parse_args()
    told = documented(arguments.page)

    for program in (arguments.gx_ssh, arguments.peer):
        name = f"{os.path.basename(program)} --help"
        shown = subprocess.run([program, "--help"], capture_output=True, text=True, timeout=LIMIT_S, check=True).stdout
        check(name, "\n".join(map(str.rstrip, shown.splitlines())).strip(), told[name])

    address, *_, route, totals = shape(told["gx-ssh -- gx-ssh-peer"]).splitlines()
    screen = Screen()
    with on_a_terminal(arguments.gx_ssh, "--", arguments.peer) as (process, terminal):
        live = "\n".join((address, route, totals))
        follow(terminal, screen, until=live)
        check("the terminal", screen.shape(), live)
        os.write(terminal, b"\x03")
        follow(terminal, screen)
        check("after Ctrl-C the terminal", screen.shape(), address)
        if process.wait(LIMIT_S) != 0:
            raise SystemExit(f"gx-ssh: status {process.returncode}")


main()
