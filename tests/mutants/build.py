"""Builds a copy of the tree once, then replaces single sources with mutants."""

import glob
import json
import os
import re
import shlex
import shutil
import subprocess
import sys

ROOT = os.path.dirname(os.path.dirname(os.path.dirname(os.path.abspath(__file__))))
CORE = "Src/Dockhand"
TESTS = "dockhand_unit_tests"

# The headers that take longest to compile. No header of the handler itself, because it may be the mutant.
PRECOMPILED = """
#include <boost/thread/lock_types.hpp>
#include <boost/thread/recursive_mutex.hpp>
#include <map>
#include <sstream>
#include <string>
#include <vector>
#include "TUnixSocket.h"
#include "Tlog.h"
#include "corvane_rpc_gen_.h"
#include "thrift_client.h"
#include "usb_rpc_gen_.h"
"""


def run(command, folder):
    done = subprocess.run(command, cwd=folder, text=True, stdout=subprocess.PIPE, stderr=subprocess.STDOUT)
    if done.returncode != 0:
        sys.exit(f"{shlex.join(command)}\n{done.stdout}")
    return done.stdout


def replaced(command, option, value):
    """The command with `value` as the argument of `option`."""
    at = command.index(option)
    return command[: at + 1] + [value] + command[at + 2 :]


class Tree:
    def __init__(self, folder, jobs):
        """Copies and builds what the unit tests need. Optimisation would cost more time than it saves."""
        self.folder = folder
        self.root = os.path.join(folder, "tree")
        self.build = os.path.join(folder, "build")
        self.program = os.path.join(self.build, "bin", TESTS)
        self.copy()
        print("building the unit tests", flush=True)
        options = {
            "CMAKE_BUILD_TYPE": "Debug",
            "CMAKE_CXX_FLAGS_DEBUG": "-O0 -g0",
            "CMAKE_EXE_LINKER_FLAGS": "-fuse-ld=lld",
            "CMAKE_GTEST_DISCOVER_TESTS_DISCOVERY_MODE": "PRE_TEST",
        }
        options = [f"-D{name}={value}" for name, value in options.items()]
        run(["cmake", "-G", "Ninja", "-S", self.root, "-B", self.build, *options], folder)
        run(["cmake", "--build", self.build, "--parallel", str(jobs), "--target", TESTS], folder)
        self.read_commands()
        self.precompile()

    def copy(self):
        listed = subprocess.run(
            ["git", "-c", "safe.directory=*", "ls-files", "-z", "--cached", "--others", "--exclude-standard"],
            cwd=ROOT,
            check=True,
            text=True,
            stdout=subprocess.PIPE,
        ).stdout
        for name in filter(None, listed.split("\0")):
            origin = os.path.join(ROOT, name)
            if os.path.isfile(origin):
                os.makedirs(os.path.dirname(os.path.join(self.root, name)), exist_ok=True)
                shutil.copy(origin, os.path.join(self.root, name))

    def read_commands(self):
        with open(os.path.join(self.build, "compile_commands.json")) as file:
            commands = {entry["file"]: shlex.split(entry["command"]) for entry in json.load(file)}
        core = os.path.join(self.root, CORE)
        self.compile = {
            os.path.basename(source): command
            for source, command in commands.items()
            if os.path.dirname(source) == core
        }
        last = run(["ninja", "-t", "commands", TESTS], self.build).splitlines()[-1]
        # CMake puts the link command between two "&&".
        self.link = shlex.split(last.split(" && ")[1])

    def precompile(self):
        header = os.path.join(self.folder, "precompiled.h")
        with open(header, "w") as file:
            file.write(PRECOMPILED)
        command = replaced(self.compile["Closing.cpp"], "-o", header + ".gch")
        command = replaced(command, "-c", header)
        run(command[:-2] + ["-x", "c++-header", "-c", header], self.build)
        self.precompiled = header

    def source(self, name):
        with open(os.path.join(self.root, CORE, name)) as file:
            return file.read()

    def suites_of(self, name):
        """A filter for the tests of a source, found by the name of their file; '' if there are none."""
        path = os.path.join(self.root, "tests/unit", os.path.splitext(name)[0] + "Test.cpp")
        if not os.path.exists(path):
            return ""
        with open(path) as file:
            suites = sorted(set(re.findall(r"^TEST(?:_F)?\((\w+),", file.read(), re.MULTILINE)))
        return ":".join(f"{suite}.*" for suite in suites)

    def users_of(self, name):
        """The sources of the handler that include a header, directly or through other headers."""
        users = {name}
        while True:
            more = {
                os.path.basename(path)
                for path in glob.glob(os.path.join(self.root, CORE, "*"))
                if any(
                    f'#include "{user}"\n' in self.source(os.path.basename(path))
                    for user in users
                    if path.endswith((".h", ".cpp"))
                )
            }
            if more <= users:
                return sorted(user for user in users if user in self.compile and user != "DockhandMain.cpp")
            users |= more

    def build_mutant(self, folder, name, mutant):
        """Builds the test program with a mutant in an empty folder; None if the mutant does not compile."""
        with open(os.path.join(folder, name), "w") as file:
            file.write(mutant.apply(self.source(name)))
        sources = [name]
        if name.endswith(".h"):
            # A source finds the headers of its own folder first, so put the includers next to the mutant.
            sources = self.users_of(name)
            for path in glob.glob(os.path.join(self.root, CORE, "*.*")):
                if os.path.basename(path) != name:
                    shutil.copy(path, folder)
        objects = []
        for source in sources:
            made = os.path.join(folder, source + ".o")
            command = replaced(self.compile[source], "-o", made)
            command = replaced(command, "-c", os.path.join(folder, source))
            if self.fails(command + ["-w", "-include", self.precompiled]):
                return None
            objects.append(made)
        program = os.path.join(folder, TESTS)
        # Link the mutant before the libraries, so that their object of the same source is not used. Link it before the
        # tests, so that their copies of the handler's inline functions are not used.
        first = next(index for index, word in enumerate(self.link) if word.endswith(".o"))
        link = replaced(self.link[:first] + objects + self.link[first:], "-o", program)
        return None if self.fails(link) else program

    def fails(self, command):
        return (
            subprocess.run(
                command,
                cwd=self.build,
                stdin=subprocess.DEVNULL,
                stdout=subprocess.DEVNULL,
                stderr=subprocess.DEVNULL,
            ).returncode
            != 0
        )
