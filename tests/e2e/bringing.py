"""gx-ssh --bring: from a bare shell to gx-ssh-peer in its place."""

import contextlib
import glob
import gzip
import hashlib
import os
import random
import re
import shutil
import stat
import sys

from hosts import Host, Target
from terminal import INTERRUPT, Terminal
from throwaway import eventually, expect, read, run, run_to_the_end, side_by_side, write, write_script

HERE = os.path.dirname(os.path.abspath(__file__))
STRANGER = 12345  # a user that is not there

BUSYBOX = "/bin/busybox"


def shells(scratch):
    """The far sides by name: what starts them, and their search path."""
    found = {name: (shutil.which(name), os.environ["PATH"]) for name in ("dash", "bash")}
    for name, shell, *lists in (("busybox", None, BUSYBOX, "--list"), ("toybox", shutil.which("dash"), "/bin/toybox")):
        folder = f"{scratch}/{name}"
        os.makedirs(folder)
        for tool in run(lists).split():
            os.symlink(lists[0], f"{folder}/{tool}")
        if shell:
            os.symlink(shell, f"{folder}/sh")
        found[name] = f"{folder}/sh", folder
    return found


class FarSide:
    """A home folder over there, and gx-ssh that goes to a shell in it."""

    def __init__(self, tools, shell=("/bin/sh", "/usr/bin:/bin")):
        self.home = f"{tools.folder}/home{random.random()}"
        os.mkdir(self.home)
        self.cache = f"{self.home}/.cache/gx-ssh"
        self.shell = ["env", "-i", f"HOME={self.home}", f"PATH={shell[1]}", shell[0]]
        self.tools, self.target = tools, Target()

    def start(self, *options, through=()):
        far_side = ["--", *through, *self.shell]
        return Host(self.tools, self.target, "-W", "@TARGET", "--bring", *options, far_side=far_side)

    def carry(self, *options, through=(), sends=True):
        """A line goes through and back, and the peer is sent, or nothing is said."""
        with self.start(*options, through=through) as host:
            host.converse()
            said = host.err.text()
            expect("sends gx-ssh-peer" in said if sends else said == "", f"{self.shell} {options}, {sends}: {said}")

    def refuse(self, sentence, through, *options):
        with self.start(*options, through=through) as host:
            host.expect_status(4)
            expect(sentence in host.err.text(), f"not {sentence!r} but\n{host.err.text()}")

    def files(self):
        return sorted(glob.glob(f"{self.cache}/*"))

    def expect_one_file(self):
        files = self.files()
        expect(len(files) == 1, f"there are {files}")
        with open(files[0], "rb") as file:
            digest = hashlib.file_digest(file, "sha256").hexdigest()
        expect(files[0].endswith(f"gx-ssh-peer-{digest}"), f"{files[0]} has SHA-256 {digest}")
        for path in (files[0], self.cache):
            expect(stat.S_IMODE(os.stat(path).st_mode) == 0o700, f"{path} has another mode")


def filtered(folder, code):
    """A carrier around a carrier that does something to the bytes on their way: `there` and `back` are functions."""
    path = f"{folder}/filtered{random.random()}"
    write_script(path, f'exec {sys.executable} -B "{HERE}/filter.py" {code!r} "$@"')
    return [path]


def bring(tools):
    """Each kind of shell, through a pipe and through a terminal: sent once, and never again."""
    def carries(name, shell, way):
        far = FarSide(tools, shell)
        if name == "toybox" and way:
            far.refuse("a terminal lies in between, and stty raw -echo does not work", way)
            return
        for sends in (True, False):
            far.carry(through=way, sends=sends)
            far.expect_one_file()

    ways = ([], filtered(tools.folder, "terminal = True"))
    side_by_side(carries, [(name, shell, way) for name, shell in shells(tools.folder).items() for way in ways])


def sent_by(far):
    """What gx-ssh sends to carry a line."""
    log = f"{far.home}/log"
    with far.start(through=["sh", "-c", f'tee "{log}" | "$@"', "sh"]) as host:
        host.converse()
    return read(log)


def bring_again(tools):
    """A peer that is there runs after one line, and a damaged or foreign one never; --bring-once leaves none there."""
    far = FarSide(tools)
    far.carry("--bring-once")
    expect(far.files() == [], f"left behind: {far.files()}")
    far.carry()
    lines = sent_by(far).split("\n")
    expect("exec" in lines[0] and lines[1].startswith("GX-SSH-HOST"), f"it sent {lines[:2]}")

    peer, root = far.files()[0], os.geteuid() == 0
    for spoil in (lambda: os.chmod(peer, 0o777), lambda: os.chmod(peer, 0o600), lambda: os.truncate(peer, 1000),
                  *([lambda: os.chown(peer, STRANGER, -1)] if root else [])):
        spoil()
        far.carry()
        far.expect_one_file()
    with far.start() as host:  # the new file takes the name from one that runs
        host.converse(ends=False)
        os.chmod(peer, 0o600)
        far.carry()
        far.expect_one_file()
        host.converse()
    far.carry("--bring-once")  # what is there is not used for one time
    far.expect_one_file()
    # In a folder that others can write to nothing is run, and nothing is put.
    for spoil in (lambda: os.chmod(far.cache, 0o777),
                  *([lambda: (os.chmod(far.cache, 0o700), os.chown(far.cache, STRANGER, -1))] if root else [])):
        spoil()
        far.carry()
        for file in far.files():
            os.unlink(file)
        fresh = re.search(r"d=(/tmp/gx-ssh-\w+);", sent_by(far)).group(1)
        expect(far.files() == [], "a peer was put into a folder that others can write to")
        expect(not os.path.exists(fresh), "the folder in /tmp was left behind")
        far.refuse("others may write there, or it is somebody else's", [], "--bring-dir", far.cache)


def bring_probes(tools):
    """What the line is good for: where the peer has to be sent, where it is there, and where there is no shell."""
    far, known = FarSide(tools), FarSide(tools)
    known.carry()

    def probes(status, told, *words):
        done = run_to_the_end([tools.gx_ssh, "--probe", "--bring", *words], timeout=120)
        expect(done.returncode == status and re.search(told, done.stdout.decode(), re.MULTILINE | re.DOTALL), done)

    side_by_side(probes, (
        (0, r'^brought     [\d.]+ [KM]iB in .*^noise       "Welcome\\n"$.*^rate back   \d.*^verdict     usable$',
         "--", "sh", "-c", 'echo Welcome; exec "$@"', "sh", *far.shell),
        (0, '"brought_bytes":0,', "--json", "--", *known.shell),
        (4, "^verdict     not usable: not ready: it has ended before a shell answered", "--", "false")))
    far.expect_one_file()


def fake_peers(folder, content, digest=None, size=None, machine=os.uname().machine):
    """What there is to bring: `content` for that machine."""
    path = f"{folder}/{machine}/gx-ssh-peer"
    os.makedirs(os.path.dirname(path))
    with open(path, "wb") as file:
        file.write(content)
    if size:
        os.truncate(path, size)
    with gzip.open(f"{path}.gz", "wb") as file:
        file.write(content)
    write(f"{path}.sha256", digest or hashlib.sha256(content).hexdigest())
    return folder


# What is said here and what gx-ssh-peer hears of it: gx-ssh's own targets are permitted by themselves, and times that
# are as usual are not told.
ORDERS = (
    ((), "--allow 127.0.0.1:22"),
    (("-L", "0:web:80", "-L", "0:/run/it's $HOME"), "--allow web:80 --allow unix:/run/it's $HOME"),
    (("--listen", "127.0.0.1:0", "--target", "a:1", "-L", "0:b:2", "--allow", "*:3", "--keepalive", "5s",
      "--keepalive-count", "7", "--connect-timeout", "1m"),
     "--allow *:3 --allow a:1 --allow b:2 --connect-timeout 1m --keepalive 5s --keepalive-count 7"),
)


def bring_passes_on(tools):
    """Targets and times, word for word, whichever way the peer comes to run."""
    says = b'#!/bin/sh\n[ "$1" = --remove-own-file ] && rm "$0" && shift\necho "heard $*." >&2\n'
    peers = fake_peers(f"{tools.folder}/says", says)
    far = FarSide(tools)
    for options, heard in ORDERS:
        for once in ([], [], ["--bring-once"]):
            done = run_to_the_end([tools.gx_ssh, "--bring", "--peer-dir", peers, *once, *options, "--", *far.shell])
            said = done.stderr.decode()
            expect(done.returncode == 4 and f"heard {heard}." in said, f"not {heard!r} but\n{said}")


def bring_on_a_terminal(tools):
    """The carrier asks for a password there, as sudo does; then the transfer shows its progress."""
    asks = 'printf "Password: " >/dev/tty; read -r p </dev/tty; test "$p" = secret && exec "$@"'
    asked = ["env", "TERM=xterm", tools.gx_ssh, "--bring", "--", "sh", "-c", asks, "sh"]

    def answers(keys, status, shows=""):
        with Terminal(*asked, *FarSide(tools).shell) as terminal:
            terminal.expect("Password: ")
            terminal.type(keys)
            shown = shows and terminal.expect(shows)
            terminal.type(INTERRUPT if shows else "")
            terminal.expect_status(status)
            return shown

    def shows_all_steps():  # what the terminal does not take at once is left out
        shown = answers("secret\n", 0, "127.0.0.1:")
        whole = re.search(r"sends gx-ssh-peer for \w+ there, ([\d.]+ \w+)\r\n", shown)
        steps = re.findall(r"sent ([\d.]+ \w+) of ([\d.]+ \w+)", shown)
        expect(whole and {of for _, of in steps} <= {whole[1]}, f"it showed {shown!r}")
        return len(set(steps)) > 3 and steps[-1][0] == whole[1]

    answers(INTERRUPT, 0)
    answers("wrong\n", 4)
    eventually(shows_all_steps, "some steps were never shown")


def calls_itself(tools, name):
    """A far side that says so when it is asked for its system and its processor."""
    far = FarSide(tools, ("/bin/sh", f"{tools.folder}/{name}:/usr/bin:/bin"))
    os.mkdir(f"{tools.folder}/{name}")
    write_script(f"{tools.folder}/{name}/uname", f"echo {name}")
    return far


def bring_refused(tools):
    """Each far side where it cannot work has a sentence of its own, and nothing is left there."""
    folder = tools.folder
    other = fake_peers(f"{folder}/other", b"#!/bin/sh\necho I am another >&2\nexit 3\n")
    wrong = fake_peers(f"{folder}/wrong", b"#!/bin/sh\n", digest="0" * 64)
    short = fake_peers(f"{folder}/short", b"#!/bin/sh\n", size=20)
    program = b"\x7fELF\x02\x01\x01" + bytes(9) + b"\x02\x00\xff\xfe" + bytes(100)  # for no processor
    foreign = fake_peers(f"{folder}/foreign", program)
    far = FarSide(tools)
    refusals = [
        (far, 'does not run there: "I am another', [], "--peer-dir", other),
        (far, "what arrived is not what was sent: its SHA-256 is", [], "--peer-dir", wrong),
        (far, "10 bytes arrived of 20", [], "--peer-dir", short),
        (far, "no gx-ssh-peer to bring in", [], "--peer-dir", f"{folder}/none"),
        (far, "no shell has answered within 3s; it said", ["sh", "-c", "exec cat"], "--connect-timeout", "3s"),
        (far, "the line changes bytes on the way there: sent 80 81 82",
         filtered(folder, "terminal = True; there = lambda b: bytes(x & 127 for x in b)")),
        (far, "sent 11 12 13", filtered(folder, "there = lambda b: b.replace(b'\\x11', b'')")),
        (far, "the line changes bytes on the way here: sent 0a",
         filtered(folder, "back = lambda b: b.replace(b'\\n', b'\\r\\n')")),
        (calls_itself(tools, "Plan9 mips"), 'it is "Plan9 mips"', [])]
    for shell in shells(folder).values():
        sentence = "does not run there: it is for another kind of processor ("
        refusals.append((FarSide(tools, shell), sentence, [], "--peer-dir", foreign))
    for machine, peer in (("aarch64", "aarch64"), ("armv7l", "armv7"), ("armv8l", "armv7"), ("riscv64", "riscv64")):
        peers = fake_peers(f"{folder}/{machine}", program, machine=peer)
        sentence = f"gx-ssh-peer for {peer} does not run there: it is for another kind of processor ("
        refusals.append((calls_itself(tools, f"Linux {machine}"), sentence, [], "--peer-dir", peers))
    # Mounted in a name space of its own, which goes with the carrier.
    for options, sentence in (("ro", "the file system is read-only"), ("noexec", "programs cannot be run from there"),
                              ("size=1m", "the disk is full")) if os.geteuid() == 0 else ():
        mounted = ["unshare", "-m", "sh", "-c", f'mount -t tmpfs -o {options} none "{far.home}" && exec "$@"', "sh"]
        refusals.append((far, sentence, mounted, "--bring-dir", f"{far.home}/there"))
    side_by_side(FarSide.refuse, refusals)
    left = [file for far, *_ in refusals for file in far.files()]
    expect(not left, f"left behind: {left}")


def bring_at_once(tools):
    """Twenty at once into an empty folder: all work, and there is one file."""
    far = FarSide(tools)
    far.cache = f"{far.home}/it's a $place"
    with contextlib.ExitStack() as exits:
        hosts = [exits.enter_context(far.start("--bring-dir", far.cache)) for _ in range(20)]
        for number, host in enumerate(hosts):
            host.converse(f"text {number}")
    far.expect_one_file()


def bring_cut(tools):
    """However early the line is cut: nothing half-written stays or runs, and the next try works."""
    def cuts_after(limit):
        far = FarSide(tools)
        with far.start(through=filtered(tools.folder, f"limit = {limit}")) as host:
            host.expect_status(4)
        left = [name for name in far.files() if "/new-" in name]
        expect(not left, f"cut after {limit} bytes: {left}")
        if far.files():
            far.expect_one_file()
        far.carry(sends=not far.files())
        far.expect_one_file()

    size = os.path.getsize(glob.glob(f"{os.path.dirname(tools.gx_ssh)}/../peer/peers/*/gx-ssh-peer.gz")[0])
    side_by_side(cuts_after, [(random.randrange(most),) for most in (6000, 6000, 6000, size, size, size)])


SCENARIOS = {each.__name__: each for each in (bring, bring_again, bring_probes, bring_passes_on,
                                              bring_on_a_terminal, bring_refused, bring_at_once, bring_cut)}
