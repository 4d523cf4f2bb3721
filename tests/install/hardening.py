"""The programs and the module, which are the arguments, are hardened as a distribution's packages are."""

import re
import sys

from tunnel import expect, run

WANTED = {
    "position independent": r"Type:\s+DYN", "read-only relocations": "GNU_RELRO",
    "bound at the start": r"FLAGS.*\b(BIND_)?NOW\b", "no stack to run code on": r"GNU_STACK.* RW ",
    "stack protector": "__stack_chk_fail",
    "checked copies": r"__mem(cpy|set|move)_chk|__v?snprintf_chk|__read_chk|__fdelt_chk",
}

for path in sys.argv[1:]:
    told = run(["readelf", "-W", "-h", "-l", "-d", "-s", path])
    missing = [name for name, pattern in WANTED.items() if not re.search(pattern, told)]
    with open(path, "rb") as file:
        if "X86-64" in told and file.read().count(b"\xf3\x0f\x1e\xfa") < 100:  # endbr64
            missing.append("marked landing places")
    expect(not missing, f"{path}: not", *missing)
