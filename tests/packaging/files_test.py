#!/usr/bin/python3
"""The files in docs/INTEGRATION.md are those that CMake installs.

The environment variable DOCKHAND_BUILD_DIR names the build tree.
"""

import pathlib
import re
import sys
import tempfile
import unittest

sys.path.insert(0, str(pathlib.Path(__file__).resolve().parent))

from installed import SOURCE, install


class FilesTest(unittest.TestCase):
    def test_files_in_the_table_are_installed(self):
        section = (
            (SOURCE / "docs" / "INTEGRATION.md").read_text().partition("\n## 2. ")[2].partition("\n## ")[0]
        )
        rows = re.findall(r"^\| (`/.*?) \|", section, re.MULTILINE)
        self.assertGreater(len(rows), 8)
        with tempfile.TemporaryDirectory() as image:
            install(image)
            for row in rows:
                first, *others = re.findall(r"`(.*?)`", row)
                for path in [first] + [
                    str(pathlib.PurePath(first).with_name(name)) if "/" not in name else name
                    for name in others
                ]:
                    self.assertTrue(pathlib.Path(image + path).exists(), path)


if __name__ == "__main__":
    unittest.main()
