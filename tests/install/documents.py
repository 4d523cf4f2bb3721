#!/usr/bin/env python3
"""Every option that a program's --help tells is in its manual page and in each completion, and no other is; and
docs/screens.md shows that help."""

import argparse
import re
import shutil
import subprocess

OPTION = r"--?[A-Za-z][A-Za-z-]*"


def help_of(program):
    return subprocess.run([program, "--help"], check=True, capture_output=True, text=True, timeout=30).stdout


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


def check_syntax(shell, path):
    if shutil.which(shell):
        subprocess.run([shell, "-n", path], check=True, timeout=30)


def offers_files(source, name, option):
    """Whether bash completes the value of an option with the names of files."""
    script = f"""source "$1"; COMP_WORDS=({name} {option} LIC); COMP_CWORD=2; compgen() {{ echo "$*"; }}
_{name.replace("-", "_")}; echo "${{COMPREPLY[*]}}" """
    result = subprocess.run(["bash", "-c", script, "bash", f"{source}/completions/gx-ssh.bash"],
                            check=True, capture_output=True, text=True, timeout=30)
    return result.stdout.startswith("-f ")


def mistaken_files(source, name, text):
    """Options whose values are names of files where others are completed, or the other way round."""
    values = re.findall(r"^  (?:-\w,)?(--[a-z-]+) ([A-Z]\S*)", text, re.MULTILINE)
    return [option for option, kind in values
            if offers_files(source, name, option) != (kind in ("FILE", "PATH"))]


def unknown_packages(source):
    """Packages that a manual page names and nobody builds."""
    with open(f"{source}/docs/man/gx-control-ssh.7", encoding="ascii") as page, \
            open(f"{source}/cmake/GxPackage.cmake", encoding="ascii") as list_:
        return set(re.findall(r"^\.Sy (\S+)", page.read(), re.MULTILINE)) - set(
            re.findall(r"gx_package\(\S+ (\S+)", list_.read()))


def main():
    parser = argparse.ArgumentParser(description=__doc__)
    parser.add_argument("--source", required=True)
    parser.add_argument("programs", nargs="+")
    arguments = parser.parse_args()

    mistakes = [f"there is no package {name}" for name in unknown_packages(arguments.source)]
    for program in arguments.programs:
        name, text = program.rsplit("/", 1)[1], help_of(program)
        mistakes += [f"{name} {option}: wrong about files" for option in mistaken_files(arguments.source, name, text)]
        with open(f"{arguments.source}/docs/screens.md", encoding="ascii") as page:
            mistakes += [] if is_on_page(page.read(), name, text) else [f"docs/screens.md: {name} --help shows:\n{text}"]
        told = of_help(text)
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
