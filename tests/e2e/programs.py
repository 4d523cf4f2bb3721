"""The two programs and what they make of bad far sides, ends, signals and those who watch over them."""

import contextlib
import fcntl
import glob
import json
import os
import queue
import re
import signal
import socket
import stat
import struct
import subprocess
import threading

from hosts import ADDRESS, Host, Target, connect, expect_echo, expect_end
from throwaway import READY_S, Child, eventually, expect, read, run_to_the_end, side_by_side, write

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
LOCAL = ""
ONCE_CONNECTED = "exec 3<>/dev/tcp/127.0.0.1/$GX_SSH_PORT; echo >&3; "

# Options, the far side as shell commands, the status, and what standard error tells; then, for -W, what was typed and
# what comes out. Where the far side says no goodbye, gx-ssh takes its end for a lost link.
FAR_SIDES = (
    ([], "echo oh >&2; exit 3", 4,
     'gx-ssh: sh: oh\ngx-ssh: the far side is not ready: it has ended before it was ready; does it run gx-ssh-peer?; '
     'carrier "sh", exit status 3\n'),
    (["-q"], "echo oh >&2; exit 3", 4, "exit status 3: oh\n"),
    (["--connect-timeout", "3s"], "printf 'Welcome\\033[1m\\n'; cat >/dev/null", 4,
     'ready within 3s; does it run gx-ssh-peer, or something else that needs --raw?; it said "Welcome\\x1b[1m\\n"'),
    ([], "script -qec @PEER /dev/null", 4, "a terminal in between echoes"),
    ([], "printf 'GX-SSH-PEER 9\\n'; cat >/dev/null", 4, "it speaks version 9 of the protocol"),
    ([], "yes | tr -d '\\n'", 4, "it sends something else"),
    ([], READY + "echo last words >&2; exit 0", 1, 'carrier "sh", exit status 0'),
    (["--keepalive", "0s"], READY + BYE, 1, "gx-ssh: the far side has ended: bye\n"),
    ([], READY + BYE + "kill -9 $$", 1, "signal 9 (Killed)"),
    (["--keepalive", "100ms", "--keepalive-count", "2"], READY + SILENT, 1,
     'no sign of life from the far side for 200ms; carrier "sh" still runs'),
    (["--raw"], "sleep 0.1", 1, "link lost: end of the stream"),
    (["--target", "unix:/run/x"], READY + SILENT, 4, "connects to Unix sockets"),
    ([], READY + 2 * say(frame(LIST, 0, b"0\t22")) + BYE, 1, "--allow-channel-list"),
    (["--run", "sleep 60; :"], READY + "sleep 0.1", 255, "link lost"),
    (["--run", "sleep 60; :"], "exit 1", 255, "exit status 1"),
    (["--run", "cat; test $GX_SSH_ADDR = $GX_SSH_HOST:$GX_SSH_PORT && kill -9 $$"], "@PEER", 137, "", "typed", "typed"),
    (["--run", f"bash -c '{ONCE_CONNECTED}sleep 60'"], READY + answer(REFUSES) + SILENT, 255,
     "the far side cannot open 127.0.0.1:22: no route\n"),
    (["--run", f"bash -c '{ONCE_CONNECTED}cat <&3; exit 7'"], READY + answer(BREAKS) + SILENT, 7, ""),
    (["--background"], "exit 1", 4, "it has ended before it was ready"),
    (["-W", "@TARGET"], "@PEER -q", 1, "the far side cannot open it: refused @TARGET: to permit it", "hello", ""),
    (["-W", "@TARGET"], READY + answer(BREAKS) + SILENT, 1, "closed it at once", "hello", ""),
    (["-W", "@TARGET"], READY + answer(frame(DATA, 1, b"part") + BREAKS) + SILENT, 1,
     "the target broke it, and bytes may be lost", "hello", "part"),
    # The goodbye is known long before the last byte is with the reader.
    (["-W", "@TARGET"], READY + answer(frame(DATA, 1, b"", LARGE)) + f"head -c {LARGE} /dev/zero; " + BYE, 1,
     "the far side has ended: bye", "hello", "\0" * LARGE),
    *((["-W", "@TARGET"], "@PEER --allow @TARGET; exit 9", 0, "", text, text) for text in ("", "hello", "x" * LARGE)),
    (["-W", "@UNIX"], "@PEER -q --allow @UNIX", 0, "", "hello", "hello"),
    (["-W", "@UNIX"], "@PEER -q --target @UNIX", 0, "", "hello", "hello"),
    (["-W", "@UNIX"], LOCAL, 0, "", "hello", "hello"),
)

# Shell commands, the status, and what standard error tells. What a module prints is kept off standard output.
COMMANDS = (
    ("@GX -- no-such-program", 127, 'gx-ssh: cannot run "no-such-program'),
    ("@GX -- /etc/passwd", 126, 'gx-ssh: cannot run "/etc/passwd'),
    ("@GX -W --target @TARGET --local </dev/zero >/dev/full", 1, "No space left on device"),
    ("@GX -W --target @TARGET --local </", 1, "Is a directory"),
    # On a terminal an interrupt goes to both, and gx-ssh may hear of the carrier's end before it hears of the key.
    ("script -qec '@GX -- sh -c \"kill -INT \\$\\$\"' /dev/null", 0),
    ("@GX --connect unix:/nowhere", 1, "No such file"),
    ("@GX --local --module /nowhere/module.so", 3, "/nowhere/module.so: cannot open"),
    ("@GX --local --module libc.so.6", 3, "./libc.so.6: cannot open"),
    ("@GX --local --module @LIBC", 3, "gxmod_get_entrypoint"),
    ("FAKE_MODULE=name @GX --local --module @FAKE", 3, "not the module gx-control-ssh"),
    ("FAKE_MODULE=init @GX --local --module @FAKE", 3, "does not start"),
    ("FAKE_MODULE=version @GX --local --module @FAKE", 3, "version 3.0.0 of the module, but 2.0.0 is needed"),
    ("FAKE_MODULE= @GX -vvv --local --module @FAKE", 3, "makes no plugin", "a careless library\n", "uninit"),
    *((f"@PEER {words}", 2, said) for words, said in (
        ("--allow '*:*'", "--allow-any"), ("--allow a:1 --allow-any", "excludes"),
        ("--target a:1 --allow b:1", "excludes"), ("--target host", "HOST:PORT"),
        ("--allow unix:/run/../x", "no '..'"), ("--raw --allow unix:/run/x", "--raw: the frame format alone"),
        ("--connect-timeout soon", "15s"), ("--max-connections 0", "--max-connections"),
        ("--dns-cache file --dns-refresh 4294967296", "--dns-refresh"), ("--dns-max-age 5", "--dns-cache"),
        ("'--no\nsuch\x1b'", "--no\\nsuch\\x1b"), ("word", "word"))),
    # Somebody adds options to those that a script gives: the last of each counts.
    ("@PEER --raw -q --keepalive 5s --keepalive 10s --target a:1 --target b:1", 0),
    ("{ " + say(frame(CONNECT, 1, b"refused:1")) + "} | @PEER --raw -q", 0),
    ("@PEER --raw -vv && @PEER --version >&2", 0, "gx-ssh-peer: confines: ", "\nconfines: "),
    ("@PEER --raw -vv --no-confine", 0, "confines: nothing, as asked for"),
    ("echo GX-SSH-HOST 7 | @PEER", 4, "version 7"),
    ("@PEER", 4, "gx-ssh-peer: "),
    ("printf 'GX-SSH-HOST 1\\nhalf a' | @PEER", 1, "gx-ssh-peer: "),
)


def connects(*targets):
    return [(CONNECT, number, target) for number, target in enumerate(targets, 1)]


def closes(count):
    return [(CLOSE, number, "") for number in range(1, count + 1)]


# Options of gx-ssh-peer, what it gets before frames, the frames, those that come out at the end of its input, and what
# it tells. Nobody listens at port 9, and @SILENT does not answer.
PEER_FRAMES = (
    (["--raw"], b"", connects("@TARGET", "127.0.0.1:22\0", "x" * 65536, "", "\x1b]0;pwned\a:22"), closes(5),
     ("--allow @TARGET", "127.0.0.1:22\\x00", '"xxx', '""', "\\x1b]0;pwned\\x07")),
    (["--raw"], b"", connects(*["10.0.0.1:22"] * 500), closes(500), ("only with -v",)),
    (["--raw", "--target", "@TARGET"], b"", [*connects("whatever this is"), (DATA, 1, "hello")],
     [(DATA, 1, "hello"), *closes(1)], ()),
    (["--allow", "127.0.0.1:9"], b"banner\nGX-SSH-HOST 1\n", [*connects("127.0.0.1:9"), (DATA, 1, "lost")],
     [(RESET, 1, "Connection refused"), *closes(1), (GOODBYE, 0, "end of input")], ("Connection refused",)),
    (["--raw", "--allow", "@SILENT", "--connect-timeout", "300ms"], b"", connects("@SILENT"), closes(1),
     ("within 300ms",)),
)


def judge(what, done, status, *said, output=None):
    """How a program ended and what it said: all of `said` and, if that is empty, nothing; no line twice."""
    errors = done.stderr.decode()
    expect(done.returncode == status, f"{what}: status {done.returncode}, not {status}; it said\n{errors}")
    expect(all(words in errors for words in said), f"{what}: it said\n{errors}")
    expect(any(said) or errors == "" or status, f"{what}: it said\n{errors}")
    expect(len(set(errors.splitlines())) == errors.count("\n"), f"{what}: said twice\n{errors}")
    expect(output is None or done.stdout == output.encode(), f"{what}: this came out: {done.stdout!r:.99}")


def fill(text, places):
    for name, place in places.items():
        text = text.replace(name, place)
    return text


def bad_far_sides(tools):
    """Each has a status and a message of its own, and so has each end of -W; bad command lines get one line."""
    places = {"@PEER": tools.gx_ssh_peer, "@GX": tools.gx_ssh, "@TARGET": Target().address,
              "@UNIX": Target(last=True, path=f"{tools.folder}/target").address,
              "@LIBC": re.search(r"/\S+/libc\.so\.6", read("/proc/self/maps"))[0],
              "@FAKE": glob.glob(f"{os.path.dirname(tools.gx_ssh)}/../../tests/tools/gx-ssh/libgx_fake_module.*")[0]}

    def meets(options, far_side, status, said, typed="", output=None):
        carrier = ["--", "sh", "-c", far_side] if far_side else ["--local"]
        words = [fill(word, places) for word in [*options, *carrier]]
        done = run_to_the_end([tools.gx_ssh, *words], input=typed.encode())
        judge(words, done, status, fill(said, places), output=output)

    def runs(command, status, *said):
        done = run_to_the_end(["sh", "-c", fill(command, places)], stdin=subprocess.DEVNULL)
        judge(command, done, status, *said, output="" if status == 3 else None)
        expect(status != 2 or re.fullmatch("gx-ssh-peer: .*\n", done.stderr.decode()), command, done.stderr)

    side_by_side(meets, FAR_SIDES)
    side_by_side(runs, COMMANDS)


def ends(tools):
    """However it is told to end it ends in order, and tells what it was asked to tell."""
    target = Target()
    for number, *options in ((signal.SIGTERM,), (signal.SIGINT, "-v"),
                             (signal.SIGHUP, "-v", "--listen", "127.0.0.1:0")):
        with Host(tools, target, *options) as host, connect(host.address) as client:
            expect_echo(client, number.name)
            host.stop(number)
            expect_end(client, number.name)
            caller = f" from 127.0.0.1:{client.getsockname()[1]}" if "--listen" in options else ""
            closed = f"connection 1{caller} to {target.address} closed after .*s: 5 B sent, 5 B received"
            expect(re.search(closed, host.err.text()) if options else not host.err.text(), host.err.text())
            expect("\n" not in host.out.text(), host.out.text())
    # The command ends at once; its child has as long to end as a command has.
    child = "(trap 'sleep 0.3; echo saved; exit' TERM; echo up; while :; do sleep 0.1; done) & "
    with Host(tools, target, "--run", "trap 'exit 7' TERM; " + child + "wait") as host:
        host.expect(host.out, "^up$")
        host.stop(status=7)
        host.expect(host.out, "^saved$")
    with Host(tools, target, "--reconnect", "--listen", "127.0.0.1:0", "-L", "0:@TARGET") as host:
        addresses = host.addresses(2)
        for _ in range(3):
            with contextlib.ExitStack() as exits:
                clients = [exits.enter_context(connect(address)) for address in addresses]
                for client in clients:
                    expect_echo(client, "a link that is up again")
                os.kill(host.peer_pid, signal.SIGKILL)
                for client in clients:
                    expect_end(client, "a connection of the lost link")
        host.stop()
        host.expect(host.err, "the link is up again")


def names(tools):
    """Only their owner can use the socket and the port file, and only the gx-ssh that made them removes them."""
    target, path = Target(), f"{tools.folder}/name"
    listen = ["--listen", f"unix:{path}"]
    for number, status in ((signal.SIGKILL, -9), (signal.SIGTERM, 0)):  # what a killed one left does not matter
        with Host(tools, target, *listen) as host, connect(host.address) as client:
            expect(host.address == f"unix:{path}", host.address)
            expect(stat.S_IMODE(os.stat(path).st_mode) == 0o600, "others may connect to the socket")
            expect_echo(client, "a Unix socket")
            with Host(tools, target, *listen) as second:
                second.expect_status(5)
            host.stop(number, status)
            expect(os.path.exists(path) == (number == signal.SIGKILL), "the socket")
    for options in (["--port-file", path], listen):
        with Host(tools, target, *options) as older:
            expect(older.address and stat.S_IMODE(os.stat(path).st_mode) == 0o600, f"{options}: others may write to it")
            os.unlink(path)
            with Host(tools, target, *options) as newer:
                expect(newer.address, "it did not start")
                older.stop()
                expect(os.path.exists(path), f"{options}: the newer one's was removed")
                newer.stop()
                expect(not os.path.exists(path), f"{options}: it was left behind")
    with Host(tools, target, "--background", "--port-file", path) as host:
        host.expect_status(0)
        address, number = host.out.text().split()
        expect(host.err.text() == "" and os.getsid(int(number)) == int(number), host.err.text())
        with connect(address) as client:
            expect_echo(client, "the one in the background")
        os.kill(int(number), signal.SIGTERM)
        eventually(lambda: not os.path.exists(path), "the one in the background goes on")


def told(host, **wanted):
    """Waits for an event that has these."""
    def events():
        every = [json.loads(line) for line in host.out.text().splitlines()]
        return [event for event in every if wanted.items() <= event.items()]
    return eventually(events, f"no event {wanted} follows {host.out.text()}")[0]


def tells(tools):
    """Scripts, service managers and whoever reads its log hear how it is; one that stalls holds up nothing."""
    target = Target()
    tells_managers(tools, target)
    ready, log = f"{tools.folder}/ready", f"{tools.folder}/log"
    with Host(tools, target, "--ready-fd", "3", "--log-file", log, "--log-format", "json", "--stats", "100ms",
              through=["sh", "-c", f'exec 3>{ready}; exec "$@"', "sh"]) as host:
        eventually(lambda: host.address + "\n" == read(ready), "nobody was told that it is ready")
        host.expect(host.err, "0 open, 0 in all; 0 B sent")
        host.stop()
        line = json.loads(read(log).splitlines()[0])
        expect((line["level"], line["message"]) == ("info", "0 open, 0 in all; 0 B sent, 0 B received"), line)
    listens(tools, target)
    stalls(tools, target)
    older = "@PEER | { read -r line; echo GX-SSH-PEER-CAN flow-control; exec cat; }"
    for through, form, status, words in (
            ("echo Welcome; exec @PEER", ["--json"], 0, (
                '"usable":1', '"noise":"Welcome\\\\n', "round_trip_median_ms", '"bytes_survive":1', '"queued_ms"',
                "there_bytes_per_second", "back_bytes_per_second", "both_bytes_per_second")),
            (older, [], 0, ("rate back   unknown: ", "both ways")),
            ("@PEER | stdbuf -o0 tr '\\200-\\356' '\\201-\\357'", ["--json"], 4, (
                '"bytes_survive":0', "byte 0x80 comes back as 0x81"))):
        done = run_to_the_end([tools.gx_ssh, "--probe", *form, "--", "sh", "-c",
                               through.replace("@PEER", tools.gx_ssh_peer)])
        judge(through, done, status, "")
        expect(all(word in done.stdout.decode() for word in words), done.stdout)
        if '"usable":1' in words:
            expect(json.loads(done.stdout)["round_trip_median_ms"] <= 2000, done.stdout)  # all pings have 2 s


def tells_managers(tools, target):
    """By events, by the port file, at a signal, and as systemd wants to be told."""
    with socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM) as manager:
        manager.bind(f"{tools.folder}/notify")
        heard = queue.SimpleQueue()

        def hears():  # gx-ssh waits while the socket is full, which a few words fill
            with contextlib.suppress(OSError):
                while True:
                    heard.put(manager.recv(1000))

        def notified(word):
            while "systemd" in libraries and heard.get(timeout=READY_S) != word:
                pass

        threading.Thread(target=hears, daemon=True).start()
        libraries = run_to_the_end(["ldd", tools.gx_ssh]).stdout.decode()
        with Host(tools, target, "--json", "--stats", "50ms", "--port-file", f"{tools.folder}/port", through=[
                "env", f"NOTIFY_SOCKET={tools.folder}/notify", "WATCHDOG_USEC=200000"]) as host:
            told(host, event="link", state="up")
            told(host, event="listening")
            with connect(read(f"{tools.folder}/port").strip()) as client:
                expect_echo(client, "the port of the file")
            told(host, event="open", connection=1)
            host.expect(host.out, '"line_round_trip_ms":[0-9.]+,"line_under_way":')
            expect("seconds" in told(host, event="close", connection=1, sent=5, received=5), host.out.text())
            host.signal(signal.SIGUSR1)
            host.expect(host.err, "received")
            for word in (b"STATUS=the link is up", b"READY=1", b"WATCHDOG=1", b"WATCHDOG=1"):
                notified(word)
            host.stop()
            notified(b"STOPPING=1")
            told(host, event="stats", open=0, connections=1, sent=5, received=5)
            told(host, event="exit", reason="stopped", status=0)


def listens(tools, target):
    """At the sockets of a service manager: early callers are served, and the sockets stay when it has ended."""
    path = f"{tools.folder}/socket"
    with socket.socket(socket.AF_UNIX) as local, socket.create_server(("127.0.0.1", 0)) as port, \
            socket.create_server(("0.0.0.0", 0)) as everywhere:
        local.bind(path)
        local.listen()
        one, other = port.getsockname()[1], everywhere.getsockname()[1]
        # From 100 on, since the shell knows the numbers below 10 only.
        passed = [fcntl.fcntl(each, fcntl.F_DUPFD, 100) for each in (local, port, everywhere)]
        moved = f"exec 3<&{passed[0]} 4<&{passed[1]} 5<&{passed[2]}; "
        activation = {"pass_fds": passed, "through": [
            "bash", "-c", moved + 'LISTEN_PID=$$ LISTEN_FDS=3 exec "$@"', "bash"]}
        forwarded = ["-L", f"{one}:@TARGET", "-L", f"*:{other}:@TARGET"]
        with connect(f"unix:{path}") as early:
            with Host(tools, target, "--listen", f"unix:{path}", *forwarded, **activation) as host:
                expect_echo(early, "who has called before")
                expect(host.addresses(2) == [f"unix:{path}", f"127.0.0.1:{one}"], host.out.text())
                for number in (one, other):
                    with connect(f"127.0.0.1:{number}") as client:
                        expect_echo(client, "the socket of the port")
        connect(f"unix:{path}").close()
        with Host(tools, target, "--listen", f"unix:{path}", **activation) as forgetful:
            forgetful.expect_status(5)
            forgetful.expect(forgetful.err, f"the service manager listens at 127.0.0.1:{one}")
        for each in passed:
            os.close(each)


def stalls(tools, target):
    """Nobody reads its events, or its words."""
    there, here = os.pipe()
    os.write(here, bytes(fcntl.fcntl(here, fcntl.F_GETPIPE_SZ)))
    said = f"{tools.folder}/said"
    loud = READY + f"yes $(printf %01000d) | head -n 200 >&2; echo >{said}; " + SILENT
    for descriptor, options, more in ((1, ["--json", "--port-file", said], {}), (2, [], {"shell": loud})):
        with Host(tools, target, *options, **more, through=[
                "sh", "-c", f'exec "$@" {descriptor}>/proc/{os.getpid()}/fd/{here}', "sh"]) as host:
            eventually(lambda: os.path.exists(said), f"it waits for the reader of {descriptor}")
            host.stop()
    os.close(there)
    os.close(here)


def surroundings(tools):
    """What the carrier says, and what it inherits; one that has become another user is left, and gx-ssh says so."""
    target = Target()
    with Host(tools, target, shell="printf '\\033[1m\\nSchl\\303\\274ssel: ' >&2; cat >&2") as host:
        host.expect(host.err, r"^gx-ssh: sh: \\x1b\[1m$")
        host.expect(host.err, "^gx-ssh: sh: Schlüssel: GX-SSH-HOST")  # the rest of that line
    # A carrier has the limit of descriptors that gx-ssh had, three descriptors, and no blocked or ignored signal.
    looks = "ulimit -Sn >&2; grep -E '^Sig(Blk|Ign)' /proc/self/status | tr '\\t' ' ' >&2; exec ls /proc/self/fd >&2"
    done = run_to_the_end(["sh", "-c", "ulimit -Sn 500; trap '' TERM; exec \"$@\"", "sh", tools.gx_ssh, "--raw",
                           "--listen", "127.0.0.1:0", "--", "sh", "-c", looks])
    seen = done.stderr.decode().split()
    expect("500" in seen and seen.count("0" * 16) == 2 and "3" in seen and "4" not in seen, seen)
    # On a socket bash takes itself for a remote shell and reads .bashrc, whose output would come before the ready line.
    write(f"{tools.folder}/.bashrc", "echo read\n")
    path = f"{tools.folder}/socket"
    with Host(tools, target, "-q", "--listen", f"unix:{path}", "--run", "echo ${GX_SSH_PORT-none} $GX_SSH_ADDR",
              far_side=["--", "bash", "-c", READY + "cat >/dev/null; test $SHLVL = 2"],
              through=["env", "-u", "SHLVL", "GX_SSH_PORT=1", f"HOME={tools.folder}"]) as host:
        host.expect_status(0)
        expect(host.out.text() == f"none unix:{path}", host.out.text())
    if os.geteuid() == 0:
        cannot_be_ended(tools)


def cannot_be_ended(tools):
    """The carrier has become another user, and the end of its input means nothing to it."""
    rights = "+setuid,+dac_override"  # to become another user and to read the programs, but not to end processes
    with Child(["setpriv", "--reuid=65534", f"--inh-caps={rights}", f"--ambient-caps={rights}", tools.gx_ssh, "--raw",
                "--", "setpriv", "--reuid=65533", "sleep", "600"]) as host:
        host.expect(host.out, ADDRESS)
        host.signal(signal.SIGTERM)
        left = host.expect(host.err, r'cannot end "setpriv": process (\d+) goes on: Operation not permitted')
        os.kill(int(left.group(1)), signal.SIGKILL)
        host.expect_status(0)


def plays(tools, places, options, greeting, sent, came, said):
    def wire(frames):
        return b"".join(frame(kind, number, fill(text, places).encode("latin-1")) for kind, number, text in frames)

    done = run_to_the_end([tools.gx_ssh_peer, *(fill(word, places) for word in options)], input=greeting + wire(sent))
    errors = done.stderr.decode()
    expect(done.returncode == 0 and done.stdout.endswith(wire(came)), f"{options}: {done!r:.999}")
    wanted = [fill(words, places) for words in said]
    expect(all(words in errors for words in wanted) and errors.count("\n") <= 101, f"{options} told {errors!r:.999}")
    expect(max(map(len, errors.splitlines()), default=0) < 1000, f"{options} told a long line")


def peers(tools):
    """gx-ssh-peer by itself: what it leaves behind, how it ends, and names that only its cache knows."""
    target = Target()
    # The one connection fills the queue.
    with socket.create_server(("127.0.0.1", 0), backlog=0) as silent, socket.create_connection(silent.getsockname()):
        places = {"@TARGET": target.address, "@SILENT": "%s:%d" % silent.getsockname()}
        for row in PEER_FRAMES:
            plays(tools, places, *row)
    theirs, ours = os.pipe()
    os.write(ours, b"\x1b[1mwho are you?")
    done = run_to_the_end([tools.gx_ssh_peer, "--connect-timeout", "500ms"], stdin=theirs)
    judge("silence", done, 4, "within 500ms", r"\x1b[1mwho are you")
    # The open file may be shared with a shell, which does not expect to find it non-blocking.
    with Child(["bash", "-c", f'exec "$@" <&{theirs}', "bash", tools.gx_ssh_peer, "--raw"], pass_fds=[theirs]) as peer:
        os.write(ours, frame(PING, 0, b"8 bytes\n"))
        peer.expect(peer.out, "8 bytes$")
        peer.signal(signal.SIGTERM)
        peer.expect_status(0)
        expect(os.get_blocking(theirs), "it left its input non-blocking")
        os.close(ours)
    os.close(theirs)
    unread, closed = os.pipe()
    os.close(unread)
    done = run_to_the_end([tools.gx_ssh_peer], capture_output=False, input=b"", stdout=closed, stderr=subprocess.PIPE)
    expect((done.returncode, done.stderr) == (1, b""), "with nobody to read its output it said", done)
    os.close(closed)
    caches_names(tools, target.address.rpartition(":")[2])


def caches_names(tools, port):
    cache, here = f"{tools.folder}/names", socket.gethostname()
    write(cache, json.dumps({"cache": [
        {"name": "known.invalid", "ips": ["127.0.0.1", "2001:db8::1"], "timestamp": 1}]}))
    names = ("known.invalid", here, "other.invalid")
    allowed = [word for name in ("127.0.0.1", *names) for word in ("--allow", f"{name}:{port}")]
    with Child(["env", "RES_OPTIONS=timeout:1 attempts:1", tools.gx_ssh_peer, "--raw", "-v", "--dns-cache", cache,
                *allowed]) as peer:
        for number, name in enumerate(names):
            peer.stdin.buffer.write(frame(CONNECT, number, f"{name}:{port}".encode()))
        peer.stdin.buffer.flush()
        for what in ("0 to known.invalid.* is open", f"1 to {here}.* (is|could) ", "2 to other.invalid.* could not "):
            peer.expect(peer.err, f"connection {what}")
        peer.stdin.close()
        peer.expect_status(0)
    expect("known.invalid" in read(cache) and "other" not in read(cache), read(cache))
    with contextlib.suppress(socket.gaierror):
        expect(socket.gethostbyname(here) and f'"{here}"' in read(cache), read(cache))


SCENARIOS = {each.__name__: each for each in (bad_far_sides, ends, names, tells, surroundings, peers)}
