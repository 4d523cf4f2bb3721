"""Installs the build, moves the tree, builds the example host against it and sends bytes through.

Arguments: the build's folder, cmake, the compiler and its flags.
"""

import glob
import os
import sys
import tempfile

from tunnel import TARGET, check_tunnel, run


build, cmake, compiler, *flags = sys.argv[1:]
with tempfile.TemporaryDirectory(dir=build) as scratch:
    # No path in the tree may point to where it was when it was installed.
    prefix = f"{scratch}/moved"
    run([cmake, "--install", build, "--prefix", f"{scratch}/first"])
    os.rename(f"{scratch}/first", prefix)
    [source] = glob.glob(f"{prefix}/share/doc/**/minimal_host.cc", recursive=True)
    [described] = glob.glob(f"{prefix}/**/gxmod.pc", recursive=True)

    run([cmake, "-S", os.path.dirname(source), "-B", f"{scratch}/build", f"-DCMAKE_PREFIX_PATH={prefix}",
         f"-DCMAKE_CXX_COMPILER={compiler}", f"-DCMAKE_CXX_FLAGS={' '.join(flags)}"])
    run([cmake, "--build", f"{scratch}/build"])

    where = dict(os.environ, PKG_CONFIG_PATH=os.path.dirname(described))
    found = run(["pkg-config", "--cflags", "--libs", "gxmod"], env=where).split()
    module = run(["pkg-config", "--variable=module", "gxmod"], env=where).strip()
    run([compiler, *flags, "-std=c++17", f'-DGXMOD_MODULE="{module}"', source, *found, "-ldl", "-o", f"{scratch}/host"])

    for by_signal, host in ((False, f"{scratch}/build/minimal_host"), (True, f"{scratch}/host")):
        check_tunnel(host, TARGET, f"{prefix}/bin/gx-ssh-peer", "--raw", "--allow", TARGET, by_signal=by_signal)
    # With the module that it finds in its own tree.
    check_tunnel(f"{prefix}/bin/gx-ssh", "--local", "--target", TARGET)
