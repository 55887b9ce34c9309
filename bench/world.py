"""The programs that are compared (the daemon, a bare daemon, udisksd with its helpers), and the disks they all use.

Runs inside tools/dev/private_root. Ends only processes that it started, by pid.
"""

import contextlib
import fcntl
import os
import pathlib
import re
import shutil
import signal
import subprocess
import sys
import time

SOURCE = pathlib.Path(__file__).resolve().parents[1]
sys.path.insert(0, str(SOURCE / "tools" / "try"))

import stick

LOOP_CTL_REMOVE = 0x4C81
DAEMON_SOCKET = "/run/ravel/9020.sock"
BARE_SOCKET = "/run/bare.sock"
BUS_SOCKET = "/run/bus.sock"
UDISKSD = "/usr/libexec/udisks2/udisksd"
UDEVD = "/lib/systemd/systemd-udevd"
DBUS_DAEMON = "/usr/bin/dbus-daemon"
BUS_SETTINGS = f"""<busconfig>
  <type>system</type>
  <listen>unix:path={BUS_SOCKET}</listen>
  <policy context="default">
    <allow user="*"/><allow own="*"/><allow send_destination="*" eavesdrop="true"/><allow eavesdrop="true"/>
  </policy>
</busconfig>
"""


class NotTaken(Exception):
    """A figure could not be taken; the text is the reason."""


def pss_of(*pids):
    """PSS in KiB: a page that n processes share counts as 1/n for each."""
    kibibytes = 0
    for pid in pids:
        # A process that has just exited has no file.
        with contextlib.suppress(FileNotFoundError, ProcessLookupError):
            text = pathlib.Path(f"/proc/{pid}/smaps_rollup").read_text()
            kibibytes += int(text.partition("\nPss:")[2].split()[0])
    return kibibytes


def children_of(pid):
    return [int(child) for child in pathlib.Path(f"/proc/{pid}/task/{pid}/children").read_text().split()]


def threads_of(pid):
    # The workers of udevd come and go.
    with contextlib.suppress(FileNotFoundError, ProcessLookupError):
        return [int(thread) for thread in os.listdir(f"/proc/{pid}/task")]
    return []


@contextlib.contextmanager
def one_processor(pids):
    """Keeps these processes, and those that start meanwhile, on one processor.

    Only one of a caller and its server runs at a time. Without this, the scheduler's choice of one processor or two
    decides the result."""
    everywhere = os.sched_getaffinity(0)
    threads = [thread for pid in (os.getpid(), *pids) for thread in threads_of(pid)]
    try:
        for thread in threads:
            with contextlib.suppress(ProcessLookupError):
                os.sched_setaffinity(thread, {max(everywhere)})
        yield
    finally:
        for thread in threads:
            with contextlib.suppress(ProcessLookupError):
                os.sched_setaffinity(thread, everywhere)


class Programs:
    """Runs the programs of a build tree."""

    def __init__(self, build):
        self.bin = pathlib.Path(build) / "bin"
        self.environment = dict(
            os.environ,
            DBUS_SYSTEM_BUS_ADDRESS=f"unix:path={BUS_SOCKET}",
            SYSTEMD_IGNORE_CHROOT="1",
            LC_ALL="C",
            PATH=f"{build}/image-tools:/usr/sbin:/usr/bin:/sbin:/bin",
        )
        self.environment.pop("TLOG_LEVEL", None)
        self.log = open("/tmp/log", "ab")

    def start(self, *command):
        """Starts a program that ends with this one."""
        return subprocess.Popen(
            ["setpriv", "--pdeathsig", "KILL", *map(str, command)],
            env=self.environment,
            stdin=subprocess.DEVNULL,
            stdout=self.log,
            stderr=self.log,
        )

    def start_unshared(self, program, *arguments):
        """The same, with copies of the program and its libraries.

        The PSS of a library depends on how many other processes use it. How much of a file is read at once depends on
        how the file was written."""
        listed = subprocess.run(["ldd", program], check=True, stdout=subprocess.PIPE, text=True).stdout
        copies = pathlib.Path("/tmp/copies")
        if not copies.exists():
            copies.mkdir()
            subprocess.run(["mount", "-t", "tmpfs", "-o", "huge=never", "none", str(copies)], check=True)
        for file in (program, *re.findall(r"=> (/\S+)", listed)):
            copy = copies / os.path.basename(file)
            if not copy.exists():
                shutil.copy(file, copy)
        return self.start("env", f"LD_LIBRARY_PATH={copies}", copies / os.path.basename(program), *arguments)

    def measure(self, *arguments):
        """Runs a command of bench_measure and returns its figures by name."""
        done = subprocess.run(
            [str(self.bin / "bench_measure"), *map(str, arguments)],
            env=self.environment,
            stdin=subprocess.DEVNULL,
            stdout=subprocess.PIPE,
            stderr=subprocess.PIPE,
            timeout=300,
        )
        if done.returncode != 0:
            raise NotTaken(done.stderr.decode(errors="replace").strip() or f"{arguments[0]} failed")
        return {name: float(value) for name, value in map(str.split, done.stdout.decode().splitlines())}


def end(process):
    process.kill()
    process.wait()


def wait_until(condition, what, seconds=20):
    deadline = time.monotonic() + seconds
    while not condition():
        if time.monotonic() > deadline:
            raise NotTaken(f"{what}: not ready within {seconds} s")
        time.sleep(0.01)


class Peer:
    """udisksd with its own bus and its own udevd. While it is paused, it does not disturb other measurements."""

    def __init__(self, programs):
        self.programs = programs
        self.needs = []
        self.udisksd = None
        for program in (UDISKSD, UDEVD, DBUS_DAEMON):
            if shutil.which(program) is None:
                raise NotTaken(f"{program} is not installed")
        subprocess.run(["mount", "-t", "tmpfs", "none", "/var/lib"], check=True)
        pathlib.Path("/tmp/bus.conf").write_text(BUS_SETTINGS)
        self.needs.append(
            programs.start_unshared(DBUS_DAEMON, "--config-file=/tmp/bus.conf", "--nofork", "--nopidfile")
        )
        self.needs.append(programs.start_unshared(UDEVD))
        wait_until(
            lambda: os.path.exists(BUS_SOCKET) and os.path.exists("/run/udev/control"), "bus and udevd"
        )

    def settle(self):
        """Lets udevd probe all disks, and waits until it has."""
        for command in (["trigger", "--action=add", "--subsystem-match=block"], ["settle", "--timeout=60"]):
            subprocess.run(["udevadm", *command], env=self.programs.environment, check=True)

    def start(self):
        self.udisksd = self.programs.start_unshared(UDISKSD)
        wait_until(self.answers, "udisksd")

    def answers(self):
        try:
            self.programs.measure("peer-ping", 1)
            return True
        except NotTaken:
            return False

    def stop(self):
        if self.udisksd:
            end(self.udisksd)
            self.udisksd = None

    def pids(self):
        return self.needed_pids() + ([self.udisksd.pid] if self.udisksd else [])

    def needed_pids(self):
        return [pid for process in self.needs for pid in (process.pid, *children_of(process.pid))]

    def _signal(self, number):
        for process in (*self.needs, self.udisksd):
            if process:
                process.send_signal(number)

    @contextlib.contextmanager
    def paused(self):
        self._signal(signal.SIGSTOP)
        try:
            yield
        finally:
            self._signal(signal.SIGCONT)
            # It now reads what was mounted and unmounted meanwhile. That must not count for its next call.
            time.sleep(0.05)

    def end(self):
        self.stop()
        for process in self.needs:
            end(process)


class Disks:
    """Loop devices and their nodes in /dev. The first has an ext3 file system."""

    def __init__(self):
        self.before = set(loop_numbers())
        self.numbers = set()
        self.descriptors = []
        self.nodes = []

    def add(self, count):
        """Makes loop devices until there are `count`."""
        while len(self.descriptors) < count:
            image = f"/tmp/disk{len(self.descriptors)}.img"
            first = not self.descriptors
            with open(image, "wb") as file:
                file.truncate((64 if first else 1) << 20)
            if first:
                subprocess.run(["mkfs.ext3", "-q", "-F", "-L", "MUSIC", image], check=True)
            self._attach(image)
        self.show(count)

    def _attach(self, image, offset=0):
        descriptor = stick.attach_loop_device(image, offset)
        self.descriptors.append(descriptor)
        self.numbers.add(loop_number(os.readlink(f"/proc/self/fd/{descriptor}")))

    def show(self, count):
        """Makes nodes for the first `count` devices, and for no others."""
        while len(self.nodes) > count:
            os.unlink(self.nodes.pop())
        for number in range(len(self.nodes), count):
            letters = "sd" + chr(ord("a") + number // 26) + chr(ord("a") + number % 26)
            node = f"/dev/usb_storage_{letters}"
            stick.write_node(node, self.descriptors[number])
            os.makedirs(f"/sys/block/{letters}", exist_ok=True)
            pathlib.Path(f"/sys/block/{letters}/removable").write_text("1\n")
            self.nodes.append(node)

    def first_object(self):
        """The first disk's name on the bus."""
        loop = os.path.basename(os.readlink(f"/proc/self/fd/{self.descriptors[0]}"))
        return f"/org/freedesktop/UDisks2/block_devices/{loop}"

    def recording_disk(self):
        """Replaces the disks with one that is large enough for xfs; returns its node."""
        self.show(0)
        image = "/tmp/recording.img"
        with open(image, "wb") as file:
            file.truncate(520 << 20)
        node = "/dev/usb_storage_sdr"
        for offset, suffix in ((0, ""), (stick.PARTITION_OFFSET, "1")):
            self._attach(image, offset)
            stick.write_node(node + suffix, self.descriptors[-1])
            self.nodes.append(node + suffix)
        return node

    def end(self):
        self.show(0)
        for descriptor in self.descriptors:
            os.close(descriptor)
        with open("/dev/loop-control") as control:
            for number in self.numbers - self.before:
                # The kernel releases a closed device with a delay.
                for _ in range(100):
                    try:
                        fcntl.ioctl(control, LOOP_CTL_REMOVE, number)
                        break
                    except OSError:
                        time.sleep(0.01)


def loop_number(node):
    return int(os.path.basename(node).removeprefix("loop"))


def loop_numbers():
    return [loop_number(name) for name in os.listdir("/sys/class/block") if re.fullmatch(r"loop\d+", name)]
