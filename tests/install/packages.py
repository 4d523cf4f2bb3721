"""Builds the Debian packages, looks into them, and can install and purge them below a folder of its own.

Arguments: the build's folder, cmake and cpack; then --install, as root, of a tree that was configured for /usr.
"""

import glob
import os
import sys
import tempfile

from tunnel import expect, run


def files_below(folder):
    return {os.path.relpath(os.path.join(at, name), folder) for at, _, names in os.walk(folder) for name in names}


def without_gz(names):
    return {name.removesuffix(".gz") for name in names}


def look_into(package, scratch):
    """The files of one package that a plain installation has, too."""
    name, depends = (run(["dpkg-deb", "-f", package, field]).strip() for field in ("Package", "Depends"))
    expect(("libgx-control-ssh (=" in depends) == (name in ("gx-ssh", "libgxmod-dev")), f"{name} depends on {depends}")
    for line in run(["dpkg-deb", "-c", package]).splitlines():
        mode, owner = line.split()[:2]
        expect(owner == "root/root" and mode[5] != "w" and mode[8] != "w", f"{name}: {line}")
    run(["dpkg-deb", "-x", package, f"{scratch}/{name}"])
    files = files_below(f"{scratch}/{name}")
    own = {f"usr/share/doc/{name}/copyright", f"usr/share/doc/{name}/changelog.Debian.gz"}
    expect(own <= files, f"{name} has {files}")
    for file in files:
        expect("/man/" not in file or file.endswith(".gz"), f"{name}: {file} is not compressed")
    return files - own


def install_and_purge(packages, root):
    for folder in ("info", "updates"):
        os.makedirs(f"{root}/var/lib/dpkg/{folder}")
    open(f"{root}/var/lib/dpkg/status", "w", encoding="ascii").close()
    dpkg = ("dpkg", f"--root={root}", "--force-depends", "--log=/dev/null")
    for _ in ("first", "over itself"):
        run([*dpkg, "-i", *packages])
    told = run([f"{root}/usr/bin/gx-ssh", "--version"])
    expect(f"({root}/usr/lib" in told, f"the installed gx-ssh says {told}")
    run([*dpkg, "--purge", *(run(["dpkg-deb", "-f", package, "Package"]).strip() for package in packages)])
    left = [name for name in os.listdir(root) if name != "var"]
    expect(not left, f"left behind: {left}")


build, cmake, cpack, *install = sys.argv[1:]
with tempfile.TemporaryDirectory(dir=os.path.abspath(build)) as scratch:
    run([cpack, "--config", f"{build}/CPackConfig.cmake", "-B", f"{scratch}/debs", "-D",
         "CPACK_DEBIAN_COMPRESSION_TYPE=gzip"])
    packages = sorted(glob.glob(f"{scratch}/debs/*.deb"))
    contents = [look_into(package, scratch) for package in packages]
    run([cmake, "--install", build, "--prefix", f"{scratch}/tree/usr"])
    installed, packed = files_below(f"{scratch}/tree"), set().union(*contents)
    expect(sum(map(len, contents)) == len(packed), "a file is in two packages")
    expect(without_gz(packed) == without_gz(installed), "in one only:", without_gz(packed) ^ without_gz(installed))
    if install:
        install_and_purge(packages, f"{scratch}/root")
