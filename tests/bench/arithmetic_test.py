#!/usr/bin/python3
"""Tests the arithmetic of the benchmark tables, and how the tables are written."""

import pathlib
import sys
import tempfile
import unittest
from unittest import mock

SOURCE = pathlib.Path(__file__).resolve().parents[2]
sys.path.insert(0, str(SOURCE / "bench"))

import report
from arithmetic import Goal, Ratio, median, quantile, ratio_of, rounded, simple, spread
from rows import plain


class QuantileTest(unittest.TestCase):
    def test_median_is_the_middle_value_or_the_mean_of_the_middle_two(self):
        self.assertEqual(median([9, 1, 5]), 5)
        self.assertEqual(median([4, 1, 2, 9]), 3)

    def test_quartiles_are_interpolated_between_values(self):
        self.assertEqual(quantile([10, 20, 30, 40], 0.25), 17.5)
        self.assertEqual(quantile([10, 20, 30, 40], 0.75), 32.5)
        self.assertEqual(quantile([7], 0.75), 7)


class RatioTest(unittest.TestCase):
    def test_each_round_is_compared_with_itself(self):
        # The second round is ten times slower for both. The ratio of the medians would differ.
        ratio = ratio_of([1, 20, 3], [2, 20, 12])
        self.assertEqual((ratio.low, ratio.middle, ratio.high), (0.375, 0.5, 0.75))

    def test_rounds_without_a_partner_are_refused(self):
        for ours, others in (([1, 2], [1]), ([], [])):
            with self.assertRaises(ValueError):
                ratio_of(ours, others)

    def test_a_goal_includes_its_bound(self):
        self.assertTrue(Goal(1.5).is_reached_by(1.5))
        self.assertFalse(Goal(1.5).is_reached_by(1.5001))
        self.assertTrue(Goal(6, at_most=False).is_reached_by(6))
        self.assertFalse(Goal(6, at_most=False).is_reached_by(5.999))


class RoundingTest(unittest.TestCase):
    def test_a_ratio_that_should_be_small_is_never_rounded_down(self):
        self.assertEqual(rounded(1.4301, True), "1.44")
        self.assertEqual(rounded(0.9901, True), "0.991")
        self.assertEqual(rounded(12.31, True), "12.4")
        # 1/11.96 is more than 1/12.
        self.assertEqual(rounded(1 / 11.96, True), "1/11.9")
        self.assertEqual(rounded(1 / 2.349, True), "1/2.34")

    def test_a_ratio_that_should_be_large_is_never_rounded_up(self):
        self.assertEqual(rounded(5.999, False), "5.99")
        self.assertEqual(rounded(0.5009, False), "0.500")
        self.assertEqual(rounded(1 / 2.341, False), "1/2.35")

    def test_a_ratio_that_needs_no_rounding_is_unchanged(self):
        self.assertEqual(rounded(1.2, True), "1.20")
        self.assertEqual(rounded(1.2, False), "1.20")
        self.assertEqual(rounded(1 / 12, True), "1/12.0")
        self.assertEqual(rounded(0.07 * 10, True), "0.700")
        self.assertEqual(rounded(0, True), "0")
        self.assertEqual(rounded(123.4, True), "124")

    def test_bounds_of_goals_are_simple_fractions_and_numbers(self):
        self.assertEqual(
            [simple(bound) for bound in (1 / 12, 1 / 3, 0.5, 1.5, 6)], ["1/12", "1/3", "0.5", "1.5", "6"]
        )
        self.assertEqual(str(Goal(1 / 8)), "≤ 1/8")
        self.assertEqual(str(Goal(6, at_most=False)), "≥ 6")

    def test_spread_has_the_median_and_both_quartiles(self):
        self.assertEqual(spread(Ratio(1.101, 1.0, 1.3), True), "1.11 (1.00 to 1.30)")


class TableTest(unittest.TestCase):
    row = plain("a call", "ours", "theirs", "µs", Goal(0.5))

    def test_a_row_has_both_medians_their_ratio_and_whether_the_goal_is_reached(self):
        figures = {"ours": [1, 2, 30], "theirs": [4, 5, 40]}
        self.assertEqual(
            report.Result(self.row, figures, {}).cells(),
            ["a call", "2.0 µs", "5.0 µs", "1/2.50 (1/3.07 to 0.575)", "≤ 0.5", "reached"],
        )
        figures = {"ours": [3], "theirs": [4]}
        self.assertEqual(report.Result(self.row, figures, {}).cells()[-1], "NOT reached")

    def test_a_row_without_figures_is_kept_with_a_reason(self):
        for figures, reasons, reason in (
            ({}, {"theirs": "not installed"}, "not installed"),
            ({}, {}, "a round has no figure"),
            ({"ours": [1, 2], "theirs": [1]}, {}, "a round has no figure"),
        ):
            result = report.Result(self.row, figures, reasons)
            self.assertEqual(result.reason, reason)
            self.assertEqual(result.cells(), ["a call", "not taken", "", "", "≤ 0.5", ""])

    def test_amounts_have_their_units(self):
        self.assertEqual(report.amount(9999, "µs"), "9999.0 µs")
        self.assertEqual(report.amount(12345, "µs"), "12.3 ms")
        self.assertEqual(report.amount(2000.4, "calls/s"), "2000/s")
        self.assertEqual(report.amount(1024, "KiB"), "1024 KiB")

    def test_size_of_the_small_daemon_is_never_rounded_down(self):
        for size, figure, verdict in ((700_000, "700 KB", "reached"), (700_001, "701 KB", "NOT reached")):
            row = report.single_rows({"processes": [0]}, {}, size)[1]
            self.assertEqual((row[1], row[3]), (figure, verdict))
        self.assertEqual(report.single_rows({"processes": [0]}, {}, None)[1][1], "not taken")

    def test_processes_started_are_counted_and_none_is_the_goal(self):
        self.assertEqual(report.single_rows({"processes": [0]}, {}, None)[0][1::2], ["0", "reached"])
        self.assertEqual(report.single_rows({"processes": [2]}, {}, None)[0][1::2], ["2", "NOT reached"])
        self.assertEqual(
            report.single_rows({}, {"processes": "no strace"}, None)[0][1::2], ["not taken", "no strace"]
        )


class DocumentTest(unittest.TestCase):
    def test_only_the_text_between_the_marks_is_replaced(self):
        with tempfile.TemporaryDirectory() as folder:
            document = pathlib.Path(folder) / "BENCHMARKS.md"
            document.write_text(f"before\n\n{report.BEGIN}\n\nold\n\n{report.END}\n\nafter\n")
            with mock.patch.object(report, "DOCUMENT", document):
                report.write_document("new")
            self.assertEqual(
                document.read_text(), f"before\n\n{report.BEGIN}\n\nnew\n\n{report.END}\n\nafter\n"
            )

    def test_lines_are_wrapped_at_120_columns(self):
        lines = report.wrapped("- " + "word " * 60).split("\n")
        self.assertTrue(all(len(line) <= 120 for line in lines), lines)
        self.assertTrue(lines[1].startswith("  word"))
        self.assertEqual(" ".join(lines).split(), ["-"] + ["word"] * 60)


if __name__ == "__main__":
    unittest.main()
