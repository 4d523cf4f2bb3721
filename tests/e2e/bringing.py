"""gx-ssh --bring: from a bare shell to gx-ssh-peer in its place."""

import glob
import gzip
import hashlib
import os
import random
import re
import shutil
import stat
import subprocess
import sys

from relays import Target, expect
from terminal import INTERRUPT, Terminal
from throwaway import Child, write_script

HERE = os.path.dirname(os.path.abspath(__file__))
CUTS = 6
STRANGER = 12345  # a user that is not there

# The small tools of each kind of far side, and its shell.
BUSYBOX, TOYBOX = "/bin/busybox", "/bin/toybox"


def link_tools(folder, box, shell):
    """A folder with the tools of one `box` and nothing else."""
    os.makedirs(folder)
    for name in subprocess.run([box, *(["--list"] if box == BUSYBOX else [])], check=True, capture_output=True,
                               text=True).stdout.split():
        os.symlink(box, f"{folder}/{name}")
    if not os.path.exists(f"{folder}/sh"):
        os.symlink(shell, f"{folder}/sh")
    return folder


def shells(scratch):
    """The far sides by name: what starts them, and their search path."""
    found = {name: (shutil.which(name), os.environ["PATH"]) for name in ("dash", "bash")}
    if os.path.exists(BUSYBOX):
        path = link_tools(f"{scratch}/busybox", BUSYBOX, None)
        found["busybox ash"] = (f"{path}/sh", path)
    if os.path.exists(TOYBOX):
        path = link_tools(f"{scratch}/toybox", TOYBOX, shutil.which("dash"))
        found["toybox"] = (f"{path}/sh", path)
    if missing := {"busybox ash", "toybox"} - set(found):
        print(f"not tried, since it is not installed: {', '.join(sorted(missing))}", flush=True)
    return found


class FarSide:
    """A home folder over there, and gx-ssh that goes to a shell in it."""

    def __init__(self, tools, scratch, shell=("/bin/sh", "/usr/bin:/bin"), environment=()):
        self.tools = tools
        self.home = f"{scratch}/home{random.random()}"
        os.mkdir(self.home)
        self.cache = f"{self.home}/.cache/gx-ssh"
        self.shell = ["env", "-i", f"HOME={self.home}", f"PATH={shell[1]}", *environment, shell[0]]

    def start(self, target, *options, through=()):
        return Child([self.tools.gx_ssh, "-W", "--target", target.address, "--bring", *options, "--", *through,
                      *self.shell])

    def carry(self, target, *options, through=()):
        """Sends a line through and back; returns what gx-ssh said."""
        with self.start(target, *options, through=through) as host:
            host.send("hello\n")
            host.expect(host.out, "^hello$", timeout=60)
            host.stdin.close()
            host.expect_status(0)
            return host.err.text()

    def refuse(self, target, sentence, *options, through=()):
        with self.start(target, *options, through=through) as host:
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
        for path, mode in ((files[0], 0o700), (self.cache, 0o700)):
            expect(stat.S_IMODE(os.stat(path).st_mode) == mode, f"{path} has another mode")


def filtered(folder, name, code):
    """A carrier around a carrier that does something to the bytes on their way: `there` and `back` are functions."""
    path = f"{folder}/{name}"
    write_script(path, f'exec {sys.executable} -B "{HERE}/filter.py" {code!r} "$@"')
    return [path]


def bring(tools, server):
    """Each kind of shell, through a pipe and through a terminal: sent once, and never again."""
    target = Target()
    terminal = filtered(server.folder, "terminal", "terminal = True")
    for name, shell in shells(server.folder).items():
        for way, through in (("a pipe", []), ("a terminal", terminal)):
            far = FarSide(tools, server.folder, shell)
            if name == "toybox" and through:
                far.refuse(target, "a terminal lies in between, and stty raw -echo does not work", through=through)
                continue
            expect("sends gx-ssh-peer" in far.carry(target, through=through), f"{name}, {way}: nothing was sent")
            far.expect_one_file()
            said = far.carry(target, through=through)
            expect(said == "", f"{name}, {way}, the second time: {said}")
            far.expect_one_file()


def logged(far, target):
    """Carries a line; returns what gx-ssh sent."""
    log = f"{far.home}/log"
    write_script(f"{far.home}/logged", f'tee "{log}" | "$@"')
    far.carry(target, through=[f"{far.home}/logged"])
    with open(log, "rb") as file:
        return file.read()


def bring_again(tools, server):
    """Where the peer is there, it runs after one line; a damaged or foreign one does not."""
    target = Target()
    far = FarSide(tools, server.folder)
    far.carry(target)
    lines = logged(far, target).split(b"\n")
    expect(b"exec" in lines[0] and lines[1].startswith(b"GX-SSH-HOST"), f"it sent {lines[:2]}")

    peer = far.files()[0]
    spoils = [lambda: os.chmod(peer, 0o777), lambda: os.chmod(peer, 0o600), lambda: os.truncate(peer, 1000)]
    if os.geteuid() == 0:
        spoils.append(lambda: os.chown(peer, STRANGER, -1))
    for spoil in spoils:
        spoil()
        expect("sends gx-ssh-peer" in far.carry(target), "a spoilt file was taken")
        far.expect_one_file()
    with far.start(target) as host:  # the new file takes the name from one that runs
        host.send("hello\n")
        host.expect(host.out, "^hello$", timeout=60)
        os.chmod(peer, 0o600)
        far.carry(target)
        far.expect_one_file()
    not_own(far, target, lambda: os.chmod(far.cache, 0o777))
    if os.geteuid() == 0:
        not_own(far, target, lambda: (os.chmod(far.cache, 0o700), os.chown(far.cache, STRANGER, -1)))


def not_own(far, target, spoil):
    """In a folder that others can write to nothing is run, and nothing is put."""
    spoil()
    expect("sends gx-ssh-peer" in far.carry(target), "a peer was run from a folder that others can write to")
    for file in far.files():
        os.unlink(file)
    sent = logged(far, target)
    expect(far.files() == [], "a peer was put into a folder that others can write to")
    fresh = re.search(rb"d=(/tmp/gx-ssh-\w+);", sent).group(1)
    expect(not os.path.exists(fresh), "the folder in /tmp was left behind")
    far.refuse(target, "others may write there, or it is somebody else's", "--bring-dir", far.cache)


def bring_once(tools, server):
    """What is brought for one time goes as soon as it runs."""
    target = Target()
    far = FarSide(tools, server.folder)
    for _ in range(2):
        expect("sends gx-ssh-peer" in far.carry(target, "--bring-once"), "nothing was sent")
        expect(far.files() == [], f"left behind: {far.files()}")
    far.carry(target)
    expect("sends gx-ssh-peer" in far.carry(target, "--bring-once"), "the peer that is there was used")
    far.expect_one_file()
    there = f"{server.folder}/it's a $place"
    far.carry(target, "--bring-dir", there)
    far.cache = there
    far.expect_one_file()


def bring_probes(tools, server):
    """What the line is good for: where the peer has to be sent, where it is there, and where there is no shell."""
    target = Target()
    fresh, known = FarSide(tools, server.folder), FarSide(tools, server.folder)
    known.carry(target)
    probe = [tools.gx_ssh, "--probe", "--bring"]
    with (Child([*probe, "--", "sh", "-c", 'echo Welcome; exec "$@"', "sh", *fresh.shell]) as first,
          Child([*probe, "--json", "--", *known.shell]) as second):
        first.expect_status(0)
        second.expect_status(0)
    for line in (r"^brought     [\d.]+ [KM]iB in ", r'^noise       "Welcome\\n"$', r"^rate back   \d", "^verdict     usable$"):
        expect(re.search(line, first.out.text(), re.MULTILINE), f"no {line} in {first.out.text()}")
    fresh.expect_one_file()
    expect('"brought_bytes":0,' in second.out.text(), second.out.text())
    with Child([*probe, "--", "false"]) as refused:
        refused.expect_status(4)
        expect("not usable: not ready: it has ended before a shell answered" in refused.out.text(), refused.out.text())


def fake_peers(folder, content, digest=None, size=None):
    """What there is to bring: `content` for this machine."""
    path = f"{folder}/{os.uname().machine}/gx-ssh-peer"
    os.makedirs(os.path.dirname(path))
    with open(path, "wb") as file:
        file.write(content)
    if size:
        os.truncate(path, size)
    with gzip.open(f"{path}.gz", "wb") as file:
        file.write(content)
    with open(f"{path}.sha256", "w", encoding="ascii") as file:
        file.write(digest or hashlib.sha256(content).hexdigest())
    return folder


# What is said here and what gx-ssh-peer hears of it: gx-ssh's own targets are permitted by themselves, and times that are
# as usual are not told.
ORDERS = (
    ((), "--allow 127.0.0.1:22"),
    (("-W", "box:2222"), "--allow box:2222"),
    (("-L", "0:web:80", "-L", "0:/run/it's $HOME"), "--allow web:80 --allow unix:/run/it's $HOME"),
    (("--listen", "127.0.0.1:0", "--target", "a:1", "-L", "0:b:2", "--allow", "*:3", "--keepalive", "5s",
      "--keepalive-count", "7", "--connect-timeout", "1m"),
     "--allow *:3 --allow a:1 --allow b:2 --connect-timeout 1m --keepalive 5s --keepalive-count 7"),
)


def bring_passes_on(tools, server):
    """Targets and times, word for word, whichever way the peer comes to run."""
    says = b'#!/bin/sh\n[ "$1" = --remove-own-file ] && rm "$0" && shift\necho "heard $*." >&2\n'
    peers = fake_peers(f"{server.folder}/says", says)
    far = FarSide(tools, server.folder)
    for options, heard in ORDERS:
        for once in ([], [], ["--bring-once"]):
            with Child([tools.gx_ssh, "--bring", "--peer-dir", peers, *once, *options, "--", *far.shell]) as host:
                host.expect_status(4)
                expect(f"heard {heard}." in host.err.text(), f"not {heard!r} but\n{host.err.text()}")


def bring_shows_progress(tools, server):
    """On a terminal, until all is sent."""
    target = Target()
    far = FarSide(tools, server.folder)
    command = [tools.gx_ssh, "--target", target.address, "--bring", "--", *far.shell]
    with Terminal("env", "TERM=xterm", *command) as terminal:
        shown = terminal.expect("127.0.0.1:")
        whole = re.search(r"sends gx-ssh-peer for \w+ there, ([\d.]+ \w+)\r\n", shown)
        steps = re.findall(r"sent ([\d.]+ \w+) of ([\d.]+ \w+)", shown)
        expect(whole and len(set(steps)) > 3 and {of for _, of in steps} == {whole[1]} == {steps[-1][0]},
               f"it showed {shown!r}")
        terminal.type(INTERRUPT)
        terminal.expect_status(0)


def bring_refused(tools, server):
    """Each far side where it cannot work has a sentence of its own, and nothing is left there."""
    target = Target()
    folder = server.folder
    other = fake_peers(f"{folder}/other", b"#!/bin/sh\necho I am another >&2\nexit 3\n")
    wrong = fake_peers(f"{folder}/wrong", b"#!/bin/sh\n", digest="0" * 64)
    short = fake_peers(f"{folder}/short", b"#!/bin/sh\n", size=20)
    foreign = fake_peers(f"{folder}/foreign", b"\x7fELF\x02\x01\x01" + bytes(9) + b"\x02\x00\xff\xfe" + bytes(100))
    write_script(f"{folder}/uname", "echo Plan9 mips")
    far = FarSide(tools, folder)
    far.refuse(target, "does not run there: \"I am another", "--peer-dir", other)
    for shell in shells(folder).values():
        FarSide(tools, folder, shell).refuse(target, "does not run there: it is for another kind of processor (",
                                             "--peer-dir", foreign)
    far.refuse(target, "what arrived is not what was sent: its SHA-256 is", "--peer-dir", wrong)
    far.refuse(target, "10 bytes arrived of 20", "--peer-dir", short)
    far.refuse(target, "no gx-ssh-peer to bring in", "--peer-dir", f"{folder}/none")
    far.refuse(target, "it has ended before a shell answered", through=["false"])
    far.refuse(target, "no shell has answered within 500ms; it said", "--connect-timeout", "500ms", through=["sh", "-c", "exec cat"])
    expect(far.files() == [], f"left behind: {far.files()}")
    FarSide(tools, folder, ("/bin/sh", f"{folder}:/usr/bin:/bin")).refuse(target, 'it is "Plan9 mips"')
    for name, code, sentence in (
        ("seven_bits", "there = lambda b: bytes(x & 127 for x in b)",
         "the line changes bytes on the way there: sent 80 81 82"),
        ("swallows", "there = lambda b: b.replace(b'\\x11', b'')", "sent 11 12 13"),
        ("line_ends", "back = lambda b: b.replace(b'\\n', b'\\r\\n')", "the line changes bytes on the way here: sent 0a"),
    ):
        far = FarSide(tools, folder)
        far.refuse(target, sentence, through=filtered(folder, name, code))
        expect(far.files() == [], f"left behind: {far.files()}")
    if os.geteuid() == 0:
        refused_by_file_systems(tools, server, target)


def refused_by_file_systems(tools, server, target):
    """Mounted in a name space of their own, which goes with the carrier."""
    for options, sentence in (("ro", "the file system is read-only"), ("noexec", "programs cannot be run from there"),
                              ("size=1m", "the disk is full")):
        far = FarSide(tools, server.folder)
        write_script(f"{server.folder}/mounted", f"""
            exec unshare -m sh -c 'mount -t tmpfs -o {options} none "{far.home}" && exec "$@"' sh "$@"
            """)
        far.refuse(target, sentence, "--bring-dir", f"{far.home}/there", through=[f"{server.folder}/mounted"])


def bring_at_once(tools, server):
    """Twenty at once into an empty folder: all work, and there is one file."""
    target = Target()
    far = FarSide(tools, server.folder)
    hosts = [far.start(target) for _ in range(20)]
    try:
        for number, host in enumerate(hosts):
            host.send(f"text {number}\n")
        for number, host in enumerate(hosts):
            host.expect(host.out, f"^text {number}$", timeout=120)
            host.stdin.close()
        for host in hosts:
            host.expect_status(0)
    finally:
        for host in hosts:
            host.__exit__()
    far.expect_one_file()


def bring_cut(tools, server):
    """However early the line is cut: nothing half-written stays or runs, and the next try works."""
    target = Target()
    size = os.path.getsize(glob.glob(f"{os.path.dirname(tools.gx_ssh)}/../peer/peers/*/gx-ssh-peer.gz")[0])
    for _ in range(CUTS):
        far = FarSide(tools, server.folder)
        limit = random.choice((random.randrange(6000), random.randrange(size)))
        with far.start(target, through=filtered(server.folder, "cut", f"limit = {limit}")) as host:
            host.expect_status(4)
        left = [name for name in far.files() if "/new-" in name]
        expect(not left, f"cut after {limit} bytes: {left}")
        if far.files():
            far.expect_one_file()
        far.carry(target)
        far.expect_one_file()
        shutil.rmtree(far.home)


SCENARIOS = {each.__name__: each for each in (bring, bring_again, bring_once, bring_probes, bring_passes_on,
                                              bring_shows_progress, bring_refused, bring_at_once, bring_cut)}
