#!/usr/bin/python3
"""Every benchmark runs and has a figure. The figures themselves are not checked: no test depends on a time.

The environment variable DOCKHAND_BENCH_DIR names the build tree.
"""

import json
import os
import pathlib
import subprocess
import sys
import tempfile
import unittest

SOURCE = pathlib.Path(__file__).resolve().parents[2]
BUILD = pathlib.Path(os.environ.get("DOCKHAND_BENCH_DIR", SOURCE / "build" / "bench"))
sys.path.insert(0, str(SOURCE / "bench"))

from rows import AGAINST_THE_LIMIT, AGAINST_THE_PEER


def output_of(*command):
    return subprocess.run(list(map(str, command)), check=True, stdout=subprocess.PIPE, text=True).stdout


class PartsTest(unittest.TestCase):
    def test_every_part_has_a_figure(self):
        # Skip folders of a million files: they take longer than all the others.
        program = [BUILD / "bin" / "dockhand_bench", "--benchmark_filter=-1000000"]
        names = output_of(*program, "--benchmark_list_tests").splitlines()
        results = json.loads(output_of(*program, "--benchmark_min_time=0.001", "--benchmark_format=json"))[
            "benchmarks"
        ]
        self.assertEqual([result["name"] for result in results], names)
        self.assertGreater(len(names), 20)
        for result in results:
            self.assertNotIn("error_occurred", result)
            self.assertGreater(result["real_time"], 0, result["name"])


class CompareTest(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        with tempfile.TemporaryDirectory() as folder:
            figures = pathlib.Path(folder) / "figures.json"
            done = subprocess.run(
                [str(SOURCE / "bench" / "compare"), "--short", "--build", str(BUILD), "--json", str(figures)],
                stdout=subprocess.PIPE,
                stderr=subprocess.PIPE,
                text=True,
            )
            if done.returncode != 0:
                reason = done.stderr.strip()
                if reason.startswith("bench/compare: needs root") or "CAP_SYS_ADMIN" in reason:
                    raise unittest.SkipTest(reason)
                raise AssertionError(reason)
            cls.text = done.stdout
            cls.data = json.loads(figures.read_text())

    def test_every_row_has_a_ratio(self):
        rows = [row.what for table in (AGAINST_THE_PEER, AGAINST_THE_LIMIT) for row in table]
        self.assertEqual([row["what"] for row in self.data["rows"]], rows)
        for row in self.data["rows"]:
            self.assertEqual(row["reason"], "", row["what"])
            self.assertGreater(row["ratio"], 0, row["what"])

    def test_every_row_is_in_the_printed_tables(self):
        for row in self.data["rows"]:
            self.assertIn(f"| {row['what']} | ", self.text)

    def test_the_most_frequent_calls_start_no_process(self):
        self.assertEqual(self.data["figures"]["processes"], [0])


if __name__ == "__main__":
    unittest.main()
