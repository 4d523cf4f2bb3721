"""ssh and scp through carriers as people have them, with nothing of gx-ssh at their far end: for scripts/long-tests.

As root, since that is what a chroot, another user and a folder of that user take.
"""

import contextlib
import os
import pwd
import secrets
import shlex
import shutil
import subprocess
import sys
import tempfile

import virtual_machine
from bringing import HERE
from hosts import Host, Target, tunnel
from terminal import INTERRUPT, Terminal
from throwaway import Child, Clients, expect, run, write, write_script

LONG_S = 900  # ssh's own time-out counts the transfer of the peer, too
SERIAL = "import time\nterminal = True\nthere = back = lambda b: time.sleep(len(b) * 10 / 115200) or b"


class Brought(Clients):
    """ssh through gx-ssh --bring, and through a carrier to a shell."""

    def __init__(self, tools, server, *carrier, options=(), port=None):
        program = f"{server.folder}/brought"
        super().__init__(server, "HostName 127.0.0.1", f"Port {port or server.port}", f"ConnectTimeout {LONG_S}",
                         f"ProxyCommand {program} %h:%p")
        write_script(f"{server.folder}/carrier", shlex.join(["exec", *carrier]))
        write_script(program, " ".join([f'exec "{tools.gx_ssh}" -W "$1" --bring', *options, "--",
                                        f"{server.folder}/carrier"]))

    def carries(self, size, folder=None):
        """The first session sends the peer, a second one and two copies do not. `folder` is one over there."""
        for sends in (True, False):
            said = self.expect_command(LONG_S)
            expect(("sends gx-ssh-peer" in said) == sends, f"sends: {sends}, but it said {said}")
        self.expect_copies(size, folder)


def into_a_chroot(tools, server):
    """Busybox only and no /proc, with processes, mounts and users of its own."""
    root = f"{server.folder}/box"
    os.makedirs(f"{root}/home")
    virtual_machine.fill_with_busybox(f"{root}/bin")
    Brought(tools, server, "unshare", "--user", "--map-root-user", "--pid", "--fork",
            f"--root={root}", "env", "-i", "HOME=/home", "PATH=/bin", "sh").carries(1 << 20)
    expect(len(os.listdir(f"{root}/home/.cache/gx-ssh")) == 1, "there is not one peer in the chroot")


def over_a_serial_line(tools, server):
    """A terminal at 115200 baud, one way at a time; and such a line that loses the eighth bit."""
    home = f"{server.folder}/home"
    os.mkdir(home)
    line = [sys.executable, "-B", f"{HERE}/filter.py"]
    shell = ["env", "-i", f"HOME={home}", "PATH=/usr/bin:/bin", "sh"]
    Brought(tools, server, *line, SERIAL, *shell).carries(16 << 10)
    seven = "terminal = True\nthere = lambda b: bytes(x & 127 for x in b)"
    with Child(Brought(tools, server, *line, seven, *shell).command("ssh", "far", "true")) as session:
        session.expect(session.err, "the line changes bytes on the way there", LONG_S)
        session.expect_status(255)


def over_ssh(tools, server):
    """A login over ssh without a terminal, to its login shell."""
    direct = Clients(server, "HostName 127.0.0.1", f"Port {server.port}")
    Brought(tools, server, *direct.command("ssh", "-T", "far"),
            options=("--bring-dir", f"{server.folder}/peers")).carries(1 << 20)


def as_another_user(tools, server):
    """Through su to a user with a home folder, and to one without: there it lies in /tmp while it starts."""
    nobody = pwd.getpwnam("nobody")
    su = ["su", "-s", "/bin/sh", nobody.pw_name]
    with tempfile.TemporaryDirectory(prefix="gx-ssh-") as home:
        os.chown(home, nobody.pw_uid, nobody.pw_gid)
        Brought(tools, server, *su, options=("--bring-dir", f"{home}/peers")).carries(1 << 20)
    homeless = Brought(tools, server, *su)
    for _ in range(2):
        expect("sends gx-ssh-peer" in homeless.expect_command(), "nothing was sent")


@contextlib.contextmanager
def who_may_ask(password):
    """A user of this computer whom sudo asks for a password, each time, and lets become nobody."""
    name = f"gx-ssh-{secrets.token_hex(4)}"
    rule = f"/etc/sudoers.d/{name}"
    try:
        run(["useradd", "--no-create-home", "--no-user-group", "--gid", "nogroup", "--shell", "/bin/sh", name])
        subprocess.run(["chpasswd"], input=f"{name}:{password}", text=True, check=True)
        with open(os.open(rule, os.O_WRONLY | os.O_CREAT | os.O_EXCL, 0o440), "w", encoding="ascii") as file:
            file.write(f"Defaults:{name} lecture=never, timestamp_timeout=0\n{name} ALL=(nobody) ALL\n")
        yield name
    finally:
        with contextlib.suppress(FileNotFoundError):
            os.unlink(rule)
        run(["userdel", "--force", name])


def through_sudo(tools, server):
    """By a user who is asked for a password on the terminal: wrong and right answers, and the key that ends it all."""
    if not shutil.which("sudo"):
        print("not tried, since there is no sudo", flush=True)
        return
    with tempfile.TemporaryDirectory(prefix="gx-ssh-") as folder, who_may_ask("secret") as name:
        os.chmod(folder, 0o755)
        # That user may not read what was built here.
        built = os.path.dirname(os.path.dirname(os.path.dirname(tools.gx_ssh)))
        program, module, peers = (shutil.copy(tools.gx_ssh, folder),
                                  shutil.copy(f"{built}/src/module/libgx-control-ssh.so", folder),
                                  shutil.copytree(f"{built}/tools/peer/peers", f"{folder}/peers"))
        asked = ["setpriv", f"--reuid={name}", "--regid=nogroup", "--init-groups", program, "--module", module,
                 "--peer-dir", peers, "--target", server.address, "--bring", "--", "sudo", "-u", "nobody", "sh"]
        for answers, status in ((["wrong\n", "secret\n", None], 0), (["wrong\n"] * 3, 4), ([INTERRUPT], 0)):
            with Terminal(*asked) as terminal:
                for answer in answers:
                    terminal.expect(f"password for {name}: " if answer else "127.0.0.1:")
                    if answer:
                        terminal.type(answer)
                        continue
                    clients = Clients(server, "HostName 127.0.0.1", f"Port {int(terminal.expect(chr(13)))}")
                    clients.expect_command()
                    terminal.type(INTERRUPT)
                terminal.expect_status(status)


def into_a_virtual_machine(tools, server):
    """No network leads there, only a virtio-serial port with a shell."""
    if not virtual_machine.kernel():
        print(f"not tried, since it takes {virtual_machine.NEEDED}", flush=True)
        return
    machine, shell = virtual_machine.start(f"{server.folder}/machine", server)
    with machine:
        carrier = [tools.gx_ssh, "--connect", f"unix:{shell}"]
        AfterOneAnother(machine, tools, server, *carrier, port=22).carries(1 << 20, "/tmp")


class AfterOneAnother(Brought):
    """The port does not keep sessions apart: one begins when the last one's far side has ended."""

    def __init__(self, machine, *arguments, **options):
        super().__init__(*arguments, **options)
        self.machine = machine

    def command(self, program, *arguments):
        shells = self.machine.out.text().count("shell ")
        self.machine.expect(self.machine.out, f"^shell {shells + 1}$")
        return super().command(program, *arguments)


# Who runs each of them here.
FOREIGN = {"aarch64": "qemu-aarch64", "armv7": "qemu-arm", "riscv64": "qemu-riscv64"}
PEERS = os.path.abspath(f"{HERE}/../../build/peers")


def foreign_peers(tools, server):
    """Each static peer that scripts/foreign-peers has built carries a command and a large copy, run by qemu."""
    tried = []
    for architecture, emulator in FOREIGN.items():
        peer = f"{PEERS}/{architecture}/gx-ssh-peer"
        if not os.path.exists(peer) or not shutil.which(emulator):
            print(f"{architecture}: left out; it takes what scripts/foreign-peers tells, and qemu-user", flush=True)
            continue
        looks_names_up(tools, server, emulator, peer)
        with tunnel(tools, server, far_side=["--", emulator, peer, "--allow", server.address]) as clients:
            clients.expect_command()
            clients.expect_copies(8 << 20)
        tried.append(f"{architecture}, {os.path.getsize(peer)} bytes")
    print("; ".join(tried) or "not tried, since there is none", flush=True)


def looks_names_up(tools, server, *peer):
    """Localhost in any case, and a name of the hosts file; a peer that knows no other name says so."""
    target = Target()
    knows_names = "names: localhost" not in run([*peer, "--version"])
    hosts = f"{server.folder}/hosts"
    write(hosts, "127.0.0.1 box.example\n")
    there = ["unshare", "--mount", "sh", "-c", f'mount --bind "{hosts}" /etc/hosts && exec "$@"', "sh", *peer]
    ways = {"localhost": peer} | ({"box.example": there} if knows_names and os.geteuid() == 0 else {})
    for name, way in ways.items():
        named = target.address.replace("127.0.0.1", name)
        allowed = ["--allow", named, "--allow", target.address]
        with Host(tools, target, "-W", named, far_side=["--", *way, *allowed]) as host:
            host.converse()
    if not knows_names:
        with Host(tools, target, "-W", "box:9", far_side=["--", *peer, "--allow", "box:9"]) as host:
            host.expect_status(1)
            expect("built to ask no name servers" in host.err.text(), f"it said {host.err.text()}")


SCENARIOS = {each.__name__: each for each in (into_a_chroot, into_a_virtual_machine, over_a_serial_line, over_ssh,
                                              as_another_user, through_sudo, foreign_peers)}
