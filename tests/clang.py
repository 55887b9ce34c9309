#!/usr/bin/python3
"""Lets clang parse every source of a build, and fails if it warns, or if it accepts the handler without a lock.

    clang.py BUILD        the folder of a configured build with its generated sources
"""

import concurrent.futures
import json
import os
import pathlib
import re
import subprocess
import sys

# Some sources disable a warning that only GCC has.
CLANG = "clang++ -fsyntax-only -Wno-unknown-warning-option "
THREAD_SAFETY = "-Wthread-safety -Wthread-safety-beta "

ROOT = pathlib.Path(__file__).resolve().parents[1]
HANDLER = ROOT / "Src" / "Dockhand"
LOCK = "const HandlerLock lock(handlerMutex);"

# Behind these locks nothing is used that clang knows to be guarded. A unit test fails without each.
LOCKS_OF_TESTS = {
    "HotPlug.cpp callObservers": "UsbAdded, WaitsForTheLockOnceMoreAfterItsCallbacks",
    "Queries.cpp GetDeviceCapacity": "EveryOperation, HoldsTheLockForAllButItsFirstLine",
}


def said_by_clang(entry, source=None):
    """The warnings of clang for a file of the build; empty if there are none. `source` replaces its text."""
    path = pathlib.Path(entry["file"])
    options = CLANG + (THREAD_SAFETY if (ROOT / "Src") in path.parents else "")
    command = re.sub(r"^.*?\S*(?:c\+\+|g\+\+)\S* ", options, entry["command"], count=1)
    command = re.sub(r" -o \S+", "", command, count=1)
    if source is not None:
        command = command.replace(f" -c {path}", f" -I{path.parent} -x c++ -c -")
    done = subprocess.run(
        command,
        shell=True,
        check=False,
        cwd=entry["directory"],
        input=source or "",
        stdout=subprocess.PIPE,
        stderr=subprocess.STDOUT,
        text=True,
    )
    return done.stdout or (f'{entry["file"]}: status {done.returncode}\n' if done.returncode else "")


def locks(entries):
    """A file of the build, the function that takes a lock, and the text without that lock: of each lock."""
    for entry in entries:
        path = pathlib.Path(entry["file"])
        text = path.read_text() if path.parent == HANDLER else ""
        for found in re.finditer(re.escape(LOCK), text):
            function = re.findall(r"^\w[^\n;]*?(\w+)\(", text[: found.start()], re.MULTILINE)[-1]
            yield entry, f"{path.name} {function}", text[: found.start()] + text[found.end() :]


def complaint_about_lock(lock):
    """What is wrong if a lock can be taken away; empty if clang or a unit test notices."""
    entry, place, without = lock
    test = LOCKS_OF_TESTS.get(place)
    if test is None:
        noticed = "requires holding mutex" in said_by_clang(entry, without)
        return "" if noticed else f"{place}: clang does not notice when the lock is removed\n"
    tests = "".join(path.read_text() for path in (ROOT / "tests" / "unit").glob("*.cpp"))
    return "" if test in tests else f"{place}: there is no test ({test})\n"


def main():
    with open(os.path.join(sys.argv[1], "compile_commands.json")) as file:
        entries = json.load(file)
    if not entries:
        sys.exit(f'"{sys.argv[1]}" has no sources; configure it first')
    taken = {place: (entry, place, text) for entry, place, text in locks(entries)}
    with concurrent.futures.ThreadPoolExecutor(os.cpu_count()) as pool:
        said = list(pool.map(said_by_clang, entries)) + list(pool.map(complaint_about_lock, taken.values()))
    print(f"{len(entries)} sources, {len(taken)} locks\n" + "".join(said), end="")
    return 1 if not taken or any(said) else 0


if __name__ == "__main__":
    sys.exit(main())
