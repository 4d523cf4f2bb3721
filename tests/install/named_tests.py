#!/usr/bin/env python3
"""Every test that a page's tables name exists."""

import re
import subprocess
import sys

ctest, build, page = sys.argv[1:]
listed = subprocess.run([ctest, "--test-dir", build, "-N"], check=True, capture_output=True, text=True, timeout=60).stdout
tests = re.findall(r"^ *Test +#\d+: (\S+)", listed, re.MULTILINE)
with open(page, encoding="utf-8") as file:
    cells = re.findall(r"^\|.*\| (`\S.*`) \|$", file.read(), re.MULTILINE)
names = [name.removesuffix("*") for cell in cells for name in re.findall(r"`([^`]+)`", cell)]
missing = [name for name in names if not any(test == name or test.startswith(name.rstrip(".") + ".") for test in tests)]
if missing or not names:
    sys.exit(f"{page} names {len(names)} tests; no such test: {', '.join(missing)}")
