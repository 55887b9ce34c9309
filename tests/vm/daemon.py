"""A guest with the installed daemon: its log, its client, and the announced sticks."""

import json
import signal

import testcase

DAEMON_LOG = "/run/dockhand.log"
EVENTS = "/run/events"
TOOLS_PATH = "/usr/lib/dockhand/tools:/usr/sbin:/usr/bin:/sbin:/bin"

NO_SUCH_DEVICE = 3


class DaemonTestCase(testcase.MachineTestCase):
    """A test with sticks in a guest that has the installed programs, rules and units."""

    installed = True

    def setUp(self):
        super().setUp()
        self.daemon = None
        self.watcher = None
        self.addCleanup(self.finish_announcements)

    def _clear_machine(self):
        super()._clear_machine()
        self.finish_announcements()

    def finish_announcements(self):
        """Waits until every stick is announced, to the daemon if it runs."""
        self.machine.settle()
        if self.init == "systemd":
            self.machine.check(
                'until test -z "$(systemctl list-jobs --no-legend)"; do sleep 0.05; done', timeout=120
            )
        else:
            self.machine.check(
                "test ! -e /run/dockhand || flock /run/dockhand/plug-events.lock true", timeout=120
            )

    def start_daemon(self, level="2", **environment):
        self.machine.check(["rm", "-f", DAEMON_LOG])
        environment = {"PATH": TOOLS_PATH, "TLOG_LEVEL": level, **environment}
        self.daemon = self.machine.start(
            ["/usr/lib/dockhand/dockhand-launch", "/usr/sbin/dockhand"], log=DAEMON_LOG, env=environment
        )
        self.addCleanup(self.kill_daemon)
        self.await_daemon()

    def await_daemon(self):
        self.machine.check("until dockhandctl list >/dev/null 2>&1; do sleep 0.1; done", timeout=120)

    def kill_daemon(self):
        if self.daemon is not None:
            self.machine.kill(self.daemon, signal.SIGKILL)
            self.machine.wait(self.daemon)
            self.daemon = None

    def daemon_log(self):
        return self.machine.get(DAEMON_LOG).decode(errors="replace")

    def ctl(self, *arguments, timeout=120):
        return self.machine.run(["dockhandctl", *map(str, arguments)], timeout=timeout)

    def assert_ctl(self, status, *arguments, timeout=120):
        result = self.ctl(*arguments, timeout=timeout)
        self.assertEqual(result.status, status, f"dockhandctl {arguments}: {result}")
        return result

    def ask(self, *arguments):
        """Returns the JSON output of a command."""
        return json.loads(self.assert_ctl(0, *arguments, "--json").stdout)

    def devices(self):
        return self.ask("list", "--all")

    def names_of_files(self, device, extension, directory=""):
        return self.ask("files", device, directory, extension)["files"]

    def kernel_name(self, device):
        return self.ask("kernel-name", device)["kernelName"]

    # Observers.

    def watch(self):
        """Registers an observer; wait_observed() returns its calls."""
        self.machine.check(["rm", "-f", EVENTS])
        self.watcher = self.machine.start(["dockhandctl", "watch", "--json"], log=EVENTS)
        self.addCleanup(self._end_watch)
        # The first line reports that it watches.
        self.machine.wait_lines(EVENTS, 1)

    def _end_watch(self):
        self.machine.kill(self.watcher, signal.SIGKILL)
        self.machine.wait(self.watcher)

    def observed(self):
        """Returns [(event, device number), ...] so far."""
        events = [json.loads(line) for line in self.machine.get(EVENTS).decode().splitlines()[1:]]
        return [(event["event"], event["device"]) for event in events]

    def wait_observed(self, *expected):
        """Waits until the observer has that many calls, and no announcement is pending."""
        self.machine.wait_lines(EVENTS, 1 + len(expected), timeout=120)
        self.finish_announcements()
        self.assertEqual(self.observed(), list(expected))

    def start_writing(self, directory):
        """Starts a program that writes to the disk at the directory until it fails; returns once it writes."""
        writing = "/run/writing"
        self.machine.check(["rm", "-f", writing])
        writer = self.machine.start(
            f"while dd if=/dev/zero of={directory}/growing bs=64k count=32 conv=fsync; do echo; done",
            log=writing,
        )
        # Two rounds of dd, each with three lines.
        self.machine.wait_lines(writing, 8)
        return writer

    # Mounts.

    def mounts(self, process="self"):
        """Returns [(device, directory, file system, options), ...] below /media."""
        table = self.machine.get(f"/proc/{process}/mounts").decode().splitlines()
        fields = [tuple(line.split(" ")[:4]) for line in table]
        return [mount for mount in fields if mount[1].startswith("/media/")]

    def assert_mounted(self, directory, filesystem, *options):
        """Expects exactly this mount at the directory; returns its options."""
        found = [mount for mount in self.mounts() if mount[1] == directory]
        self.assertEqual([mount[2] for mount in found], [filesystem], self.mounts())
        given = found[0][3].split(",")
        for option in options:
            self.assertIn(option, given)
        return given
