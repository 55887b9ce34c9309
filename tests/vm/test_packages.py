"""The Debian packages under systemd: installed, upgraded, purged."""

import os
import re
import subprocess

import daemon
import machine
import testcase

NEWER = "9.0"
DATABASE = "/tmp/dpkg"
# Places where a package's scripts and its service leave files. The packages' own files are checked as well.
FOLDERS = (
    "/etc/systemd /etc/udev /media /run/dockhand /run/ravel /var/lib/systemd/deb-systemd-helper-enabled "
    "/var/lib/systemd/deb-systemd-helper-masked"
)


class Packages(daemon.DaemonTestCase):
    init = "systemd"
    # A machine without our installation: the packages install it.
    installed = False

    def setUp(self):
        super().setUp()
        # Tests of the rules put their own files in place of the packages'.
        self.machine.check(
            "rm -rf /usr/bin/dockhandctl /usr/lib/dockhand /etc/systemd/system/dockhand* /run/udev/rules.d"
        )
        self.make_database()

    def make_database(self):
        """Makes a dpkg database of only the packages' dependencies: reading the host's takes minutes here."""
        needed = set()
        for name in ("dockhand", "dockhand-client"):
            fields = subprocess.run(
                ["dpkg-deb", "--field", testcase.package(name), "Depends"],
                check=True,
                stdout=subprocess.PIPE,
                text=True,
            ).stdout
            needed |= set(re.findall(r"(?:^|, )([a-z0-9+.-]+)", fields)) - {"dockhand-client"}
        status = subprocess.run(
            ["dpkg-query", f"--admindir={machine.ROOT}/var/lib/dpkg", "--status", *sorted(needed)],
            check=True,
            stdout=subprocess.PIPE,
        ).stdout
        self.machine.check(f"rm -rf {DATABASE} && mkdir -p {DATABASE}/info {DATABASE}/updates")
        self.machine.put(f"{DATABASE}/status", status)

    def build(self, name, version=""):
        """Copies the package, or a later version of it, to the guest; returns its path there."""
        package = os.path.join(self.folder, f"{name}.deb")
        original = testcase.package(name)
        if version:
            content = os.path.join(self.folder, name)
            subprocess.run(["dpkg-deb", "--raw-extract", original, content], check=True)
            control = os.path.join(content, "DEBIAN", "control")
            with open(control, encoding="utf-8") as file:
                lines = [f"Version: {version}\n" if line.startswith("Version:") else line for line in file]
            with open(control, "w", encoding="utf-8") as file:
                file.writelines(lines)
            subprocess.run(
                ["dpkg-deb", "--build", "-Zgzip", content, package], check=True, stdout=subprocess.DEVNULL
            )
            original = package
        path = f"/tmp/{name}.deb"
        with open(original, "rb") as file:
            self.machine.put(path, file.read())
        return path

    def dpkg(self, *arguments):
        self.machine.check(
            ["dpkg", f"--admindir={DATABASE}", *arguments],
            timeout=240,
            env={"PATH": "/usr/sbin:/usr/bin:/sbin:/bin"},
        )

    def main_pid(self):
        return int(self.machine.check(["systemctl", "show", "--property=MainPID", "--value", "dockhand"]))

    def version(self):
        return self.machine.check(
            ["dpkg-query", f"--admindir={DATABASE}", "--show", "--showformat=${Version}", "dockhand"]
        )

    def files_of_packages(self):
        lines = self.machine.check(
            ["dpkg", f"--admindir={DATABASE}", "--listfiles", "dockhand", "dockhand-client"]
        )
        return [line for line in lines.splitlines() if "dockhand" in line]

    def traces(self):
        return set(self.machine.run(f"find {FOLDERS}").stdout.splitlines())

    def test_the_service_runs_when_installed_restarts_when_upgraded_and_leaves_no_trace_when_purged(self):
        before, groups = self.traces(), self.machine.get("/etc/group")
        self.dpkg("--install", self.build("dockhand"), self.build("dockhand-client"))
        self.await_daemon()
        first = self.main_pid()
        self.assertGreater(first, 0)
        self.assertIn(b"\ndockhand:", self.machine.get("/etc/group"))
        self.assertEqual(self.machine.check(["systemctl", "is-enabled", "dockhand"]), "enabled\n")

        self.dpkg("--install", self.build("dockhand", NEWER))
        self.assertEqual(self.version(), NEWER)
        self.await_daemon()
        second = self.main_pid()
        self.assertNotIn(second, (0, first))

        files = self.files_of_packages()
        self.assertIn("/usr/sbin/dockhand", files)
        self.dpkg("--purge", "dockhand", "dockhand-client")
        self.assertEqual(self.machine.run(["test", "-e", f"/proc/{second}"]).status, 1)
        self.assertEqual(
            self.machine.check(["systemctl", "show", "--property=LoadState", "--value", "dockhand"]),
            "not-found\n",
        )
        self.assertEqual(self.machine.run(["ls", "-d", *files]).stdout, "")
        self.assertEqual(self.traces(), before)
        self.assertEqual(self.machine.get("/etc/group"), groups)
