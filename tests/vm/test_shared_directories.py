"""Files that users plant in shared directories, with the kernel's protection of such directories on and off."""

import daemon
import disks

SETTINGS = ("protected_symlinks", "protected_hardlinks", "protected_fifos", "protected_regular")
SHIPPED = ["1", "1", "1", "2"]

LOG_FILE = "/tmp/Dockhand.log"
VERSION_FILE = "/tmp/sda_bcdUSB.txt"
ROOTS_FILE = "/tmp/roots_file"
REPAIR_TOOL = "/usr/lib/dockhand/tools/xfs_repair"

PLANTS = {
    "symlink": f"ln -s {ROOTS_FILE} PATH",
    "hard link": f"ln {ROOTS_FILE} PATH",
    "fifo": "mkfifo -m 666 PATH",
    "file": "echo forged >PATH",
}


class SharedDirectoriesTestCase(daemon.DaemonTestCase):
    def setUp(self):
        super().setUp()
        before = self.settings()
        self.addCleanup(self.set, before)

    def settings(self):
        return [self.machine.get(f"/proc/sys/fs/{name}").decode().strip() for name in SETTINGS]

    def set(self, values):
        for name, value in zip(SETTINGS, values):
            self.machine.check(f"echo {value} >/proc/sys/fs/{name}")

    def as_user(self, command):
        return self.machine.run(
            ["setpriv", "--reuid=nobody", "--regid=nogroup", "--clear-groups", "/bin/sh", "-c", command]
        ).status

    def plug(self, filesystem):
        self.watch()
        self.machine.plug(disks.make(self.folder, filesystem))
        self.wait_observed(("added", 1))

    def read_version(self):
        self.assertEqual(self.ask("usb-version", 1)["usbVersion"], "3.00")

    def assert_planted_in_vain(self, path, use):
        """Lets a user plant one kind of file after the other; calls `use`, which must succeed, after each."""
        self.addCleanup(self.machine.check, f"rm -rf {ROOTS_FILE} {path} {path}.moved-*")
        self.machine.put(ROOTS_FILE, b"root's own words\n", 0o600)
        for name, command in PLANTS.items():
            with self.subTest(plant=name, settings=self.settings()):
                self.machine.check(f"rm -rf {path} {path}.moved-*")
                planted = self.as_user(command.replace("PATH", path)) == 0
                # The only kind that the kernel does not let a user plant.
                self.assertEqual(planted, name != "hard link" or self.settings()[1] == "0")
                use()
                self.assertEqual(self.machine.get(ROOTS_FILE), b"root's own words\n")
                moved = self.machine.check(
                    f"for place in {path}.moved-*; do test -d $place && ls $place; " "done; true"
                )
                self.assertEqual(moved.split(), [path.rpartition("/")[2]] if planted else [])


class SharedDirectories(SharedDirectoriesTestCase):
    def test_a_planted_log_file_has_no_effect_whatever_the_kernel_protects(self):
        self.addCleanup(self.machine.check, ["rm", "-f", REPAIR_TOOL])
        self.machine.put(REPAIR_TOOL, b"#!/bin/sh\necho repaired\n", 0o755)
        self.start_daemon()
        self.plug("xfs")

        def repair():
            self.assert_ctl(0, "repair", 1)
            self.assertEqual(self.machine.get(LOG_FILE), b"repaired\n")

        for values in (["0"] * 4, SHIPPED):
            self.set(values)
            self.assert_planted_in_vain(LOG_FILE, repair)

    def test_a_planted_version_file_has_no_effect_whatever_the_kernel_protects(self):
        self.start_daemon()
        self.plug("vfat")
        for values in (["0"] * 4, SHIPPED):
            self.set(values)
            self.assert_planted_in_vain(VERSION_FILE, self.read_version)

    def test_only_the_kernel_refuses_a_link_in_place_of_a_callers_mount_directory(self):
        roots = "/run/roots_directory"
        self.addCleanup(self.machine.check, f"umount {roots}; rm -rf {roots} /tmp/usb; true")
        self.machine.put(f"{roots}/file", b"root's own words\n")
        self.start_daemon(DOCKHAND_NAMESPACE="never")
        self.plug("vfat")
        self.assertEqual(self.as_user(f"ln -s {roots} /tmp/usb"), 0)

        self.set(SHIPPED)
        self.assert_ctl(1, "open", 1, "--at", "/tmp/usb")
        self.assertEqual(self.machine.get(f"{roots}/file"), b"root's own words\n")
        self.assertEqual(self.machine.check(["readlink", "/tmp/usb"]), f"{roots}\n")

        # So never mount sticks below such a directory.
        self.set(["0"] * 4)
        self.assert_ctl(0, "open", 1, "--at", "/tmp/usb")
        self.assertEqual(self.machine.check(["ls", roots]), "")

    def test_a_user_who_may_write_to_media_decides_where_a_stick_is_mounted_until_tmpfiles_stops_him(self):
        roots = "/run/roots_directory"
        self.addCleanup(
            self.machine.check, f"umount {roots}; rm -rf {roots} /media/disk_1; chmod 755 /media; true"
        )
        self.machine.put(f"{roots}/file", b"root's own words\n")
        self.start_daemon(DOCKHAND_NAMESPACE="never")
        self.plug("vfat")
        self.machine.check(["chmod", "777", "/media"])
        self.assertEqual(self.as_user(f"ln -s {roots} /media/disk_1"), 0)
        self.assert_ctl(0, "open", 1)
        self.assertEqual(self.machine.check(["ls", roots]), "")
        self.machine.check(f"umount {roots} && rm /media/disk_1")

        self.machine.check(["systemd-tmpfiles", "--create", "/usr/lib/tmpfiles.d/dockhand.conf"])
        self.assertEqual(self.machine.check(["stat", "-c", "%U %G %a", "/media"]), "root root 755\n")
        self.assertNotEqual(self.as_user(f"ln -s {roots} /media/disk_1"), 0)

    def test_the_installed_settings_are_the_ones_that_systemd_sets(self):
        self.set(["0"] * 4)
        self.machine.check(["/lib/systemd/systemd-sysctl", "/usr/lib/sysctl.d/60-dockhand.conf"])
        self.assertEqual(self.settings(), SHIPPED)

    def test_the_start_script_switches_protections_on_and_keeps_stricter_ones(self):
        script = "/usr/share/dockhand/init.d/dockhand"
        self.machine.check(["systemd-sysusers"])
        self.addCleanup(self.machine.check, ["chmod", "755", "/media"])
        self.addCleanup(self.machine.check, [script, "stop"])
        self.machine.check(["chmod", "1777", "/media"])
        self.set(["0", "0", "2", "0"])
        self.machine.check([script, "start"])
        self.assertEqual(self.settings(), ["1", "1", "2", "2"])
        self.assertEqual(self.machine.check(["stat", "-c", "%a", "/media"]), "1755\n")


class SharedDirectoriesOfTheUnit(SharedDirectoriesTestCase):
    init = "systemd"

    def test_the_hardened_unit_may_move_a_planted_file_aside(self):
        self.machine.check(["systemd-sysusers"])
        self.addCleanup(self.machine.check, ["systemctl", "stop", "dockhand"])
        self.machine.check(["systemctl", "start", "dockhand"])
        self.await_daemon()
        self.plug("vfat")
        self.set(SHIPPED)
        self.assert_planted_in_vain(VERSION_FILE, self.read_version)
