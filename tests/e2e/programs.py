"""The two programs and what they make of bad far sides, ends, signals and those who watch over them."""

import contextlib
import fcntl
import glob
import json
import os
import re
import shutil
import signal
import socket
import stat
import struct
import subprocess
import tempfile

from relays import Target, connect, eventually, expect, expect_answer, expect_echo, expect_end, stop
from throwaway import END_S, READY_S, Child

CONNECT, DATA, CLOSE, LIST, PING, GOODBYE, RESET = 1, 2, 3, 6, 0xF0, 0xF2, 0xF4
LARGE = 3_000_000


def frame(kind, connection=0, payload=b"", length=None):
    return struct.pack("<IIIB3x", 0, len(payload) if length is None else length, connection, kind) + payload


def say(data):
    """A shell command that prints these bytes."""
    return "printf '" + "".join(f"\\{byte:03o}" for byte in data) + "'; "


def answer(data):
    """The same, once the first connection has come and brought a byte."""
    return "grep -zaqF 127.0.0.1; " + say(data)


READY = say(b"GX-SSH-PEER 1\n")
BYE = say(frame(GOODBYE, 0, b"bye"))
SILENT = "cat >/dev/null"
BREAKS = frame(RESET, 1) + frame(CLOSE, 1)
REFUSES = frame(RESET, 1, b"no route") + frame(CLOSE, 1)
ONCE_CONNECTED = "exec 3<>/dev/tcp/127.0.0.1/$GX_SSH_PORT; echo >&3; "

# Options, the far side as shell commands, the status, and what standard error tells; @PEER is gx-ssh-peer. What is not
# told in the options and the far side is nothing that gx-ssh knows: without a goodbye the link is lost.
BAD_FAR_SIDES = (
    ([], "echo oh >&2; exit 3", 4,
     'gx-ssh: sh: oh\ngx-ssh: the far side is not ready: it has ended before it was ready; does it run gx-ssh-peer?; '
     'carrier "sh", exit status 3\n'),
    (["-q"], "echo oh >&2; exit 3", 4, "exit status 3: oh\n"),
    (["--connect-timeout", "1s"], "printf 'Welcome\\033[1m\\n'; cat >/dev/null", 4,
     'ready within 1s; does it run gx-ssh-peer, or something else that needs --raw?; it said "Welcome\\x1b[1m\\n"'),
    ([], "script -qec @PEER /dev/null", 4, "a terminal in between echoes"),
    ([], "printf 'GX-SSH-PEER 9\\n'; cat >/dev/null", 4, "it speaks version 9 of the protocol"),
    ([], "yes | tr -d '\\n'", 4, "it sends something else"),
    ([], READY + "echo last words >&2; exit 0", 1, 'carrier "sh", exit status 0'),
    ([], READY + BYE + "kill -9 $$", 1, "signal 9 (Killed)"),
    (["--keepalive", "100ms", "--keepalive-count", "2"], READY + SILENT, 1,
     'no sign of life from the far side for 200ms; carrier "sh" still runs'),
    (["--raw"], "sleep 0.1", 1, "link lost: end of the stream"),
    (["--target", "unix:/run/x"], READY + SILENT, 4, "connects to Unix sockets"),
    ([], READY + 2 * say(frame(LIST, 0, b"0\t22")) + BYE, 1, "--allow-channel-list"),
    (["--run", "sleep 60; :"], READY + "sleep 0.1", 255, "link lost"),
    (["--run", "sleep 60; :"], "exit 1", 255, "exit status 1"),
    (["--run", "sleep 60; :"], "no-such-program", 255, "exit status 127"),
    (["--run", f"bash -c '{ONCE_CONNECTED}sleep 60'"], READY + answer(REFUSES) + SILENT, 255,
     "the far side cannot open 127.0.0.1:22: no route\n"),
    (["--run", f"bash -c '{ONCE_CONNECTED}cat <&3; exit 7'"], READY + answer(BREAKS) + SILENT, 7, ""),
    (["--background"], "exit 1", 4, "it has ended before it was ready"),
)

# What was typed, the far side, what comes out, the status, and what standard error tells.
STANDARD_IO = (
    ("hello", "@PEER -q", "", 1, "the far side cannot open it: refused @TARGET: to permit it"),
    ("hello", READY + answer(BREAKS) + SILENT, "", 1, "closed it at once"),
    ("hello", READY + answer(frame(DATA, 1, b"part") + BREAKS) + SILENT, "part", 1,
     "the target broke it, and bytes may be lost"),
    # The goodbye is known long before the last byte is with the reader.
    ("hello", READY + answer(frame(DATA, 1, b"", LARGE)) + f"head -c {LARGE} /dev/zero; " + BYE, "\0" * LARGE, 1,
     "the far side has ended: bye"),
    *((text, "@PEER --allow @TARGET; exit 9", text, 0, "") for text in ("", "hello", "x" * LARGE)),
)

# Options of gx-ssh-peer, what it gets, the status, and what standard error tells.
PEERS = (
    *((words.split(" "), b"", 2, reason) for words, reason in (
        ("--allow *:*", "--allow-any"), ("--allow a:1 --allow-any", "excludes"),
        ("--target a:1 --allow b:1", "excludes"), ("--target host", "HOST:PORT"),
        ("--allow unix:/run/../x", "no '..'"), ("--raw --allow unix:/run/x", "--raw: the frame format alone"),
        ("--connect-timeout soon", "15s"), ("--max-connections 0", "--max-connections"),
        ("--dns-cache file --dns-refresh 4294967296", "--dns-refresh"), ("--dns-max-age 5", "--dns-cache"),
        ("--no\nsuch\x1b", "--no\\nsuch\\x1b"), ("word", "word"))),
    # A command that adds to what a script gives already: the last one counts.
    (["--raw", "-q", "--keepalive", "5s", "--keepalive", "10s", "--target", "a:1", "--target", "b:1"], b"", 0, ""),
    (["--raw"], frame(PING, 0, b"8 bytes."), 0, ""),
    (["--raw", "-q"], frame(CONNECT, 1, b"refused:1"), 0, ""),
    (["--raw", "-vv"], b"", 0, "gx-ssh-peer: confines: "),
    (["--raw", "-vv", "--no-confine"], b"", 0, "confines: nothing, as asked for"),
    ([], b"GX-SSH-HOST 7\n", 4, "version 7"),
    ([], b"", 4, "gx-ssh-peer: "),
    ([], b"GX-SSH-HOST 1\nhalf a", 1, "gx-ssh-peer: "),
)

HELLO = b"banner\nGX-SSH-HOST 1\n"
ENDS = (GOODBYE, 0, "end of input")


def connects(*targets):
    return [(CONNECT, number, target) for number, target in enumerate(targets, 1)]


def closes(count):
    return [(CLOSE, number, "") for number in range(1, count + 1)]


# Options of gx-ssh-peer, what it gets before frames, the frames, those that come out at the end of its input, and what
# it tells. @DEAF refuses, @SILENT does not answer.
PEER_FRAMES = (
    (["--raw"], b"", connects("@TARGET", "127.0.0.1:22\0", "x" * 65536, "", "\x1b]0;pwned\a:22"), closes(5),
     ("--allow @TARGET", "127.0.0.1:22\\x00", '"xxx', '""', "\\x1b]0;pwned\\x07")),
    (["--raw"], b"", connects(*["10.0.0.1:22"] * 500), closes(500), ("only with -v",)),
    (["--raw", "--target", "@TARGET"], b"", [*connects("whatever this is"), (DATA, 1, "hello")],
     [(DATA, 1, "hello"), *closes(1)], ()),
    (["--allow", "@TARGET"], HELLO, [*connects("@TARGET"), (DATA, 1, "hi")], [(DATA, 1, "hi"), *closes(1), ENDS], ()),
    (["--allow", "@DEAF"], HELLO, [*connects("@DEAF"), (DATA, 1, "lost")],
     [(RESET, 1, "Connection refused"), *closes(1), ENDS], ("Connection refused",)),
    (["--raw", "--allow", "@SILENT", "--connect-timeout", "300ms"], b"", connects("@SILENT"), closes(1),
     ("within 300ms",)),
)


def judge(what, done, status, said, output=None):
    """How a program ended and what it said: `said` and, if that is empty, nothing; no line twice."""
    errors = done.stderr.decode()
    expect(done.returncode == status, f"{what}: status {done.returncode}, not {status}; it said\n{errors}")
    expect(said in errors if said else errors == "" or status, f"{what}: it said\n{errors}")
    expect(len(set(errors.splitlines())) == errors.count("\n"), f"{what}: said twice\n{errors}")
    expect(output is None or done.stdout == output.encode(), f"{what}: this came out: {done.stdout!r:.99}")


def run_to_the_end(command, **options):
    return subprocess.run(command, check=False, capture_output=True, timeout=END_S, **options)


def bad_far_sides(tools, _server):
    """Each has a status and a message of its own, and so has each end of -W; bad command lines get one line."""
    target = Target()
    for options, far_side, status, said in BAD_FAR_SIDES:
        far_side = far_side.replace("@PEER", tools.gx_ssh_peer)
        done = run_to_the_end([tools.gx_ssh, *options, "--", "sh", "-c", far_side], stdin=subprocess.DEVNULL)
        judge(f"{options} {far_side}", done, status, said)
    for typed, far_side, output, status, said in STANDARD_IO:
        far_side = far_side.replace("@PEER", tools.gx_ssh_peer).replace("@TARGET", target.address)
        done = run_to_the_end([tools.gx_ssh, "-W", "--target", target.address, "--", "sh", "-c", far_side],
                              input=typed.encode())
        judge(f"-W {far_side}", done, status, said.replace("@TARGET", target.address), output)
    for redirection, said in (("</dev/zero >/dev/full", "No space left on device"), ("</", "Is a directory")):
        done = run_to_the_end(["sh", "-c", f'exec "$@" {redirection}', "sh", tools.gx_ssh, "-W", "--target",
                               target.address, "--local"])
        judge(f"-W {redirection}", done, 1, said)
    for carrier, status in (("no-such-program", 127), ("/etc/passwd", 126)):
        judge(carrier, run_to_the_end([tools.gx_ssh, "--", carrier]), status, f'gx-ssh: cannot run "{carrier}')
    fake = glob.glob(f"{os.path.dirname(tools.gx_ssh)}/../../tests/tools/gx-ssh/libgx_fake_module.*")[0]
    for module, fault, said in (
            ("/nowhere/module.so", "", "/nowhere/module.so: cannot open"), ("/etc/passwd", "", "/etc/passwd"),
            ("libc.so.6", "", "./libc.so.6: cannot open"),
            (re.search(r"/\S+/libc\.so\.6", read("/proc/self/maps"))[0], "", "gxmod_get_entrypoint"),
            (fake, "name", "not the module gx-control-ssh"), (fake, "init", "does not start"),
            (fake, "version", "version 3.0.0 of the module, but 2.0.0 is needed"), (fake, "", "makes no plugin")):
        done = run_to_the_end(["env", f"FAKE_MODULE={fault}", tools.gx_ssh, "-vvv", "--local", "--module", module])
        judge(f"{module} {fault}", done, 3, said, "")  # what a module prints is no output of gx-ssh
    expect("a careless library\n" in done.stderr.decode() and "uninit" in done.stderr.decode(), done.stderr)
    for options, text, status, said in PEERS:
        with tempfile.TemporaryFile() as both_ways:
            both_ways.write(text)
            both_ways.seek(0)
            done = subprocess.run([tools.gx_ssh_peer, *options], check=False, timeout=END_S, stdin=both_ways,
                                  stdout=both_ways, stderr=subprocess.PIPE)
        judge(f"gx-ssh-peer {options}", done, status, said)
        expect(status != 2 or re.fullmatch("gx-ssh-peer: .*\n", done.stderr.decode()), options, done.stderr)


class Watched:
    """gx-ssh before gx-ssh-peer and an echo server, in a scratch folder. The carrier's own status says nothing."""

    def __init__(self, tools, folder):
        self.tools, self.folder, self.target = tools, folder, Target()
        self.carrier = (f"sh -c 'echo $$ >{folder}/pid; exec {tools.gx_ssh_peer} --allow {self.target.address}'; "
                        "exit 9")

    def start(self, *options, carrier=None, through=(), **more):
        return Child([*through, self.tools.gx_ssh, "--target", self.target.address, *options, "--", "sh", "-c",
                      carrier or self.carrier], **more)

    def path(self, name):
        return f"{self.folder}/{name}"

    def signal_peer(self, number):
        os.kill(int(read(self.path("pid"))), number)


def read(path):
    with open(path, encoding="utf-8") as file:
        return file.read()


def address_of(host):
    return host.expect(host.out, r"^(127\.0\.0\.1:\d+|unix:.*)$").group(1)


def addresses_of(host, count):
    eventually(lambda: host.out.text().count("127.0.0.1:") == count, "not all addresses were told")
    return host.out.text().split()


def ends(tools, server):
    """However it is told to end it ends in order, and tells what it was asked to tell."""
    watched = Watched(tools, server.folder)
    for number in (signal.SIGTERM, signal.SIGINT, signal.SIGHUP):
        with watched.start() as host, connect(address_of(host)) as client:
            expect_echo(client, number.name)
            stop(host, number)
            expect_end(client, number.name)
            expect(host.err.text() == "" and "\n" not in host.out.text(), host.err.text(), host.out.text())
    # Nobody has asked it to end, so whoever watches over it has to hear of it.
    with watched.start() as host:
        address_of(host)
        watched.signal_peer(signal.SIGTERM)
        host.expect_status(1)
        expect(host.err.text() == "gx-ssh: the far side has ended: stopped", host.err.text())
    for listen in ([], ["--listen", "127.0.0.1:0"]):
        with watched.start("-v", *listen) as host, connect(address_of(host)) as client:
            expect_echo(client, "-v")
            stop(host)
            client_address = f" from 127.0.0.1:{client.getsockname()[1]}" if listen else ""
            host.expect(host.err, f"connection 1{client_address} to {watched.target.address} closed after .*s: "
                                  "5 B sent, 5 B received")
    # The command ends at once, and its child has the time that a command has.
    child = "(trap 'sleep 0.7; echo saved; exit' TERM; echo up; while :; do sleep 0.1; done) & "
    with watched.start("--run", "trap 'exit 7' TERM; " + child + "wait") as host:
        host.expect(host.out, "^up$")
        stop(host, status=7)
        host.expect(host.out, "^saved$")
    for end, status in (("exit 7", 7), ("kill -9 $$", 128 + signal.SIGKILL)):
        with watched.start("--run", f"cat; test $GX_SSH_ADDR = $GX_SSH_HOST:$GX_SSH_PORT && {end}") as host:
            host.send("typed\n")
            host.stdin.close()
            host.expect_status(status)
            expect(host.out.text() == "typed", host.out.text())
    with watched.start("--reconnect", "--listen", "127.0.0.1:0", "-L", f"0:{watched.target.address}") as host:
        addresses = addresses_of(host, 2)
        for _ in range(3):
            with contextlib.ExitStack() as exits:
                clients = [exits.enter_context(connect(address)) for address in addresses]
                for client in clients:
                    expect_echo(client, "a link that is up again")
                watched.signal_peer(signal.SIGKILL)
                for client in clients:
                    expect_end(client, "a connection of the lost link")
        stop(host)
        host.expect(host.err, "the link is up again")


def names(tools, server):
    """Socket and port file are the owner's, and go with the gx-ssh whose they are, and with no other."""
    watched = Watched(tools, server.folder)
    path = watched.path("name")
    for number, status in ((signal.SIGKILL, -9), (signal.SIGTERM, 0)):  # what a killed one left does not matter
        with watched.start("--listen", f"unix:{path}") as host:
            expect(address_of(host) == f"unix:{path}", host.out.text())
            expect(stat.S_IMODE(os.stat(path).st_mode) == 0o600, "others may connect to the socket")
            with connect(f"unix:{path}") as client:
                expect_echo(client, "a Unix socket")
            with watched.start("--listen", f"unix:{path}") as second:
                second.expect_status(5)
            stop(host, number, status)
            expect(os.path.exists(path) == (number == signal.SIGKILL), "the socket")
    for options in (["--port-file", path], ["--listen", f"unix:{path}"]):
        with watched.start(*options) as older:
            address_of(older)
            os.unlink(path)
            with watched.start(*options) as newer:
                address_of(newer)
                stop(older)
                expect(os.path.exists(path), f"{options}: the newer one's was removed")
                stop(newer)
                expect(not os.path.exists(path), f"{options}: it was left behind")
    with watched.start("--background", "--port-file", path) as host:
        lines = (host.expect_status(0), host.out.text().split())[1]
        expect(host.err.text() == "" and os.getsid(int(lines[1])) == int(lines[1]), host.err.text())
        with connect(lines[0]) as client:
            expect_echo(client, "the one in the background")
        os.kill(int(lines[1]), signal.SIGTERM)
        eventually(lambda: not os.path.exists(path), "the one in the background goes on")


def told(host, *wanted):
    """Waits for an event that has these."""
    wanted = dict(zip(wanted[::2], wanted[1::2]))
    found = []

    def has_come():
        events = [json.loads(line) for line in host.out.text().splitlines()]
        found[:] = [event for event in events if wanted.items() <= event.items()]
        return found
    eventually(has_come, f"no event {wanted} in {host.out.text()}")
    return found[0]


def tells(tools, server):
    """Scripts, service managers and whoever reads its log hear how it is; one that stalls holds up nothing."""
    watched = Watched(tools, server.folder)
    with watched.start("--json", "--stats", "50ms", "--port-file", watched.path("port")) as host:
        told(host, "event", "link", "state", "up")
        told(host, "event", "listening")
        expect(stat.S_IMODE(os.stat(watched.path("port")).st_mode) == 0o600, "others may write to the port file")
        with connect(read(watched.path("port")).strip()) as client:
            expect_echo(client, "the port of the file")
        told(host, "event", "open", "connection", 1)
        host.expect(host.out, '"line_round_trip_ms":[0-9.]+,"line_under_way":')
        expect("seconds" in told(host, "event", "close", "connection", 1, "sent", 5, "received", 5), host.out.text())
        host.signal(signal.SIGUSR1)
        host.expect(host.err, "received")
        stop(host)
        told(host, "event", "stats", "open", 0, "connections", 1, "sent", 5, "received", 5)
        told(host, "event", "exit", "reason", "stopped", "status", 0)
    ready, log = watched.path("ready"), watched.path("log")
    with watched.start("--ready-fd", "3", "--log-file", log, "--log-format", "json", "--stats", "100ms",
                       through=["sh", "-c", f'exec 3>{ready}; exec "$@"', "sh"]) as host:
        address = address_of(host)
        eventually(lambda: read(ready) == address + "\n", "nobody was told that it is ready")
        host.expect(host.err, "0 open, 0 in all; 0 B sent")
        stop(host)
        line = json.loads(read(log).splitlines()[0])
        expect((line["level"], line["message"]) == ("info", "0 open, 0 in all; 0 B sent, 0 B received"), line)
    hears_of_its_life(watched)
    stalls(watched)
    older = "@PEER | { read -r line; echo GX-SSH-PEER-CAN flow-control; exec cat; }"
    for through, form, status, words in (
            ("echo Welcome; exec @PEER", ["--json"], 0, (
                '"usable":1', '"noise":"Welcome\\\\n', "round_trip_median_ms", '"bytes_survive":1', "there_bytes_per_second",
                "back_bytes_per_second", "both_bytes_per_second", '"queued_ms"')),
            (older, [], 0, ("rate back   unknown: ", "both ways")),
            ("@PEER | stdbuf -o0 tr '\\200' '\\201'", ["--json"], 4, ("byte 0x80 comes back as 0x81",))):
        done = run_to_the_end([tools.gx_ssh, "--probe", *form, "--", "sh", "-c",
                               through.replace("@PEER", tools.gx_ssh_peer)])
        judge(through, done, status, "")
        expect(all(word in done.stdout.decode() for word in words), done.stdout)


def hears_of_its_life(watched):
    """What systemd is told; a carrier that could speak for gx-ssh does not become ready."""
    with socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM) as manager:
        manager.bind(watched.path("notify"))
        manager.settimeout(READY_S)
        with watched.start(carrier='test -z "$NOTIFY_SOCKET" || exit 1; ' + READY + SILENT,
                           through=["env", f"NOTIFY_SOCKET={watched.path('notify')}", "WATCHDOG_USEC=200000"]) as host:
            if "systemd" not in run_to_the_end(["ldd", watched.tools.gx_ssh]).stdout.decode():
                return
            for wanted in (b"STATUS=the link is up", b"READY=1", b"WATCHDOG=1", b"WATCHDOG=1"):
                while manager.recv(1000) != wanted:
                    pass
            stop(host)
            while manager.recv(1000) != b"STOPPING=1":
                pass
    listens(watched)


def listens(watched):
    """At the sockets of a service manager: early callers are served, and the sockets stay when it has ended."""
    path = watched.path("socket")
    with socket.socket(socket.AF_UNIX) as local, socket.create_server(("127.0.0.1", 0)) as port, \
            socket.create_server(("0.0.0.0", 0)) as everywhere:
        local.bind(path)
        local.listen()
        address = "127.0.0.1:%d" % port.getsockname()[1]
        passed = [fcntl.fcntl(each, fcntl.F_DUPFD, 100) for each in (local, port, everywhere)]
        way = {"pass_fds": passed, "carrier": 'test -z "$LISTEN_FDS" && ' + watched.carrier, "through": [
            "bash", "-c", f'exec 3<&{passed[0]} 4<&{passed[1]} 5<&{passed[2]}; LISTEN_PID=$$ LISTEN_FDS=3 exec "$@"', "bash"]}
        forward = f"{port.getsockname()[1]}:{watched.target.address}"
        number = everywhere.getsockname()[1]
        with connect(f"unix:{path}") as early:
            with watched.start("--listen", f"unix:{path}", "-L", forward,
                               "-L", f"*:{number}:{watched.target.address}", **way) as host:
                expect_echo(early, "who has called before")
                host.expect(host.out, f"^unix:{path}$")
                host.expect(host.out, f"^{address}$")
                for each in (address, f"127.0.0.1:{number}"):
                    with connect(each) as client:
                        expect_echo(client, "the socket of the port")
                stop(host)
        connect(f"unix:{path}").close()
        with watched.start("--listen", f"unix:{path}", **way) as forgetful:
            forgetful.expect_status(5)
            forgetful.expect(forgetful.err, f"the service manager listens at {address}")
        for each in passed:
            os.close(each)


def stalls(watched):
    """Nobody reads its events, or its words."""
    there, here = os.pipe()
    os.set_blocking(here, False)
    with contextlib.suppress(BlockingIOError):
        while os.write(here, bytes(1 << 16)):
            pass
    os.set_blocking(here, True)
    port = watched.path("port")
    with watched.start("--json", "--port-file", port, through=["sh", "-c", f'exec "$@" >/proc/{os.getpid()}/fd/{here}',
                                                               "sh"]) as host:
        eventually(lambda: os.path.exists(port), "it waits for the reader of its events")
        stop(host)
    loud = READY + f"yes $(printf %01000d) | head -n 200 >&2; echo >{watched.path('said')}; " + SILENT
    with watched.start(carrier=loud, through=["sh", "-c", f'exec "$@" 2>/proc/{os.getpid()}/fd/{here}', "sh"]) as host:
        address_of(host)
        eventually(lambda: os.path.exists(watched.path("said")), "it waits for the reader of its words")
        stop(host)
    os.close(there)
    os.close(here)


def surroundings(tools, server):
    """What the carrier says and inherits reaches the right one, and who has become another user is left, and told."""
    watched = Watched(tools, server.folder)
    with watched.start(carrier="printf '\\033[1m\\nSchl\\303\\274ssel: ' >&2; cat >&2") as host:
        host.expect(host.err, r"^gx-ssh: sh: \\x1b\[1m$")
        host.expect(host.err, "^gx-ssh: sh: Schlüssel: GX-SSH-HOST")  # the rest of that line
        stop(host)
    # A carrier starts with a clean slate: no signal is blocked or ignored, and it has three descriptors.
    looks = "grep -E '^Sig(Blk|Ign)' /proc/self/status | tr '\\t' ' ' >&2; exec ls /proc/self/fd >&2"
    done = run_to_the_end(["sh", "-c", "trap '' TERM; exec \"$@\"", "sh", tools.gx_ssh, "--raw", "--", "sh", "-c",
                           looks])
    told = done.stderr.decode().split()
    expect(told.count("0" * 16) == 2 and "3" in told and "4" not in told, told)
    # bash, unlike sh, takes a socket for a remote login's, and what it then reads would come before the line.
    with open(watched.path(".bashrc"), "w", encoding="ascii") as file:
        file.write("echo read\n")
    path = watched.path("socket")
    with Child(["env", "-u", "SHLVL", "GX_SSH_PORT=1", f"HOME={server.folder}", tools.gx_ssh, "-q",
                "--listen", f"unix:{path}", "--run", "echo ${GX_SSH_PORT-none} $GX_SSH_ADDR", "--", "bash", "-c",
                READY + "cat >/dev/null; test $SHLVL = 2"]) as host:
        host.expect_status(0)
        expect(host.out.text() == f"none unix:{path}", host.out.text())
    if os.geteuid() == 0:
        cannot_be_ended(watched)


def cannot_be_ended(watched):
    """The carrier has become another user, and the end of its input means nothing to it."""
    folder = watched.path("public")
    os.mkdir(folder)
    for each in (watched.folder, folder):
        os.chmod(each, 0o755)
    become, program, module = (f"{folder}/{name}" for name in ("become", "gx-ssh", "module"))
    shutil.copy(watched.tools.gx_ssh, program)
    shutil.copy(glob.glob(f"{os.path.dirname(watched.tools.gx_ssh)}/../../src/module/libgx-control-ssh.*")[0], module)
    shutil.copy("/usr/bin/setpriv", become)
    os.chmod(become, 0o4755)
    with Child([become, "--reuid=65534", "--clear-groups", program, "--module", module, "--raw", "--", become,
                "--reuid=65533", "--clear-groups", "sleep", "600"]) as host:
        address_of(host)
        host.signal(signal.SIGTERM)
        left = host.expect(host.err, f'cannot end "{become}": process (\\d+) goes on: Operation not permitted')
        os.kill(int(left.group(1)), signal.SIGKILL)
        host.expect_status(0)


def plays(tools, places, options, greeting, sent, came, said):
    """What gx-ssh-peer makes of these frames."""
    def fill(text):
        for name, place in places.items():
            text = text.replace(name, place)
        return text

    def wire(frames):
        return b"".join(frame(kind, number, fill(text).encode("latin-1")) for kind, number, text in frames)

    done = run_to_the_end([tools.gx_ssh_peer, *map(fill, options)], input=greeting + wire(sent))
    told = done.stderr.decode()
    expect(done.returncode == 0 and (came is None or done.stdout.endswith(wire(came))), f"{options}: {done!r:.999}")
    expect(all(fill(words) in told for words in said) and told.count("\n") <= 101, f"{options} told {told!r:.999}")
    expect(max(map(len, told.splitlines()), default=0) < 1000, f"{options} told a long line")


def peers(tools, server):
    """gx-ssh-peer by itself: what it leaves behind, how it ends, and names that only its cache knows."""
    target = Target()
    port = target.address.rpartition(":")[2]
    with socket.create_server(("127.0.0.1", 0), backlog=0) as silent, socket.socket() as deaf, \
            contextlib.ExitStack() as exits:
        deaf.bind(("127.0.0.1", 0))
        places = {"@TARGET": target.address}
        for name, listener in (("@DEAF", deaf), ("@SILENT", silent)):
            places[name] = "%s:%d" % listener.getsockname()
        for _ in range(4):  # which fill its queue
            client = exits.enter_context(socket.socket())
            client.setblocking(False)
            client.connect_ex(silent.getsockname())
        for row in PEER_FRAMES:
            plays(tools, places, *row)
    with Child([tools.gx_ssh_peer, "--connect-timeout", "500ms"]) as peer:
        peer.send("\x1b[1mwho are you?")
        peer.expect(peer.err, r"within 500ms.*\\x1b\[1mwho are you")
        peer.expect_status(4)
    # The open file may be shared with a shell, which does not expect to find it non-blocking.
    theirs, ours = os.pipe()
    options = ["--raw", "-v", "--allow", target.address]
    with Child(["bash", "-c", f'exec "$@" <&{theirs}', "bash", tools.gx_ssh_peer, *options], pass_fds=[theirs]) as peer:
        os.write(ours, frame(CONNECT, 1, target.address.encode()) + frame(DATA, 1, b"hello\n"))
        peer.expect(peer.err, f"connection 1 to {target.address} is open")
        peer.expect(peer.out, "hello$")
        os.close(ours)
        peer.expect_status(0)
        expect(os.get_blocking(theirs), "it left its input non-blocking")
    os.close(theirs)
    with Child([tools.gx_ssh_peer]) as peer:
        peer.expect(peer.out, "^GX-SSH-PEER 1$")
        stop(peer)
        expect(peer.out.text().endswith("stopped") and peer.err.text() == "", peer.out.text(), peer.err.text())
    unread, closed = os.pipe()
    os.close(unread)
    done = subprocess.run([tools.gx_ssh_peer], check=False, timeout=END_S, stdin=subprocess.PIPE, stdout=closed,
                          stderr=subprocess.PIPE)
    expect((done.returncode, done.stderr) == (1, b""), "with nobody to read its output it said", done)
    os.close(closed)
    cache, here = f"{server.folder}/names", socket.gethostname()
    record = {"name": "known.invalid", "ips": ["127.0.0.1", "2001:db8::1"], "timestamp": 1}
    with open(cache, "w", encoding="ascii") as file:
        json.dump({"cache": [record]}, file)
    names = ("known.invalid", here, "other.invalid")
    allowed = [word for name in ("127.0.0.1", *names) for word in ("--allow", f"{name}:{port}")]
    with Child(["env", "RES_OPTIONS=timeout:1 attempts:1", tools.gx_ssh_peer, "--raw", "-v", "--dns-cache", cache,
                *allowed]) as peer:
        for number, name in enumerate(names):
            peer.stdin.buffer.write(frame(CONNECT, number, f"{name}:{port}".encode()))
        peer.stdin.buffer.flush()
        peer.expect(peer.err, f"connection 0 to known.invalid:{port} is open")
        peer.expect(peer.err, "connection 2 to other.invalid.* could not be opened: ")
        peer.stdin.close()
        peer.expect_status(0)
    expect("known.invalid" in read(cache) and "other" not in read(cache), read(cache))
    with contextlib.suppress(socket.gaierror):
        expect(socket.gethostbyname(here) and f'"{here}"' in read(cache), read(cache))


SCENARIOS = {each.__name__: each for each in (bad_far_sides, ends, names, tells, surroundings, peers)}
