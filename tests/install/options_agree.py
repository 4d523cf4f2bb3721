#!/usr/bin/env python3
"""Every option that a program's --help tells is in its manual page and in each completion, and no other is."""

import argparse
import re
import shutil
import subprocess

OPTION = r"--?[A-Za-z][A-Za-z-]*"


def of_help(program):
    text = subprocess.run([program, "--help"], check=True, capture_output=True, text=True, timeout=30).stdout
    heads = re.findall(r"^  (-\S+)", text, re.MULTILINE)
    return {option for head in heads for option in re.findall(OPTION, head)}


def of_page(text, _name):
    items = re.findall(r"^\.It (Fl .*)$", text, re.MULTILINE)
    return {"-" + option for item in items for option in re.findall(r"\bFl (-?[A-Za-z][A-Za-z-]*)", item)}


def body(text, name):
    return re.search(rf"^_{name.replace('-', '_')}\(\) \{{$(.*?)^\}}$", text, re.MULTILINE | re.DOTALL).group(1)


def of_bash(text, name):
    offered = re.search(r"_gx_ssh_offer (.*?);;", body(text, name), re.DOTALL).group(1)
    return set(re.findall(rf"(?<!\S){OPTION}(?!\S)", offered))


def of_zsh(text, name):
    found = set()
    for line in body(text, name).splitlines():
        own = re.sub(r"\([^)]*\)", "", line.split("[")[0])  # without the options that it excludes
        found.update(re.findall(OPTION, own) if "[" in line else [])
    return {option.removesuffix("-") for option in found} - {"-S"}


def of_fish(text, _name):
    return {"--" + word for word in re.findall(r" -l (\S+)", text)} | {"-" + word for word in re.findall(r" -s (\S)", text)}


def check_syntax(shell, path):
    if shutil.which(shell):
        subprocess.run([shell, "-n", path], check=True, timeout=30)


def main():
    parser = argparse.ArgumentParser(description=__doc__)
    parser.add_argument("--source", required=True)
    parser.add_argument("programs", nargs="+")
    arguments = parser.parse_args()

    mistakes = []
    for program in arguments.programs:
        name = program.rsplit("/", 1)[1]
        told = of_help(program)
        for path, shell, read in (
            (f"docs/man/{name}.1", None, of_page),
            ("completions/gx-ssh.bash", "bash", of_bash),
            ("completions/_gx-ssh", "zsh", of_zsh),
            (f"completions/{name}.fish", "fish", of_fish),
        ):
            path = f"{arguments.source}/{path}"
            if shell:
                check_syntax(shell, path)
            with open(path, encoding="ascii") as file:
                found = read(file.read(), name)
            mistakes += [f"{path}: {name} {option} is missing" for option in sorted(told - found)]
            mistakes += [f"{path}: {name} has no {option}" for option in sorted(found - told)]
    if mistakes or not told:
        raise SystemExit("\n".join(mistakes))


main()
