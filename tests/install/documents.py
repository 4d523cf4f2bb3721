#!/usr/bin/env python3
"""Every option that a program's --help tells is in its manual page and in each completion, and no other is; and
docs/screens.md shows that help. Arguments: the sources and the programs."""

import re
import shutil
import sys

from tunnel import expect, run

OPTION = r"--?[A-Za-z][A-Za-z-]*"


def read(path):
    with open(path, encoding="ascii") as file:
        return file.read()


def of_help(text):
    return {option for head in re.findall(r"^  (-\S+)", text, re.MULTILINE) for option in re.findall(OPTION, head)}


def is_on_page(page, name, text):
    """A screen ends where the next command or heading begins."""
    lines = [line[4:] for line in page.splitlines(keepends=True) if line.startswith("    ") or line == "\n"]
    screens = re.split(r"^\$ (.*)$", "".join(lines), flags=re.MULTILINE)
    shown = dict(zip(screens[1::2], screens[2::2]))[f"{name} --help"]
    return shown.split() == text.split()


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


def offers_files(source, name, option):
    """Whether bash completes the value of an option with the names of files."""
    script = f"""source "$1"; COMP_WORDS=({name} {option} LIC); COMP_CWORD=2; compgen() {{ echo "$*"; }}
_{name.replace("-", "_")}; echo "${{COMPREPLY[*]}}" """
    return run(["bash", "-c", script, "bash", f"{source}/completions/gx-ssh.bash"]).startswith("-f ")


def mistaken_files(source, name, text):
    """Options whose values are names of files where others are completed, or the other way round."""
    values = re.findall(r"^  (?:-\w,)?(--[a-z-]+) ([A-Z]\S*)", text, re.MULTILINE)
    return [option for option, kind in values
            if offers_files(source, name, option) != (kind in ("FILE", "PATH"))]


source, *programs = sys.argv[1:]
named = set(re.findall(r"^\.Sy (\S+)", read(f"{source}/docs/man/gx-control-ssh.7"), re.MULTILINE))
built = set(re.findall(r"gx_package\(\S+ (\S+)", read(f"{source}/cmake/GxPackage.cmake")))
mistakes = [f"there is no package {name}" for name in named - built]
for program in programs:
    name, text = program.rsplit("/", 1)[1], run([program, "--help"])
    mistakes += [f"{name} {option}: wrong about files" for option in mistaken_files(source, name, text)]
    if not is_on_page(read(f"{source}/docs/screens.md"), name, text):
        mistakes.append(f"docs/screens.md: {name} --help shows:\n{text}")
    told = of_help(text)
    for path, shell, options in (
        (f"docs/man/{name}.1", None, of_page),
        ("completions/gx-ssh.bash", "bash", of_bash),
        ("completions/_gx-ssh", "zsh", of_zsh),
        (f"completions/{name}.fish", "fish", of_fish),
    ):
        path = f"{source}/{path}"
        if shell and shutil.which(shell):
            run([shell, "-n", path])
        found = options(read(path), name)
        mistakes += [f"{path}: {name} {option} is missing" for option in sorted(told - found)]
        mistakes += [f"{path}: {name} has no {option}" for option in sorted(found - told)]
expect(told and not mistakes, *mistakes)
