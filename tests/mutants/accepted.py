"""Reads the accepted survivors from accepted.txt.

An entry has four lines: the name of the source, the line before the change, the line after it, and the reason. An entry
matches by the text of its lines, so it covers every mutant with these lines."""

import os

FILE = os.path.join(os.path.dirname(os.path.abspath(__file__)), "accepted.txt")


class Accepted:
    def __init__(self, entries):
        self.entries = entries
        self.used = set()

    def take(self, name, mutant, source):
        """Whether the mutant is among the entries."""
        entry = (name, mutant.before(source), mutant.after(source))
        self.used.add(entry)
        return entry in self.entries

    def left(self):
        """The entries that match no survivor."""
        return [f"{name}: {after}" for name, before, after in sorted(self.entries - self.used)]


def read():
    entries = set()
    if os.path.exists(FILE):
        with open(FILE) as file:
            lines = [line.strip() for line in file if line.strip() and not line.startswith("#")]
        for name, before, after, reason in zip(*[iter(lines)] * 4):
            if not (before.startswith("- ") and after.startswith("+ ") and reason.startswith("because ")):
                raise ValueError(f"accepted.txt: not an entry: {name}, {before}, {after}, {reason}")
            entries.add((name, before[2:], after[2:]))
    return Accepted(entries)
