"""The survivors that are known, from accepted.txt: entries of four lines, a source's name, the line before and after
the change, and the reason. An entry goes by the text of its line and stands for every mutant that looks like it."""

import os

FILE = os.path.join(os.path.dirname(os.path.abspath(__file__)), 'accepted.txt')


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
        """The lines of entries that no survivor has had."""
        return [f'{name}: {after}' for name, before, after in sorted(self.entries - self.used)]


def read():
    entries = set()
    if os.path.exists(FILE):
        with open(FILE) as file:
            lines = [line.strip() for line in file if line.strip() and not line.startswith('#')]
        for name, before, after, reason in zip(*[iter(lines)] * 4):
            if not (before.startswith('- ') and after.startswith('+ ') and reason.startswith('because ')):
                raise ValueError(f'accepted.txt: not an entry: {name}, {before}, {after}, {reason}')
            entries.add((name, before[2:], after[2:]))
    return Accepted(entries)
