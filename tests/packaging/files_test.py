#!/usr/bin/python3
"""The files in docs/INTEGRATION.md are those that its commands install.

The environment variable DOCKHAND_BUILD_DIR names the build tree.
"""

import pathlib
import re
import subprocess
import sys
import tempfile
import unittest

sys.path.insert(0, str(pathlib.Path(__file__).resolve().parent))

from installed import BUILD, SOURCE, files_in


class FilesTest(unittest.TestCase):
    def test_files_in_the_table_are_those_that_the_commands_install(self):
        section = (
            (SOURCE / "docs" / "INTEGRATION.md").read_text().partition("\n## 2. ")[2].partition("\n## ")[0]
        )
        commands = re.findall(r"^    (DESTDIR=\S+ cmake --install .*)$", section, re.MULTILINE)
        rows = re.findall(r"^\| (`/.*?) \|", section.partition("\nThis takes ")[0], re.MULTILINE)
        self.assertGreater(len(rows), 8)
        listed = set()
        for row in rows:
            first, *others = re.findall(r"`(.*?)`", row)
            listed |= {first} | {
                str(pathlib.PurePath(first).with_name(name)) if "/" not in name else name for name in others
            }
        with tempfile.TemporaryDirectory() as image:
            for command in commands:
                # Another build, and it has another prefix.
                command = command.replace("/path/to/image", image).replace("build/release", str(BUILD))
                subprocess.run(f"{command} --prefix /usr", shell=True, check=True, stdout=subprocess.DEVNULL)
            files = files_in(image)
        # A row that ends with a slash is a folder.
        covered = {
            path: [file for file in files if file == path or (path[-1] == "/" and file.startswith(path))]
            for path in listed
        }
        self.assertEqual([path for path, found in covered.items() if not found], [])
        self.assertEqual(set(files) - set().union(*covered.values()), set())


if __name__ == "__main__":
    unittest.main()
