#!/usr/bin/python3
"""The Debian packages: installed in a Debian system, used there, and removed.

Runs in the world that tools/dev/private_root makes. The environment variable DOCKHAND_PACKAGES_DIR names the folder of
the packages, DOCKHAND_PACKAGES_ROOT that of the system, which ./test packaging makes. The system stays as it is: what
the tests do there is kept in memory.
"""

import json
import os
import pathlib
import re
import stat
import subprocess
import sys
import tempfile
import unittest

sys.path.insert(0, str(pathlib.Path(__file__).resolve().parent))

from installed import NAMES, SOURCE, project_version

PACKAGES = pathlib.Path(os.environ.get("DOCKHAND_PACKAGES_DIR", SOURCE / "build" / "image" / "packages"))
ROOT = pathlib.Path(os.environ.get("DOCKHAND_PACKAGES_ROOT", SOURCE / "build" / "packages-root"))
# Files of dpkg itself, files that other packages' triggers rewrite, and the copies that groupadd makes.
OTHERS = tuple(
    "/var/lib/dpkg/ /var/log/ /var/cache/ /etc/ld.so.cache /etc/group- /etc/gshadow- /etc/.pwd.lock "
    "/dev/ /tmp/".split()
)


def files_of_packages():
    return sorted(str(path) for path in PACKAGES.glob("*.deb"))


class Root:
    """A layer over the system. All writes go to the layer."""

    def __init__(self):
        self.folder = pathlib.Path(tempfile.mkdtemp())
        subprocess.run(["mount", "-t", "tmpfs", "layer", self.folder], check=True)
        for name in ("upper", "work", "root"):
            (self.folder / name).mkdir()
        self.path = self.folder / "root"
        folders = f"lowerdir={ROOT},upperdir={self.folder}/upper,workdir={self.folder}/work"
        subprocess.run(["mount", "-t", "overlay", "-o", folders, "overlay", self.path], check=True)

    def remove(self):
        subprocess.run(["umount", self.path], check=True)
        subprocess.run(["umount", self.folder], check=True)
        self.folder.rmdir()

    def run(self, *command):
        """Runs a command in the system; returns its status and output."""
        environment = {
            "PATH": "/usr/sbin:/usr/bin:/sbin:/bin",
            "HOME": "/root",
            "LC_ALL": "C.UTF-8",
            "DEBIAN_FRONTEND": "noninteractive",
        }
        done = subprocess.run(
            ["chroot", self.path, *command],
            stdin=subprocess.DEVNULL,
            stdout=subprocess.PIPE,
            stderr=subprocess.STDOUT,
            text=True,
            env=environment,
        )
        return done.returncode, done.stdout

    def check(self, *command):
        status, output = self.run(*command)
        if status != 0:
            raise AssertionError(f"{command} ended with {status}: {output}")
        return output

    def install(self, *names):
        """Installs with dpkg alone, which also reports missing dependencies."""
        for name in names:
            (package,) = PACKAGES.glob(f"{name}_*.deb")
            (self.path / "tmp" / package.name).write_bytes(package.read_bytes())
        self.check("sh", "-c", "dpkg --install /tmp/*.deb && rm /tmp/*.deb")

    def state(self):
        """Returns each path with its kind, mode and owner, and each file with its content."""
        found = {}
        for folder, folders, names in os.walk(self.path):
            for name in folders + names:
                path = os.path.join(folder, name)
                inside = path[len(str(self.path)) :]
                if inside.startswith(OTHERS):
                    continue
                status = os.lstat(path)
                content = None
                if stat.S_ISLNK(status.st_mode):
                    content = os.readlink(path)
                elif stat.S_ISREG(status.st_mode):
                    # A write to an existing file changes its time.
                    content = (
                        (status.st_size, status.st_mtime_ns)
                        if not inside.startswith("/etc/")
                        else pathlib.Path(path).read_bytes()
                    )
                found[inside] = (status.st_mode, status.st_uid, status.st_gid, content)
        return found


class PackagesTest(unittest.TestCase):
    def setUp(self):
        if os.environ.get("PRIVATE_ROOT") != "1":
            self.skipTest(os.environ.get("PRIVATE_ROOT_MISSING", "run by ./test packaging"))
        self.root = Root()
        self.addCleanup(self.root.remove)

    def test_packages_are_those_of_this_version(self):
        found = {}
        for package in files_of_packages():
            fields = subprocess.run(
                ["dpkg-deb", "--show", "--showformat=${Package} ${Version}", package],
                check=True,
                stdout=subprocess.PIPE,
                text=True,
            ).stdout.split()
            found[fields[0]] = fields[1]
        self.assertEqual(found, {name: project_version() for name in NAMES})
        changelog = (SOURCE / "packaging" / "debian" / "changelog").read_text()
        self.assertTrue(changelog.startswith(f"dockhand ({project_version()}) "))

    def test_files_are_where_a_system_looks_for_them(self):
        self.root.install("dockhand", "dockhand-client", "dockhand-dbg")
        self.root.check("dpkg", "--verify", "dockhand", "dockhand-client", "dockhand-dbg")
        for path, mode in (
            ("usr/sbin/dockhand", 0o755),
            ("usr/bin/dockhandctl", 0o755),
            ("usr/lib/dockhand/dockhand-launch", 0o755),
            ("usr/lib/systemd/system/dockhand.service", 0o644),
            ("usr/lib/udev/rules.d/60-dockhand.rules", 0o644),
            ("usr/share/man/man8/dockhand.8.gz", 0o644),
            ("usr/share/man/man1/dockhandctl.1.gz", 0o644),
            ("usr/share/doc/dockhand/copyright", 0o644),
            ("usr/share/doc/dockhand/changelog.gz", 0o644),
            ("usr/share/doc/dockhand/OPERATIONS.md", 0o644),
        ):
            status = os.lstat(self.root.path / path)
            self.assertEqual((stat.S_IMODE(status.st_mode), status.st_uid, status.st_gid), (mode, 0, 0), path)
        output = self.root.check("readelf", "--notes", "/usr/sbin/dockhand")
        build_id = output.partition("Build ID: ")[2].split()[0]
        self.assertTrue(
            (self.root.path / f"usr/lib/debug/.build-id/{build_id[:2]}/{build_id[2:]}.debug").exists()
        )

    def test_installation_makes_the_group_and_enables_the_service(self):
        self.assertNotEqual(self.root.run("getent", "group", "dockhand")[0], 0)
        self.root.install("dockhand", "dockhand-client")
        self.root.check("getent", "group", "dockhand")
        self.assertEqual(self.root.check("systemctl", "is-enabled", "dockhand.service"), "enabled\n")

    def test_client_runs_and_the_daemon_finds_its_libraries(self):
        self.root.install("dockhand", "dockhand-client")
        self.assertIn(project_version(), self.root.check("dockhandctl", "--version"))
        self.assertIn("doctor", self.root.check("dockhandctl", "--help"))
        self.assertEqual(self.root.run("dockhandctl", "list")[0], 4)
        self.assertNotIn("not found", self.root.check("ldd", "/usr/sbin/dockhand"))

    def test_interface_needs_no_other_package(self):
        self.root.install("dockhand-idl")
        for name in ("usb_rpc.thrift", "corvane_rpc.thrift"):
            self.assertEqual(
                (self.root.path / "usr/share/dockhand/rpc" / name).read_text(),
                (SOURCE / "rpc" / name).read_text(),
            )
        examples = self.root.path / "usr/share/doc/dockhand-idl/examples"
        self.assertTrue((examples / "python" / "sticks.py").exists())
        self.assertTrue((examples / "node" / "package-lock.json").exists())

    def test_example_is_compiled_by_its_cmake_file(self):
        self.root.install("dockhand-idl", "libdockhand-client-dev")
        self.root.check("cmake", "-S", "/usr/share/doc/libdockhand-client-dev/examples", "-B", "/tmp/sticks")
        self.root.check("cmake", "--build", "/tmp/sticks")
        self.assert_is_the_example("/tmp/sticks/sticks")

    def test_example_is_compiled_with_the_options_of_pkg_config(self):
        self.root.install("dockhand-idl", "libdockhand-client-dev")
        self.root.check(
            "sh",
            "-c",
            "g++ -std=c++17 -o /tmp/sticks "
            "/usr/share/doc/libdockhand-client-dev/examples/sticks.cpp "
            "$(pkg-config --cflags --libs dockhand-client)",
        )
        self.assert_is_the_example("/tmp/sticks")

    def assert_is_the_example(self, program):
        """Expects that the example reports a missing daemon."""
        self.root.check("mkdir", "-p", "/run/ravel")
        status, output = self.root.run(program)
        self.assertEqual(status, 1, output)
        self.assertIn("9020.sock", output)

    def test_purge_leaves_no_trace(self):
        before = self.root.state()
        self.root.install(*NAMES)
        installed = self.root.state()
        self.assertIn("/usr/sbin/dockhand", installed)
        self.root.check("dpkg", "--purge", *NAMES)
        after = self.root.state()
        # Adding and removing a group leaves the same lines.
        changed = {path for path in before.keys() | after.keys() if before.get(path) != after.get(path)}
        self.assertEqual(changed, set())

    def test_purge_removes_roots_files_and_moved_files_from_tmp(self):
        self.root.install("dockhand", "dockhand-client")
        self.root.check(
            "sh",
            "-c",
            "cd /tmp && touch Dockhand.log sda_bcdUSB.txt others && mkdir sdc_bcdUSB.txt && "
            "touch sdb_bcdUSB.txt && chown 65534 sdb_bcdUSB.txt && ln -s others sdd_bcdUSB.txt && "
            "mkdir -p Dockhand.log.moved-a/Dockhand.log/users sda1_bcdUSB.txt.moved-b others.moved-c "
            "Dockhand.log.moved-d Dockhand.log.moved-e/Dockhand.log && "
            "ln -s /etc sda1_bcdUSB.txt.moved-b/sda1_bcdUSB.txt && chown 65534 Dockhand.log.moved-d",
        )
        # A user who may mount has mounted something on a planted directory.
        mounted = self.root.path / "tmp/Dockhand.log.moved-e/Dockhand.log"
        subprocess.run(["mount", "-t", "tmpfs", "users", mounted], check=True)
        self.addCleanup(subprocess.run, ["umount", mounted], check=True)
        (mounted / "file").touch()
        self.root.check("dpkg", "--purge", "dockhand")
        _, names = self.root.run("ls", "/tmp")
        self.assertEqual(
            " ".join(names.split()),
            "Dockhand.log.moved-d Dockhand.log.moved-e others "
            "others.moved-c sdb_bcdUSB.txt sdc_bcdUSB.txt sdd_bcdUSB.txt",
        )
        self.assertTrue((mounted / "file").exists())
        self.assertTrue((self.root.path / "etc/passwd").exists())

    def test_daemon_is_not_installed_without_its_client(self):
        (package,) = PACKAGES.glob("dockhand_*.deb")
        (self.root.path / "tmp/dockhand.deb").write_bytes(package.read_bytes())
        status, output = self.root.run("dpkg", "--install", "/tmp/dockhand.deb")
        self.assertNotEqual(status, 0)
        self.assertIn("dockhand depends on dockhand-client", output)

    def test_units_are_as_hardened_as_possible(self):
        self.root.install("dockhand", "dockhand-client")
        page = (SOURCE / "docs" / "SECURITY.md").read_text()
        reasons = page.partition("\nMissing options, and why:\n")[2].partition("\n\n`")[0]
        explained = set(
            re.findall(r"`(\w+)`", " ".join(re.findall(r"^- (.*?): ", reasons, re.MULTILINE | re.DOTALL)))
        )
        for unit, tenths in (("dockhand.service", 33), ("dockhand-usb@.service", 25)):
            with self.subTest(unit=unit):
                status, report = self.root.run(
                    "systemd-analyze",
                    "security",
                    "--offline=true",
                    "--no-pager",
                    "--json=short",
                    f"--threshold={tenths}",
                    unit,
                )
                self.assertEqual(status, 0, report)
                missing = {
                    option
                    for entry in json.loads(report)
                    if entry["set"] is False
                    for option in re.findall(r"(\w+)=", entry["name"])
                }
                self.assertEqual(missing - explained, set())

    def test_programs_are_hardened(self):
        """Expects what the compiler and the linker do for each program, as Debian's hardening-check does."""

        def readelf(option, program):
            return self.root.check("readelf", "--wide", option, program)

        def imported(program):
            return set(re.findall(r" UND (\w+)", readelf("--dyn-syms", program)))

        self.root.install("dockhand", "dockhand-client")
        libc = readelf("--dyn-syms", "/lib/x86_64-linux-gnu/libc.so.6")
        checking = set(re.findall(r" (__\w+_chk)@", libc))
        programs = 0
        for path in self.root.check("dpkg", "--listfiles", "dockhand", "dockhand-client").split("\n"):
            file = self.root.path / path[1:]
            if path == "" or not file.is_file() or file.read_bytes()[:4] != b"\x7fELF":
                continue
            programs += 1
            with self.subTest(program=path):
                flags = readelf("--dynamic", path)
                self.assertRegex(flags, r"\(FLAGS_1\) .*NOW.* PIE")
                self.assertIn("BIND_NOW", flags)
                self.assertIn(" GNU_RELRO ", readelf("--segments", path))
                names = imported(path)
                self.assertIn("__stack_chk_fail", names)
                # A program with none of the functions that can check has nothing to fortify.
                unchecked = {name for name in names if f"__{name}_chk" in checking}
                self.assertTrue(names & checking or not unchecked, unchecked)
        self.assertEqual(programs, 8)

    def test_lintian_finds_nothing(self):
        done = subprocess.run(
            ["lintian", "--allow-root", "--fail-on", "warning", *files_of_packages()],
            stdout=subprocess.PIPE,
            stderr=subprocess.STDOUT,
            text=True,
        )
        self.assertEqual(done.returncode, 0, done.stdout)


if __name__ == "__main__":
    unittest.main()
