#!/usr/bin/env python3
"""Builds the Debian packages, looks into them, and can install and purge them below a folder of its own."""

import argparse
import glob
import os
import tempfile

from tunnel import Failure, run


def check(holds, complaint):
    if not holds:
        raise Failure(complaint)


def files_below(folder):
    return {os.path.relpath(os.path.join(at, name), folder) for at, _, names in os.walk(folder) for name in names}


def without_gz(names):
    return {name.removesuffix(".gz") for name in names}


def look_into(package, scratch):
    """The files of one package that a plain installation has, too."""
    name, depends = (run(["dpkg-deb", "-f", package, field]).strip() for field in ("Package", "Depends"))
    check(("libgx-control-ssh (=" in depends) == (name in ("gx-ssh", "libgxmod-dev")), f"{name} depends on {depends}")
    for line in run(["dpkg-deb", "-c", package]).splitlines():
        mode, owner = line.split()[:2]
        check(owner == "root/root" and mode[5] != "w" and mode[8] != "w", f"{name}: {line}")
    run(["dpkg-deb", "-x", package, f"{scratch}/{name}"])
    files = files_below(f"{scratch}/{name}")
    own = {f"usr/share/doc/{name}/copyright", f"usr/share/doc/{name}/changelog.Debian.gz"}
    check(own <= files, f"{name} has {files}")
    for file in files:
        check("/man/" not in file or file.endswith(".gz"), f"{name}: {file} is not compressed")
    return files - own


def install_and_purge(packages, root):
    for folder in ("info", "updates"):
        os.makedirs(f"{root}/var/lib/dpkg/{folder}")
    open(f"{root}/var/lib/dpkg/status", "w", encoding="ascii").close()
    dpkg = ("dpkg", f"--root={root}", "--force-depends", "--log=/dev/null")
    for _ in ("first", "over itself"):
        run([*dpkg, "-i", *packages])
    told = run([f"{root}/usr/bin/gx-ssh", "--version"])
    check(f"({root}/usr/lib" in told, f"the installed gx-ssh says {told}")
    run([*dpkg, "--purge", *(run(["dpkg-deb", "-f", package, "Package"]).strip() for package in packages)])
    left = [name for name in os.listdir(root) if name != "var"]
    check(not left, f"left behind: {left}")


def main():
    parser = argparse.ArgumentParser(description=__doc__)
    for name in ("--build", "--cmake", "--cpack"):
        parser.add_argument(name, required=True)
    parser.add_argument("--install", action="store_true", help="as root, of a tree that was configured for /usr")
    arguments = parser.parse_args()

    with tempfile.TemporaryDirectory(dir=os.path.abspath(arguments.build)) as scratch:
        run([arguments.cpack, "--config", f"{arguments.build}/CPackConfig.cmake", "-B", f"{scratch}/debs", "-D", "CPACK_DEBIAN_COMPRESSION_TYPE=gzip"])
        packages = sorted(glob.glob(f"{scratch}/debs/*.deb"))
        contents = [look_into(package, scratch) for package in packages]
        run([arguments.cmake, "--install", arguments.build, "--prefix", f"{scratch}/tree/usr"])
        installed = files_below(f"{scratch}/tree")
        packed = set().union(*contents)
        check(sum(map(len, contents)) == len(packed), "a file is in two packages")
        installed = without_gz(installed)
        check(without_gz(packed) == installed, f"in one only: {without_gz(packed) ^ installed}")
        if arguments.install:
            install_and_purge(packages, f"{scratch}/root")


main()
