"""Holds the public headers, the version script and the built library against each other.

Usage: names_test.py SOURCE-DIRECTORY LIBRARY
"""

import pathlib
import re
import subprocess
import sys


def declared(headers):
    """The names of functions and objects that headers declare as part of the contract."""
    names = set()
    for header in headers:
        text = re.sub(r"/\*.*?\*/", "", header.read_text(), flags=re.S)
        text = re.sub(r"\{[^{}]*\}", "", text)  # the fields of records
        for declaration in re.findall(r"NASCTRL_API\s+(\w[^;#]*);", text):
            before_arguments = re.split(r"\(", declaration, maxsplit=1)[0]
            names.add(re.search(r"(\w+)\s*(\[.*\])?\s*$", before_arguments, flags=re.S).group(1))
    return names


def dynamic_symbols(library, selection):
    lines = subprocess.run(["nm", "-D", selection, library], check=True, capture_output=True, text=True).stdout
    return [line.split() for line in lines.splitlines()]


def differences(left_name, left, right_name, right):
    rows = [f"in {left_name} but not in {right_name}: {name}" for name in sorted(left - right)]
    return rows + [f"in {right_name} but not in {left_name}: {name}" for name in sorted(right - left)]


def main():
    source, library = pathlib.Path(sys.argv[1]), sys.argv[2]
    ring = source / "include" / "nasctrl"
    library_names = declared(ring.glob("*.h"))
    host_names = declared((ring / "host").glob("*.h"))

    script = re.sub(r"/\*.*?\*/", "", (source / "sysctrl" / "nasctrl.map").read_text(), flags=re.S)
    script_names = set(re.findall(r"(\w+);", script.split("local:")[0]))

    exported = {
        line[-1].split("@")[0] for line in dynamic_symbols(library, "--defined-only") if line[1] != "A"
    }
    # Names of the system's libraries carry a version; the bounds-checking library's end in _s_chk, a sanitizer's
    # begin with two underscores.
    taken = {
        line[-1]
        for line in dynamic_symbols(library, "--undefined-only")
        if line[0] == "U" and "@" not in line[-1] and not re.search(r"^__|_s_chk$", line[-1])
    }

    problems = differences("the library's headers", library_names, "the version script", script_names)
    problems += differences("the version script", script_names, "the library's exports", exported)
    problems += differences("the host headers", host_names, "what the library takes from its host", taken)
    for problem in problems:
        print(problem)
    print(f"{len(exported)} names exported, {len(taken)} taken from the host")
    sys.exit(1 if problems or not exported or not taken else 0)


main()
