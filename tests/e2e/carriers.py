"""For scripts/long-tests, as root: ssh and scp through carriers as people have them, with nothing of gx-ssh there."""

import contextlib
import glob
import os
import pwd
import re
import shlex
import shutil
import sys
import tempfile

from bringing import BUSYBOX, HERE
from hosts import Host, Target, tunnel
from throwaway import Child, Clients, expect, run, run_to_the_end, write, write_script

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


def fill_with_busybox(folder):
    os.makedirs(folder)
    for name in run([BUSYBOX, "--list"]).split():
        os.symlink("busybox", f"{folder}/{name}")
    os.unlink(f"{folder}/busybox")
    shutil.copy(BUSYBOX, folder)


def into_a_chroot(tools, server):
    """Busybox only and no /proc, with processes, mounts and users of its own."""
    root = f"{server.folder}/box"
    os.makedirs(f"{root}/home")
    fill_with_busybox(f"{root}/bin")
    Brought(tools, server, "unshare", "--user", "--map-root-user", "--pid", "--fork",
            f"--root={root}", "env", "-i", "HOME=/home", "PATH=/bin", "sh").carries(1 << 20)
    expect(len(os.listdir(f"{root}/home/.cache/gx-ssh")) == 1, "there is not one peer in the chroot")


def over_a_serial_line(tools, server):
    """A terminal at 115200 baud, one way at a time; a line too slow to measure."""
    home = f"{server.folder}/home"
    os.mkdir(home)
    line = [sys.executable, "-B", f"{HERE}/filter.py"]
    shell = ["env", "-i", f"HOME={home}", "PATH=/usr/bin:/bin", "sh"]
    Brought(tools, server, *line, SERIAL, *shell).carries(16 << 10)
    slow = SERIAL.replace("115200", "9600").replace("terminal = True\n", "")
    probe = run_to_the_end([tools.gx_ssh, "--probe", "--", *line, slow, tools.gx_ssh_peer], timeout=LONG_S)
    expect(b"\ncut short   the rate there took more than 1" in probe.stdout and probe.returncode == 0, probe)


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


# What the virtual machine is made of.
EMULATOR = "qemu-system-x86_64"
BOOT_S = 300  # without KVM
NEEDED = (f"{EMULATOR} and a kernel: "
          "apt-get download linux-image-VERSION-amd64 && dpkg-deb -x linux-image-*.deb build/kernel")
# Each needs those before it; some kernels have them built in.
MODULES = ("virtio_ring", "virtio", "virtio_pci_legacy_dev", "virtio_pci_modern_dev", "virtio_pci", "virtio_console")
START = """
mount -t proc proc /proc; mount -t sysfs sys /sys; mount -t devtmpfs dev /dev
mkdir /dev/pts; mount -t devpts pts /dev/pts
for module in /lib/virtio/*.ko; do insmod $module; done
ip link set lo up
/usr/sbin/sshd -f /etc/sshd_config && echo up
"""
# A shell ends when its caller goes, or when nobody is there. The port stays open, so what comes before the next shell
# is kept. The console tells the number of each shell.
SHELL = """
export HOME=/root
exec <>/dev/vport0p1 >&0 2>&1
while n=$((n + 1)); echo "shell $n" >/dev/console; do sh; sleep 1; done
"""
INITTAB = "::sysinit:/etc/start\n::respawn:/etc/shell\n"


def newest_kernel():
    """Its image and the folder of its modules; None: there is none, or no emulator."""
    if not shutil.which(EMULATOR):
        return None
    for root in (os.path.abspath(f"{HERE}/../../build/kernel"), ""):
        for image in sorted(glob.glob(f"{root}/boot/vmlinuz-*"), reverse=True):
            modules = f"{root}/lib/modules/{os.path.basename(image).removeprefix('vmlinuz-')}"
            if os.path.isdir(modules):
                return image, modules
    return None


def copy_program(root, program):
    """With its libraries, where they lie here."""
    for file in [program, *re.findall(r"/\S+", run(["ldd", program]))]:
        os.makedirs(os.path.dirname(root + file), exist_ok=True)
        shutil.copy(file, root + file)


def make_root(root, modules, server):
    for folder in ("dev", "etc", "lib/virtio", "proc", "root", "run/sshd", "sys", "tmp"):
        os.makedirs(f"{root}/{folder}")
    fill_with_busybox(f"{root}/bin")
    os.symlink("bin/busybox", f"{root}/init")
    for number, name in enumerate(MODULES):
        for module in glob.glob(f"{modules}/kernel/drivers/*/{name}.ko"):
            shutil.copy(module, f"{root}/lib/virtio/{number}.ko")
    write_script(f"{root}/etc/start", START)
    write_script(f"{root}/etc/shell", SHELL)
    write(f"{root}/etc/inittab", INITTAB)
    write(f"{root}/etc/passwd", "root:x:0:0::/root:/bin/sh\nsshd:x:1:1::/run/sshd:/bin/false\n")
    write(f"{root}/etc/sshd_config", "ListenAddress 127.0.0.1\nHostKey /etc/host_key\n"
          "AuthorizedKeysFile /etc/user_key\nStrictModes no\nUseDNS no\nSubsystem sftp internal-sftp\n")
    shutil.copy(f"{server.folder}/host_key", f"{root}/etc/host_key")
    shutil.copy(f"{server.folder}/user_key.pub", f"{root}/etc/user_key")
    for program in ("/usr/sbin/sshd", *glob.glob("/usr/lib/openssh/sshd-*")):
        copy_program(root, program)


@contextlib.contextmanager
def virtual_machine(folder, server, image, modules):
    """One with that kernel, busybox and an SSH server, as a child, and the socket that leads to its shells."""
    make_root(f"{folder}/root", modules, server)
    archive, shell = f"{folder}/initramfs", f"{folder}/shell"
    run(["sh", "-c", f'cd "{folder}/root" && find . | {BUSYBOX} cpio -o -H newc >"{archive}"'])
    with Child([EMULATOR, "-nodefaults", "-no-user-config", "-display", "none", "-m", "256", "-no-reboot",
                "-kernel", image, "-initrd", archive, "-append", "console=ttyS0 quiet panic=-1",
                "-chardev", "stdio,id=console", "-serial", "chardev:console",
                "-chardev", f"socket,id=shell,path={shell},server=on,wait=off",
                "-device", "virtio-serial", "-device", "virtserialport,chardev=shell"]) as machine:
        machine.expect(machine.out, "^up$", BOOT_S)
        yield machine, shell


class AfterOneAnother(Brought):
    """The port does not keep sessions apart: one begins when the last one's far side has ended."""

    def __init__(self, machine, *arguments, **options):
        super().__init__(*arguments, **options)
        self.machine = machine

    def command(self, program, *arguments):
        shells = self.machine.out.text().count("shell ")
        self.machine.expect(self.machine.out, f"^shell {shells + 1}$")
        return super().command(program, *arguments)


def into_a_virtual_machine(tools, server):
    """No network leads there, only a virtio-serial port with a shell."""
    kernel = newest_kernel()
    if not kernel:
        print(f"not tried, since it takes {NEEDED}", flush=True)
        return
    with virtual_machine(f"{server.folder}/machine", server, *kernel) as (machine, shell):
        carrier = [tools.gx_ssh, "--connect", f"unix:{shell}"]
        AfterOneAnother(machine, tools, server, *carrier, port=22).carries(1 << 20, "/tmp")


# The emulator of each architecture.
FOREIGN = {"aarch64": "qemu-aarch64", "armv7": "qemu-arm", "riscv64": "qemu-riscv64"}


def foreign_peers(tools, server):
    """Each static peer that scripts/foreign-peers has built carries a command and a large copy, run by qemu."""
    tried = []
    for architecture, emulator in FOREIGN.items():
        peer = os.path.abspath(f"{HERE}/../../build/peers/{architecture}/gx-ssh-peer")
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
    """Localhost and, as root, a name of the hosts file; a peer that knows no other name says so."""
    target, ways, hosts = Target(), {"localhost": peer}, f"{server.folder}/hosts"
    if "names: localhost" in run([*peer, "--version"]):
        with Host(tools, target, "-W", "box:9", far_side=["--", *peer, "--allow", "box:9"]) as host:
            host.expect_status(1)
            expect("built to ask no name servers" in host.err.text(), f"it said {host.err.text()}")
    elif os.geteuid() == 0:
        write(hosts, "127.0.0.1 box.example\n")
        mounts = f'mount --bind "{hosts}" /etc/hosts && exec "$@"'
        ways["box.example"] = ["unshare", "--mount", "sh", "-c", mounts, "sh", *peer]
    for name, way in ways.items():
        named = target.address.replace("127.0.0.1", name)
        allowed = ["--allow", named, "--allow", target.address]
        with Host(tools, target, "-W", named, far_side=["--", *way, *allowed]) as host:
            host.converse()


SCENARIOS = {each.__name__: each for each in (into_a_chroot, into_a_virtual_machine, over_a_serial_line, over_ssh,
                                              as_another_user, foreign_peers)}
