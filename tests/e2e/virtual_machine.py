"""A virtual machine with Debian's kernel, busybox and an SSH server, and no network: for scripts/long-tests."""

import glob
import os
import re
import shutil
import subprocess

from bringing import BUSYBOX, HERE
from throwaway import Child, run, write, write_script

EMULATOR = "qemu-system-x86_64"
BOOT_S = 300  # without KVM
NEEDED = (f"{EMULATOR} and a kernel: "
          "apt-get download linux-image-VERSION-amd64 && dpkg-deb -x linux-image-*.deb build/kernel")
# In the order in which they stand on one another; some kernels have them built in.
MODULES = ("virtio_ring", "virtio", "virtio_pci_legacy_dev", "virtio_pci_modern_dev", "virtio_pci", "virtio_console")
START = """
mount -t proc proc /proc; mount -t sysfs sys /sys; mount -t devtmpfs dev /dev
mkdir /dev/pts; mount -t devpts pts /dev/pts
for module in /lib/virtio/*.ko; do insmod $module; done
ip link set lo up
/usr/sbin/sshd -f /etc/sshd_config && echo up
"""
# A shell ends with the one who came from outside, or when nobody is there; the port stays open, so that nothing is lost
# that comes before the next shell. The console tells of each.
SHELL = """
export HOME=/root
exec <>/dev/vport0p1 >&0 2>&1
while n=$((n + 1)); echo "shell $n" >/dev/console; do sh; sleep 1; done
"""
INITTAB = "::sysinit:/etc/start\n::respawn:/etc/shell\n"


def kernel():
    """The newest one, and the folder of its modules; None: there is none, or no emulator."""
    if not shutil.which(EMULATOR):
        return None
    for root in (os.path.abspath(f"{HERE}/../../build/kernel"), ""):
        for image in sorted(glob.glob(f"{root}/boot/vmlinuz-*"), reverse=True):
            modules = f"{root}/lib/modules/{os.path.basename(image).removeprefix('vmlinuz-')}"
            if os.path.isdir(modules):
                return image, modules
    return None


def fill_with_busybox(folder):
    os.makedirs(folder)
    for name in run([BUSYBOX, "--list"]).split():
        os.symlink("busybox", f"{folder}/{name}")
    os.unlink(f"{folder}/busybox")
    shutil.copy(BUSYBOX, folder)


def copy_program(root, program):
    """With its libraries, where they lie here."""
    for file in [program, *re.findall(r"/\S+", run(["ldd", program]))]:
        os.makedirs(os.path.dirname(root + file), exist_ok=True)
        shutil.copy(file, root + file)


def make_root(root, modules, server):
    """`server` gives the keys."""
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
    write(f"{root}/etc/sshd_config", "ListenAddress 127.0.0.1\nHostKey /etc/host_key\nAuthorizedKeysFile /etc/user_key\n"
          "StrictModes no\nUseDNS no\nSubsystem sftp internal-sftp\n")
    shutil.copy(f"{server.folder}/host_key", f"{root}/etc/host_key")
    shutil.copy(f"{server.folder}/user_key.pub", f"{root}/etc/user_key")
    for program in ("/usr/sbin/sshd", *glob.glob("/usr/lib/openssh/sshd-*")):
        copy_program(root, program)


def start(folder, server):
    """As a child that runs until it is killed, and the path of the socket that leads to its shells."""
    image, modules = kernel()
    make_root(f"{folder}/root", modules, server)
    archive, shell = f"{folder}/initramfs", f"{folder}/shell"
    with open(archive, "wb") as output:
        names = subprocess.run(["find", "."], cwd=f"{folder}/root", check=True, capture_output=True).stdout
        subprocess.run([BUSYBOX, "cpio", "-o", "-H", "newc"], cwd=f"{folder}/root", input=names, stdout=output,
                       stderr=subprocess.DEVNULL, check=True)
    machine = Child([EMULATOR, "-nodefaults", "-no-user-config", "-display", "none", "-m", "256", "-no-reboot",
                     "-kernel", image, "-initrd", archive, "-append", "console=ttyS0 quiet panic=-1",
                     "-chardev", "stdio,id=console", "-serial", "chardev:console",
                     "-chardev", f"socket,id=shell,path={shell},server=on,wait=off",
                     "-device", "virtio-serial", "-device", "virtserialport,chardev=shell"])
    try:
        machine.expect(machine.out, "^up$", BOOT_S)
    except BaseException:
        machine.__exit__()
        raise
    return machine, shell
