"""The static gx-ssh-peer, in a folder that holds nothing else. Arguments: gx-ssh and that program."""

import os
import shutil
import struct
import sys
import tempfile

from tunnel import TARGET, check_tunnel, expect, run, run_to_the_end

LIMIT_BYTES = 3_000_000

gx_ssh, peer = sys.argv[1:]
with tempfile.TemporaryDirectory() as folder:
    copy = shutil.copy(peer, f"{folder}/gx-ssh-peer")
    run(["strip", copy])
    expect(os.path.getsize(copy) <= LIMIT_BYTES, os.path.getsize(copy), "bytes, stripped")

    alone, name = [copy], b"localhost:9"
    if os.geteuid() == 0:
        alone, name = ["chroot", folder, "/gx-ssh-peer"], b"box:9"
    check_tunnel(gx_ssh, "--target", TARGET, "--", *alone, "--allow", TARGET)

    os.mkdir(f"{folder}/etc")
    with open(f"{folder}/etc/hosts", "w", encoding="ascii") as hosts:
        hosts.write("127.0.0.1 box\n")
    done = run_to_the_end([*alone, "--raw", "--allow", name, "--allow", "localhost:9"],
                          input=struct.pack("<IIIB3x", 0, len(name), 1, 1) + name)
    expect(done.returncode == 0 and b"Connection refused" in done.stderr, "asked for a name:", done)
