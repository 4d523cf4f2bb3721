#!/usr/bin/env python3
"""Installs the build, moves the tree, builds the example host against it and sends bytes through."""

import argparse
import glob
import os
import tempfile

from tunnel import TARGET, check_tunnel, end_input, interrupt, run


def install(arguments, scratch):
    """The tree is moved after it was installed: no path in it may point to where it was."""
    run([arguments.cmake, "--install", arguments.build, "--prefix", f"{scratch}/first"])
    os.rename(f"{scratch}/first", f"{scratch}/moved")
    return f"{scratch}/moved"


def the_one(pattern):
    found = glob.glob(pattern, recursive=True)
    if len(found) != 1:
        raise SystemExit(f"{pattern}: {found}")
    return found[0]


def build_with_cmake(arguments, prefix, scratch):
    source = os.path.dirname(the_one(f"{prefix}/share/doc/**/minimal_host.cc"))
    build = f"{scratch}/build"
    run([arguments.cmake, "-S", source, "-B", build, f"-DCMAKE_PREFIX_PATH={prefix}",
         f"-DCMAKE_CXX_COMPILER={arguments.compiler}", f"-DCMAKE_CXX_FLAGS={arguments.flags}"])
    run([arguments.cmake, "--build", build])
    return f"{build}/minimal_host"


def build_with_pkg_config(arguments, prefix, scratch):
    where = dict(os.environ, PKG_CONFIG_PATH=os.path.dirname(the_one(f"{prefix}/**/gxmod.pc")))
    flags = run(["pkg-config", "--cflags", "--libs", "gxmod"], env=where).split()
    module = run(["pkg-config", "--variable=module", "gxmod"], env=where).strip()
    source = the_one(f"{prefix}/share/doc/**/minimal_host.cc")
    program = f"{scratch}/minimal_host"
    run([arguments.compiler, *arguments.flags.split(), "-std=c++17", f'-DGXMOD_MODULE="{module}"', source, *flags,
         "-ldl", "-o", program])
    return program


def main():
    parser = argparse.ArgumentParser(description=__doc__)
    for name in ("--build", "--cmake", "--compiler"):
        parser.add_argument(name, required=True)
    parser.add_argument("--flags", default="")
    parser.add_argument("finder", choices=("cmake", "pkg-config"))
    arguments = parser.parse_args()

    with tempfile.TemporaryDirectory(dir=arguments.build) as scratch:
        prefix = install(arguments, scratch)
        build = build_with_cmake if arguments.finder == "cmake" else build_with_pkg_config
        program = build(arguments, prefix, scratch)
        for end in (end_input, interrupt):
            check_tunnel(end, [program, TARGET, f"{prefix}/bin/gx-ssh-peer", "--raw", "--allow", TARGET])
        # With the module that it finds in its own tree.
        check_tunnel(interrupt, [f"{prefix}/bin/gx-ssh", "--local", "--target", TARGET])


main()
