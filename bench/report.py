"""Writes the tables: to the terminal, into docs/BENCHMARKS.md, and as JSON."""

import pathlib
import re
import subprocess

import arithmetic
from rows import AGAINST_THE_LIMIT, AGAINST_THE_PEER
from world import SOURCE, UDISKSD

DOCUMENT = SOURCE / "docs" / "BENCHMARKS.md"
BEGIN, END = "<!-- figures: bench/compare --write -->", "<!-- end of figures -->"
MAX_SMALL_DAEMON_BYTES = 700 * 1000


class Result:
    """A row with its figures: `ours` and `other` are medians of the rounds. Without figures, `reason` says why."""

    def __init__(self, row, figures, reasons):
        self.row = row
        self.reason = next((reasons[name] for name in row.needs if name in reasons), "")
        counts = {len(figures.get(name, ())) for name in row.needs}
        if not self.reason and (len(counts) != 1 or counts == {0}):
            self.reason = "a round has no figure"
        if self.reason:
            return
        rounds = [dict(zip(row.needs, values)) for values in zip(*(figures[name] for name in row.needs))]
        ours = [row.ours(values) for values in rounds]
        others = [row.other(values) for values in rounds]
        self.ours = arithmetic.median(ours)
        self.other = arithmetic.median(others)
        self.ratio = arithmetic.ratio_of(ours, others)

    def cells(self):
        row = self.row
        goal = str(row.goal) if row.goal else ""
        if self.reason:
            return [row.what, "not taken", "", "", goal, ""]
        verdict = ""
        if row.goal:
            verdict = "reached" if row.goal.is_reached_by(self.ratio.middle) else "NOT reached"
        return [
            row.what,
            amount(self.ours, row.unit),
            amount(self.other, row.unit),
            arithmetic.spread(self.ratio, row.less_is_better),
            goal,
            verdict,
        ]


def amount(value, unit):
    """A figure for people to read. Ratios use the unrounded figures."""
    if unit == "µs" and value >= 10_000:
        return f"{value / 1000:.1f} ms"
    if unit == "calls/s":
        return f"{value:.0f}/s"
    return f"{value:.1f} µs" if unit == "µs" else f"{value:.0f} {unit}"


def single_rows(figures, reasons, size):
    """The rows without a ratio: (what, figure, goal, verdict or reason)."""
    if "processes" in reasons:
        started = ("not taken", reasons["processes"])
    else:
        count = figures["processes"][0]
        started = (f"{count}", "reached" if count == 0 else "NOT reached")
    small = ("not taken", "give it with --size BYTES")
    if size is not None:
        small = (f"{-(-size // 1000)} KB", "reached" if size <= MAX_SMALL_DAEMON_BYTES else "NOT reached")
    return [
        ["processes started by listing, opening, closing, probing", started[0], "0", started[1]],
        ["stripped daemon, -Os, libthrift static, arm", small[0], "≤ 700 KB", small[1]],
    ]


def markdown(heads, rows):
    lines = ["| " + " | ".join(cells) + " |" for cells in [heads, ["---"] * len(heads), *rows]]
    return "\n".join(re.sub(r"  +", " ", line) for line in lines)


def tables(figures, reasons, size):
    """The text of all tables, and the results of each table."""
    results = {
        kind: [Result(row, figures, reasons) for row in rows]
        for kind, rows in (("peer", AGAINST_THE_PEER), ("limit", AGAINST_THE_LIMIT))
    }
    text = []
    for kind, title, other in (("peer", "Against the peer", "peer"), ("limit", "Against the limit", "limit")):
        text += [
            f"### {title}",
            markdown(
                ["what", "Dockhand", other, "ratio (quartiles)", "goal", ""],
                [result.cells() for result in results[kind]],
            ),
        ]
    text += [
        "### Without a ratio",
        markdown(["what", "figure", "goal", ""], single_rows(figures, reasons, size)),
    ]
    missing = sorted(
        {
            f"- {result.row.what}: {result.reason}"
            for kind in results.values()
            for result in kind
            if result.reason
        }
    )
    if missing:
        text += ["Not taken:", "\n".join(missing)]
    return "\n\n".join(text), results


def output_of(*command):
    done = subprocess.run(command, stdout=subprocess.PIPE, stderr=subprocess.STDOUT, text=True)
    return done.stdout.strip() if done.returncode == 0 else ""


def versions():
    """Versions of the packages that are measured or linked."""
    packages = ("udisks2", "udev", "dbus-daemon", "libblkid1", "libthrift-dev", "libstdc++6", "mount")
    return [
        f"{name} {version}"
        for name in packages
        if (version := output_of("dpkg-query", "--show", "--showformat", "${Version}", name))
    ]


def machine(command, rounds, packages):
    """Where and how the figures were taken."""
    cpu = re.search(r"model name\s*:\s*(.*)", pathlib.Path("/proc/cpuinfo").read_text())
    memory = int(re.search(r"MemTotal:\s*(\d+)", pathlib.Path("/proc/meminfo").read_text())[1]) >> 20
    build = (rounds.programs.bin.parent / "CMakeCache.txt").read_text()
    thrift = "statically" if "DOCKHAND_STATIC_THRIFT:BOOL=ON" in build else "as a shared library"
    lines = [
        f'- Command: `{command}`, {rounds.sizes.rounds} rounds, on {output_of("date", "+%Y-%m-%d")}.',
        f'- Machine: {output_of("nproc")} processors ({cpu[1] if cpu else "unknown"}), {memory} GiB, a virtual machine, '
        f'Linux {output_of("uname", "-r")}.',
        f'- Built by {output_of("c++", "--version").splitlines()[0]}, with the preset `bench`; libthrift is linked '
        f"{thrift}.",
        "- Debian packages: " + ", ".join(packages) + ".",
    ]
    if rounds.peer:
        listed = " and ".join(
            f"{rounds.listed[devices] or 0:.0f} (with {devices} disks)" for devices in ("8", "64")
        )
        lines.append(f"- The peer is `{UDISKSD}`. It lists every block device of the machine: {listed}.")
    return "\n".join(wrapped(line) for line in lines)


def wrapped(line):
    """Wraps at 120 columns, the limit of all documents."""
    lines = [""]
    for word in line.split():
        if len(lines[-1]) + 1 + len(word) > 120:
            lines.append(" ")
        lines[-1] += (" " if lines[-1] else "") + word
    return "\n".join(lines)


def write_document(text):
    document = DOCUMENT.read_text()
    before, _, rest = document.partition(BEGIN)
    _, _, after = rest.partition(END)
    DOCUMENT.write_text(f"{before}{BEGIN}\n\n{text}\n\n{END}{after}")


def as_data(results, figures, reasons):
    return {
        "rows": [
            {
                "table": kind,
                "what": result.row.what,
                "reason": result.reason,
                "ratio": None if result.reason else result.ratio.middle,
            }
            for kind, rows in results.items()
            for result in rows
        ],
        "figures": figures,
        "reasons": reasons,
    }
