#!/usr/bin/python3
"""Shows how much of Src/ the test programs of a coverage build ran, and fails below the goals.

    coverage.py BUILD        the folder of the build; run its programs first

Only branches of the source count: an if, a loop, a condition, a case. The compiler adds two branches to every call that
may throw: the normal return and the exception. Both are omitted. The normal return is taken at every call, so it would
only improve the figure.
"""

import json
import os
import subprocess
import sys
import tempfile

LINES_GOAL = 95.0
BRANCHES_GOAL = 90.0


def measure(build):
    """The report of gcovr for each source, sorted by name."""
    with tempfile.TemporaryDirectory() as folder:
        report = os.path.join(folder, "report.json")
        options = ["--root", ".", "--filter", "Src/", "-j", str(os.cpu_count()), "--json", report]
        subprocess.run(["gcovr", *options, f"{build}/Src", f"{build}/tests"], check=True)
        with open(report) as file:
            return sorted(json.load(file)["files"], key=lambda source: source["file"])


def branches_of(line, text):
    """How often each branch of a line is taken."""
    if text in ("", "{", "}", "};"):
        # The compiler destroys the variables of a block at its end.
        return []
    taken = []
    for branch in line["branches"]:
        if not branch["throw"]:
            taken.append(branch)
        elif taken and taken[-1]["fallthrough"]:
            taken.pop()
    return [branch["count"] for branch in taken]


class Sum:
    def __init__(self):
        self.reached = 0
        self.total = 0

    def add(self, counts):
        self.reached += sum(count > 0 for count in counts)
        self.total += len(counts)

    def percent(self):
        return 100 * self.reached / self.total if self.total else 100.0

    def __str__(self):
        # Round down.
        return f"{self.reached:5}/{self.total:<5}{int(self.percent() * 10) / 10:6.1f} %"


def main(build):
    missed = []
    all_lines, all_branches = Sum(), Sum()
    print(f'{"":45}{"lines":>14}{"branches":>19}')
    for source in measure(build):
        with open(source["file"]) as file:
            texts = [text.strip() for text in file]
        lines, branches = Sum(), Sum()
        for line in source["lines"]:
            if line.get("gcovr/noncode"):
                continue
            text = texts[line["line_number"] - 1]
            counts = branches_of(line, text)
            place = f'{source["file"]}:{line["line_number"]}'
            lines.add([line["count"]])
            branches.add(counts)
            if line["count"] == 0:
                missed.append(f"{place}: not run: {text}")
            elif 0 in counts:
                missed.append(f"{place}: {counts.count(0)} of {len(counts)} branches not taken: {text}")
        print(f'{source["file"]:45}{lines} {branches}')
        for part, whole in ((lines, all_lines), (branches, all_branches)):
            whole.reached += part.reached
            whole.total += part.total
    print(f'{"Src":45}{all_lines} {all_branches}')
    print("\n".join(missed))
    if all_lines.percent() < LINES_GOAL or all_branches.percent() < BRANCHES_GOAL:
        sys.exit(f"The goals are {LINES_GOAL} % of the lines and {BRANCHES_GOAL} % of the branches.")


if __name__ == "__main__":
    if len(sys.argv) != 2:
        sys.exit(__doc__)
    main(sys.argv[1])
