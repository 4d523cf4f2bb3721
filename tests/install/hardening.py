#!/usr/bin/env python3
"""The programs and the module are hardened as a distribution's packages are."""

import argparse
import re
import subprocess


def readelf(path, *options):
    return subprocess.run(["readelf", "-W", *options, path], check=True, capture_output=True, text=True,
                          timeout=60).stdout


def faults(path):
    header, segments, dynamic = readelf(path, "-h"), readelf(path, "-l"), readelf(path, "-d")
    symbols = readelf(path, "-s")
    wanted = {
        "position independent": re.search(r"Type:\s+DYN", header),
        "read-only relocations": "GNU_RELRO" in segments,
        "bound at the start": re.search(r"FLAGS.*\b(BIND_)?NOW\b", dynamic),
        "no stack to run code on": re.search(r"GNU_STACK.* RW ", segments),
        "stack protector": "__stack_chk_fail" in symbols,
        "checked copies": re.search(r"__mem(cpy|set|move)_chk|__v?snprintf_chk|__read_chk|__fdelt_chk", symbols),
    }
    if "X86-64" in header:
        with open(path, "rb") as file:
            wanted["marked landing places"] = file.read().count(b"\xf3\x0f\x1e\xfa") > 100  # endbr64
    return [f"{path}: not {name}" for name, found in wanted.items() if not found]


def main():
    parser = argparse.ArgumentParser(description=__doc__)
    parser.add_argument("files", nargs="+")
    found = [fault for path in parser.parse_args().files for fault in faults(path)]
    if found:
        raise SystemExit("\n".join(found))


main()
