"""Every option that a program's --help tells is in its manual page and in each completion, and no other is;
docs/screens.md shows that help, and every test that SECURITY.md names exists. Arguments: ctest, the build's folder, the
sources and the programs."""

import re
import shutil
import sys

from tunnel import expect, read, run

OPTION = r"--?[A-Za-z][A-Za-z-]*"


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


def missing_tests(page, tests):
    """What the last column of a table names in backticks is a test, or what the names of some begin with."""
    cells = re.findall(r"^\|.*\| (`\S.*`) \|$", page, re.MULTILINE)
    names = {name.rstrip("*.") for cell in cells for name in re.findall(r"`([^`]+)`", cell)}
    expect(names, "SECURITY.md names no test")
    return [name for name in names if not any(f"{test}.".startswith(f"{name}.") for test in tests)]


ctest, build, source, *programs = sys.argv[1:]
screens = " ".join(read(f"{source}/docs/screens.md").split())
named = set(re.findall(r"^\.Sy (\S+)", read(f"{source}/docs/man/gx-control-ssh.7"), re.MULTILINE))
built = set(re.findall(r"gx_package\(\S+ (\S+)", read(f"{source}/cmake/GxPackage.cmake")))
tests = re.findall(r"^ *Test +#\d+: (\S+)", run([ctest, "--test-dir", build, "-N"]), re.MULTILINE)
mistakes = [f"there is no package {name}" for name in named - built]
mistakes += [f"SECURITY.md: there is no test {name}" for name in missing_tests(read(f"{source}/SECURITY.md"), tests)]
for program in programs:
    name, text = program.rsplit("/", 1)[1], run([program, "--help"])
    mistakes += [f"{name} {option} {kind}: bash completes files where it should not, or the other way round"
                 for option, kind in re.findall(r"^  (?:-\w,)?(--[a-z-]+) ([A-Z]\S*)", text, re.MULTILINE)
                 if offers_files(source, name, option) != (kind in ("FILE", "PATH"))]
    if " ".join(["$", name, "--help", *text.split()]) not in screens:
        mistakes.append(f"docs/screens.md: {name} --help shows:\n{text}")
    heads = re.findall(r"^  (-\S+)", text, re.MULTILINE)
    told = {option for head in heads for option in re.findall(OPTION, head)}
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
