#!/usr/bin/python3
"""Lets clang parse every source of a build, and fails if it warns.

    clang.py BUILD        the folder of a configured build with its generated sources
"""

import concurrent.futures
import json
import os
import re
import subprocess
import sys

# Some sources disable a warning that only GCC has.
CLANG = "clang++-14 -fsyntax-only -Wno-unknown-warning-option "


def complaints(entry):
    """The warnings of clang for one source; empty if there are none."""
    command = re.sub(r"^.*?\S*(?:c\+\+|g\+\+)\S* ", CLANG, entry["command"], count=1)
    command = re.sub(r" -o \S+", "", command, count=1)
    done = subprocess.run(
        command,
        shell=True,
        check=False,
        cwd=entry["directory"],
        stdin=subprocess.DEVNULL,
        stdout=subprocess.PIPE,
        stderr=subprocess.STDOUT,
        text=True,
    )
    return done.stdout or (f'{entry["file"]}: status {done.returncode}\n' if done.returncode else "")


def main():
    with open(os.path.join(sys.argv[1], "compile_commands.json")) as file:
        entries = json.load(file)
    if not entries:
        sys.exit(f'"{sys.argv[1]}" has no sources; configure it first')
    with concurrent.futures.ThreadPoolExecutor(os.cpu_count()) as pool:
        said = [text for text in pool.map(complaints, entries) if text]
    print(f"{len(entries)} sources\n" + "".join(said), end="")
    return 1 if said else 0


if __name__ == "__main__":
    sys.exit(main())
