#!/usr/bin/env python3
"""The static gx-ssh-peer, in a folder that holds nothing else."""

import argparse
import os
import shutil
import struct
import subprocess
import tempfile

from tunnel import TARGET, Failure, check_tunnel, interrupt, run

LIMIT_BYTES = 3_000_000


def main():
    parser = argparse.ArgumentParser(description=__doc__)
    parser.add_argument("gx_ssh")
    parser.add_argument("peer")
    arguments = parser.parse_args()

    with tempfile.TemporaryDirectory() as folder:
        copy = f"{folder}/gx-ssh-peer"
        shutil.copy(arguments.peer, copy)
        run(["strip", copy])
        if os.path.getsize(copy) > LIMIT_BYTES:
            raise Failure(f"{os.path.getsize(copy)} bytes, stripped")

        alone = ["chroot", folder, "/gx-ssh-peer"] if os.geteuid() == 0 else [copy]
        check_tunnel(interrupt, [arguments.gx_ssh, "--target", TARGET, "--", *alone, "--allow", TARGET])

        os.mkdir(f"{folder}/etc")
        with open(f"{folder}/etc/hosts", "w") as hosts:
            hosts.write("127.0.0.1 box\n")
        name = b"box:9" if os.geteuid() == 0 else b"localhost:9"
        connect = struct.pack("<IIIB3x", 0, len(name), 1, 1) + name
        peer = subprocess.run([*alone, "--raw", "--allow", name, "--allow", "localhost:9"], input=connect, capture_output=True, timeout=60)
        if peer.returncode != 0 or b"Connection refused" not in peer.stderr:
            raise Failure(f"asked for a name: status {peer.returncode}, {peer.stderr}")


main()
