#!/usr/bin/env python3
"""The programs and the module are hardened as a distribution's packages are."""

import argparse
import re
import subprocess


def readelf(path, *options):
    return subprocess.run(["readelf", "-W", *options, path], check=True, capture_output=True, text=True,
                          timeout=60).stdout


def faults(path):
    told = "".join(readelf(path, option) for option in ("-h", "-l", "-d", "-s"))
    wanted = {
        "position independent": r"Type:\s+DYN", "read-only relocations": "GNU_RELRO",
        "bound at the start": r"FLAGS.*\b(BIND_)?NOW\b", "no stack to run code on": r"GNU_STACK.* RW ",
        "stack protector": "__stack_chk_fail",
        "checked copies": r"__mem(cpy|set|move)_chk|__v?snprintf_chk|__read_chk|__fdelt_chk",
    }
    missing = [name for name, pattern in wanted.items() if not re.search(pattern, told)]
    with open(path, "rb") as file:
        if "X86-64" in told and file.read().count(b"\xf3\x0f\x1e\xfa") < 100:  # endbr64
            missing.append("marked landing places")
    return [f"{path}: not {name}" for name in missing]


def main():
    parser = argparse.ArgumentParser(description=__doc__)
    parser.add_argument("files", nargs="+")
    found = [fault for path in parser.parse_args().files for fault in faults(path)]
    if found:
        raise SystemExit("\n".join(found))


main()
