#!/usr/bin/python3
"""The group of the socket is an option of CMake."""

import pathlib
import subprocess
import sys
import tempfile
import unittest

sys.path.insert(0, str(pathlib.Path(__file__).resolve().parent))

from installed import SOURCE


class GroupTest(unittest.TestCase):
    def lines(self, *options):
        """Returns the lines about the group in the files for the image."""
        with tempfile.TemporaryDirectory() as build:
            command = ["cmake", "-S", str(SOURCE), "-B", build, "-G", "Ninja", "-DDOCKHAND_BUILD_TESTS=OFF"]
            subprocess.run([*command, *options], check=True, stdout=subprocess.DEVNULL)
            folder = pathlib.Path(build, "integration")
            unit = (folder / "systemd" / "dockhand.service").read_text()
            script = (folder / "init" / "dockhand").read_text()
            group = (folder / "sysusers" / "dockhand.conf").read_text()
        return (
            [line for line in unit.splitlines() if line.startswith("Group=")],
            [word for word in script.split() if word.startswith("root:")],
            [line for line in group.splitlines() if line.startswith("g ")],
        )

    def test_default_group_is_dockhand(self):
        self.assertEqual(self.lines(), (["Group=dockhand"], ["root:dockhand"], ["g dockhand -"]))

    def test_option_of_cmake_sets_the_group(self):
        self.assertEqual(
            self.lines("-DDOCKHAND_GROUP=media"), (["Group=media"], ["root:media"], ["g media -"])
        )


if __name__ == "__main__":
    unittest.main()
