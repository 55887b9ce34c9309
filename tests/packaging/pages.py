#!/usr/bin/python3
"""The commands of docs/PACKAGING.md and docs/INTEGRATION.md, in a new Debian system.

The environment variable DOCKHAND_NEW_ROOT names the folder of the system, which ./test pages makes and which has the
sources in /root/dockhand.
"""

import os
import pathlib
import re
import subprocess
import sys
import textwrap
import unittest

sys.path.insert(0, str(pathlib.Path(__file__).resolve().parent))

from installed import NAMES, SOURCE

INSIDE = "/root/dockhand"


def commands(page, heading, first):
    """The lines of the first block of commands in a section that begins with the given word."""
    section = (SOURCE / "docs" / page).read_text().partition(f"\n## {heading}\n")[2].partition("\n## ")[0]
    blocks = re.findall(r"^```sh\n(.*?)^```$", section, re.MULTILINE | re.DOTALL)
    blocks += map(textwrap.dedent, re.findall(r"(?:^    .*\n)+", section, re.MULTILINE))
    return next(block for block in blocks if block.startswith(first))


class PagesTest(unittest.TestCase):
    def setUp(self):
        if "DOCKHAND_NEW_ROOT" not in os.environ:
            self.skipTest("run by ./test pages")
        self.root = pathlib.Path(os.environ["DOCKHAND_NEW_ROOT"])
        self.build = self.root / INSIDE[1:] / "build"

    def run_inside(self, command):
        done = subprocess.run(
            [SOURCE / "tools/dev/in_root", self.root, INSIDE, "sh", "-euxc", command],
            stdin=subprocess.DEVNULL,
            stdout=subprocess.PIPE,
            stderr=subprocess.STDOUT,
            text=True,
        )
        self.assertEqual(done.returncode, 0, done.stdout)

    # Tests run in the order of their names. This one needs the fewest packages, so it is the first.
    def test_1_daemon_is_built_for_another_processor_without_an_emulator(self):
        self.run_inside(commands("PACKAGING.md", "Other processors", "packaging/cross/sysroot"))
        # The processor's number is at this place of an ELF file; 40 is ARM.
        self.assertEqual((self.build / "armhf-small/bin/dockhand").read_bytes()[18:20], bytes([40, 0]))
        self.assertEqual(list(self.root.glob("usr/bin/qemu*")), [])

    def test_2_debian_packages_are_built(self):
        self.run_inside(commands("PACKAGING.md", "Debian packages", "packaging/debian/build"))
        found = {path.name.partition("_")[0] for path in (self.build / "debian/packages").glob("*.deb")}
        self.assertEqual(found, set(NAMES))

    def test_3_image_gets_the_daemon_and_the_client(self):
        self.run_inside(commands("INTEGRATION.md", "2. Install", "cmake --preset"))
        image = self.root / "path/to/image"
        self.assertTrue((image / "usr/sbin/dockhand").exists())
        self.assertFalse((image / "usr/include").exists())


if __name__ == "__main__":
    unittest.main()
