"""The measurements, in rounds. Each round takes every figure once, and ours next to the one it is compared with."""

import contextlib
import dataclasses
import pathlib
import re
import subprocess
import sys
import time

from world import (
    BARE_SOCKET,
    DAEMON_SOCKET,
    UDISKSD,
    Disks,
    NotTaken,
    Peer,
    end,
    one_processor,
    pss_of,
    wait_until,
)

DEVICE = 1
# PrepareDeviceForPvr sleeps 4 s and 2 s.
PREPARATION_PAUSES_MICROSECONDS = 6e6


@dataclasses.dataclass(frozen=True)
class Sizes:
    """How much to measure: the number of rounds, and the number of calls and so on in each round."""

    rounds: int = 20
    calls: int = 1000
    load_calls: int = 1500
    starts: int = 5
    lists: int = 200
    answers: int = 50
    mounts: int = 12
    files: int = 1_000_000
    searches: int = 2
    flood: int = 100_000
    tool_rounds: int = 20


# fmt: off
SHORT = Sizes(
    rounds=2, calls=20, load_calls=50, starts=1, lists=10, answers=5, mounts=1, files=10_000, flood=2_000,
    tool_rounds=1,
)
# fmt: on


class Rounds:
    """Runs the phases. `figures` has a list for each name; `reasons` says why a figure is missing."""

    def __init__(self, programs, sizes):
        self.programs = programs
        self.sizes = sizes
        self.figures = {}
        self.reasons = {}
        self.listed = {}
        self.peer = None
        self.pids = []
        self.disks = Disks()

    def run(self):
        try:
            with self.noting("peer"):
                self.peer = Peer(self.programs)
            self.disks.add(8)
            if self.peer:
                self.peer.settle()
            for phase in (
                self.starting,
                self.working,
                self.many_devices,
                self.much_work,
                self.many_files,
                self.processes,
                self.recording_disk,
            ):
                print(phase.__name__.replace("_", " "), file=sys.stderr, flush=True)
                phase()
        finally:
            if self.peer:
                self.peer.end()
            self.disks.end()

    @contextlib.contextmanager
    def noting(self, *names):
        """Turns a failure into the reason for missing figures, and goes on."""
        try:
            yield
        except (NotTaken, OSError, subprocess.SubprocessError) as failure:
            for name in names:
                self.reasons.setdefault(name, " ".join(str(failure).split()))

    def take(self, names, *command):
        """Takes figures. `names` maps each name that the command reports to the name of the figure."""
        with self.noting(*names.values()):
            reported = self.programs.measure(*command)
            for reported_name, name in names.items():
                self.figures.setdefault(name, []).append(reported[reported_name])
            return reported
        return {}

    def take_time(self, name, *command):
        return self.take({"microseconds": name}, *command)

    def take_peer(self, names, *command):
        if self.peer is None:
            for name in names.values():
                self.reasons[name] = self.reasons["peer"]
            return {}
        return self.take(names, *command)

    def peer_paused(self):
        return self.peer.paused() if self.peer else contextlib.nullcontext()

    def one_processor(self):
        return one_processor(self.pids + (self.peer.pids() if self.peer else []))

    @contextlib.contextmanager
    def servers(self):
        """Runs both daemons and the peer, and waits until they reply."""
        running = [
            self.programs.start_unshared(self.programs.bin / "dockhand"),
            self.programs.start_unshared(self.programs.bin / "bench_daemon", BARE_SOCKET),
        ]
        try:
            if self.peer:
                self.peer.start()
            wait_until(lambda: self.answers(DAEMON_SOCKET) and self.answers(BARE_SOCKET), "the daemons")
            self.pids = [process.pid for process in running]
            yield running[0]
        finally:
            for process in running:
                end(process)
            if self.peer:
                self.peer.stop()

    def answers(self, socket):
        try:
            self.programs.measure("raw-call", socket, 1)
            return True
        except NotTaken:
            return False

    def starting(self):
        """Start and idle memory, one program after another."""
        starts = self.sizes.starts
        dockhand = [self.programs.bin / "dockhand"]
        bare = [self.programs.bin / "bench_daemon", BARE_SOCKET]
        for _ in range(self.sizes.rounds):
            with self.peer_paused():
                self.take_time("start", "start", starts, DAEMON_SOCKET, *dockhand)
                self.take_time("start bare", "start", starts, BARE_SOCKET, *bare)
                self.take_memory("memory", DAEMON_SOCKET, dockhand)
                self.take_memory("memory bare", BARE_SOCKET, bare)
            if self.peer:
                self.take_time("start peer", "start-peer", 2, UDISKSD)
                with self.noting("memory peer"):
                    self.peer.start()
                    time.sleep(0.3)
                    self.figures.setdefault("memory peer", []).append(pss_of(*self.peer.pids()))
                    self.peer.stop()
            else:
                self.reasons["start peer"] = self.reasons["memory peer"] = self.reasons["peer"]

    def take_memory(self, name, socket, command):
        process = self.programs.start_unshared(*command)
        try:
            with self.noting(name):
                wait_until(lambda: self.answers(socket), name)
                time.sleep(0.3)
                self.figures.setdefault(name, []).append(pss_of(process.pid))
        finally:
            end(process)

    def working(self):
        """All calls, with 8 devices."""
        node = self.disks.nodes[0]
        with self.servers():
            for _ in range(self.sizes.rounds):
                self.load()
                with self.one_processor():
                    self.calls()
                    self.lists("8")
                    self.mounts(node)

    def load(self):
        calls = self.sizes.load_calls
        self.take_peer({"calls_per_second": "load peer", "p99": "p99 peer"}, "peer-load", 10, calls // 5)
        with self.peer_paused():
            self.take({"calls_per_second": "load", "p99": "p99"}, "stub-load", 10, calls)
            self.take(
                {"calls_per_second": "load bare", "p99": "p99 bare"}, "raw-load", BARE_SOCKET, 10, calls
            )
            self.take(
                {"calls_per_second": "load raw", "p99": "p99 raw"}, "raw-load", DAEMON_SOCKET, 10, calls
            )

    def calls(self):
        calls = self.sizes.calls
        self.take_peer({"microseconds": "call peer"}, "peer-ping", calls)
        with self.peer_paused():
            self.take_time("call", "stub-call", calls)
            self.take_time("call bare", "raw-call", BARE_SOCKET, calls)
            self.take_time("call raw", "raw-call", DAEMON_SOCKET, calls)

    def lists(self, devices):
        lists = self.sizes.lists
        listed = self.take_peer({"microseconds": f"list{devices} peer"}, "peer-list", lists)
        self.listed[devices] = listed.get("devices")
        with self.peer_paused():
            self.take_time(f"list{devices}", "list", lists)
            self.take_time(f"scan{devices}", "bare-scan", lists)

    def mounts(self, node):
        mounts, answers = self.sizes.mounts, self.sizes.answers
        names = {"open": "open peer", "close": "close peer"}
        item = self.disks.first_object()
        self.take_peer(names, "peer-mount", item, mounts)
        if self.peer:
            # Ask while the disk is mounted, and mount it with the program that is asked.
            with self.noting("answers peer", "answers together"), self.mounted_by_peer(item):
                self.take_time("answers peer", "peer-answers", item, answers)
                self.take_time("answers together", "peer-answers-together", item, answers)
        else:
            self.reasons["answers peer"] = self.reasons["answers together"] = self.reasons["peer"]
        with self.peer_paused():
            # The first one pays for work that the peer left to the kernel, so let each be first in turn.
            ways = [
                ("", "open", DEVICE),
                (" bare", "bare-open", node, "/media/bare"),
                (" program", "mount-program", node, "/media/program"),
            ]
            first = len(self.figures.get("call", ())) % len(ways)
            for name, *command in ways[first:] + ways[:first]:
                self.take({"open": f"open{name}", "close": f"close{name}"}, *command, mounts)
            with self.noting("answers", "probe"), self.opened():
                self.take_time("answers", "answers", DEVICE, answers)
                self.take_time("probe", "bare-probe", node, answers)

    @contextlib.contextmanager
    def mounted_by_peer(self, item):
        self.programs.measure("peer-call", item, "Mount")
        try:
            yield
        finally:
            self.programs.measure("peer-call", item, "Unmount")

    @contextlib.contextmanager
    def opened(self):
        self.programs.measure("open-only", DEVICE)
        try:
            yield
        finally:
            self.programs.measure("close-only", DEVICE)

    def many_devices(self):
        self.disks.add(64)
        if self.peer:
            self.peer.settle()
        with self.servers():
            for _ in range(self.sizes.rounds):
                with self.one_processor():
                    self.lists("64")
                self.disks.show(8)
                with self.peer_paused(), self.one_processor():
                    self.take_time("list8 next to 64", "list", self.sizes.lists)
                self.disks.show(64)
        self.disks.show(8)

    def much_work(self):
        """Memory after many calls and connections, compared with none and with a few."""
        names = ("memory before", "memory warm", "memory after")
        with self.servers() as daemon, self.peer_paused(), self.noting(*names):
            for name, calls in zip(names, (0, self.sizes.flood // 50, self.sizes.flood)):
                if calls:
                    self.programs.measure("stub-load", 10, calls)
                    self.programs.measure("many-connections", DAEMON_SOCKET, 200)
                time.sleep(0.3)
                self.figures[name] = [pss_of(daemon.pid)]

    def many_files(self):
        self.programs.measure("fill-folder", "/tmp/songs", self.sizes.files)
        searches = self.sizes.searches
        with self.servers(), self.peer_paused():
            for _ in range(self.sizes.rounds):
                bare = self.take_time("files bare", "bare-search", "/tmp/songs", searches)
                self.take_time(
                    "files", "search", DAEMON_SOCKET, "tmp/songs", int(bare.get("bytes", 1)), searches
                )

    def processes(self):
        """Counts the processes that the daemon starts for the most frequent calls.

        Then makes a call that does start one, to prove that strace sees it."""
        with self.servers() as daemon, self.noting("processes"):
            self.programs.measure("stub-call", 1)
            trace = pathlib.Path("/tmp/trace")
            options = ("-f", "-qq", "-e", "trace=clone,clone3,fork,vfork,execve", "-o", trace)
            tracer = self.programs.start("strace", *options, "-p", daemon.pid)
            try:
                status = pathlib.Path(f"/proc/{daemon.pid}/task")
                wait_until(lambda: all(is_traced(task) for task in status.iterdir()), "strace")
                self.programs.measure("list", 10)
                self.programs.measure("open", DEVICE, 2)
                self.programs.measure("open-only", DEVICE)
                self.programs.measure("answers", DEVICE, 2)
                self.programs.measure("close-only", DEVICE)
                begun = len(re.findall(r"fork|clone|exec", trace.read_text()))
                self.programs.measure("usb-version", DEVICE)
                if len(re.findall(r"fork|clone|exec", trace.read_text())) == begun:
                    raise NotTaken("strace does not see the started processes")
                self.figures["processes"] = [begun]
            finally:
                tracer.terminate()
                tracer.wait()

    def recording_disk(self):
        disk = self.disks.recording_disk()
        with self.servers(), self.peer_paused():
            self.programs.measure("list", 1)
            for _ in range(self.sizes.tool_rounds):
                names = {"prepare": "prepare", "repair": "repair"}
                self.take(names, "prepare", DEVICE)
                self.take({name: f"{name} tools" for name in names}, "tools", disk)


def is_traced(task):
    return re.search(r"^TracerPid:\s*[1-9]", (task / "status").read_text(), re.MULTILINE)
