#!/usr/bin/python3
"""Counts test results. RESULTS is a file with one result per line: status, name and reason, separated by tabs.

    summary.py gtest RESULTS REPORT PROGRAM STATUS     adds the cases of a GoogleTest XML report
    summary.py unittest RESULTS FILE                   runs a Python test file and adds its cases
    summary.py add RESULTS STATUS NAME [REASON]        adds one result; STATUS is passed, failed or skipped
    summary.py print RESULTS                           prints failures, reasons for skips, and the sums as last line
"""

import importlib.util
import os
import sys
import unittest
import xml.etree.ElementTree


def add(results, status, name, reason=""):
    if status not in ("passed", "failed", "skipped"):
        sys.exit(f'summary.py: unknown status "{status}"; use passed, failed or skipped')
    with open(results, "a") as file:
        file.write("\t".join((status, name, " ".join(reason.split()))) + "\n")


def gtest(results, report, program, exit_status):
    """Adds the cases of a report. A program that crashes writes no report, so none of its cases counts as passed."""
    program = os.path.basename(program)
    failures = 0
    cases = 0
    if os.path.exists(report):
        for case in xml.etree.ElementTree.parse(report).iter("testcase"):
            name = f"{program}: {case.get('classname')}.{case.get('name')}"
            skipped = case.find("skipped")
            cases += 1
            if case.find("failure") is not None:
                failures += 1
                add(results, "failed", name)
            elif skipped is not None:
                # The first line is the position in the source.
                add(results, "skipped", name, skipped.get("message", "").partition("\n")[2])
            elif case.get("status") == "run":
                add(results, "passed", name)
    if exit_status != "0" and failures == 0:
        add(results, "failed", program, f"ended with status {exit_status}")
    elif cases == 0:
        add(results, "failed", program, "ran no test")


class Recorder(unittest.TextTestResult):
    results = ""

    def note(self, status, test, reason=""):
        add(self.results, status, test.id(), reason)

    def addSuccess(self, test):
        super().addSuccess(test)
        self.note("passed", test)

    def addFailure(self, test, err):
        super().addFailure(test, err)
        self.note("failed", test)

    def addError(self, test, err):
        super().addError(test, err)
        self.note("failed", test)

    def addSkip(self, test, reason):
        super().addSkip(test, reason)
        self.note("skipped", test, reason)


def run_unittest(results, path):
    name = os.path.splitext(os.path.basename(path))[0]
    spec = importlib.util.spec_from_file_location(name, path)
    module = importlib.util.module_from_spec(spec)
    try:
        spec.loader.exec_module(module)
    except Exception as failure:
        add(results, "failed", name, f"cannot be loaded: {failure}")
        raise
    Recorder.results = results
    outcome = unittest.TextTestRunner(resultclass=Recorder).run(
        unittest.defaultTestLoader.loadTestsFromModule(module)
    )
    sys.exit(0 if outcome.wasSuccessful() and outcome.testsRun > 0 else 1)


def print_summary(results):
    lines = []
    if os.path.exists(results):
        with open(results) as file:
            lines = [line.rstrip("\n").split("\t") for line in file]
    counts = {"passed": 0, "failed": 0, "skipped": 0}
    reasons = {}
    for status, name, reason in lines:
        counts[status] += 1
        if status == "failed":
            print(f"failed: {name}" + (f": {reason}" if reason else ""))
        elif status == "skipped":
            reasons.setdefault(reason, []).append(name)
    for reason, names in reasons.items():
        others = f" and {len(names) - 1} more" if len(names) > 1 else ""
        print(f"skipped: {names[0]}{others}: {reason}")
    print("{passed} passed, {failed} failed, {skipped} skipped".format(**counts))
    sys.exit(0 if counts["failed"] == 0 and counts["passed"] > 0 else 1)


if __name__ == "__main__":
    commands = {"gtest": gtest, "unittest": run_unittest, "add": add, "print": print_summary}
    if len(sys.argv) < 3 or sys.argv[1] not in commands:
        sys.exit(__doc__)
    commands[sys.argv[1]](*sys.argv[2:])
