#!/usr/bin/env python3
"""docs/screens.md shows the help that the programs print."""

import argparse
import os
import re
import subprocess


def documented(page):
    """What the page shows, by the command that it shows it for."""
    with open(page, encoding="ascii") as file:
        lines = [line[4:].rstrip() for line in file if line.startswith("    ") or line == "\n"]
    screens = re.split(r"^\$ (.*)$", "\n".join(lines), flags=re.MULTILINE)
    return dict(zip(screens[1::2], (screen.strip() for screen in screens[2::2])))


def main():
    parser = argparse.ArgumentParser(description=__doc__)
    parser.add_argument("--page", required=True)
    parser.add_argument("programs", nargs="+")
    arguments = parser.parse_args()
    told = documented(arguments.page)
    for program in arguments.programs:
        name = f"{os.path.basename(program)} --help"
        text = subprocess.run([program, "--help"], capture_output=True, text=True, timeout=60, check=True).stdout
        shown = "\n".join(map(str.rstrip, text.splitlines())).strip()
        if shown != told[name]:
            raise SystemExit(f"{name} shows\n{shown}\nand the page tells\n{told[name]}")


main()
