"""The images of the tests in a real kernel with a real udev."""

import errno
import unittest

import disks
import machine
import testcase


class FileSystems(testcase.MachineTestCase):
    def plug(self, filesystem, **options):
        stick = self.machine.plug(disks.make(self.folder, filesystem, "MYLABEL"), **options)
        self.machine.wait_node(stick, "sda")
        return stick

    def assert_probed(self, name, filesystem, label):
        probed = self.machine.check(["blkid", "-p", "-o", "export", f"/dev/{name}"]).split("\n")
        self.assertIn(f"TYPE={filesystem}", probed)
        self.assertIn(f"LABEL={label}", probed)

    def assert_mounts_writable(self, name, filesystem, options):
        self.assertEqual(self.machine.mount(f"/dev/{name}", "/media/stick", filesystem, options=options), 0)
        self.machine.put("/media/stick/written.txt", b"kept\n")
        self.assertEqual(self.machine.umount("/media/stick"), 0)
        self.assertEqual(self.machine.mount(f"/dev/{name}", "/media/stick", filesystem, options=options), 0)
        self.assertEqual(self.machine.get("/media/stick/written.txt"), b"kept\n")
        self.assertEqual(self.machine.umount("/media/stick"), 0)

    def test_vfat_is_recognised_and_mounts_with_utf8(self):
        self.plug("vfat")
        self.assert_probed("sda", "vfat", "MYLABEL")
        self.assert_mounts_writable("sda", "vfat", "utf8")

    def test_ext3_is_recognised_and_mounts(self):
        self.plug("ext3")
        self.assert_probed("sda", "ext3", "MYLABEL")
        self.assert_mounts_writable("sda", "ext3", "")

    def test_ext4_is_recognised_and_mounts(self):
        self.plug("ext4")
        self.assert_probed("sda", "ext4", "MYLABEL")
        self.assert_mounts_writable("sda", "ext4", "")

    def test_xfs_is_recognised_and_mounts_with_project_quota(self):
        self.plug("xfs")
        self.assert_probed("sda", "xfs", "MYLABEL")
        self.assert_mounts_writable("sda", "xfs", "prjquota")

    def test_hfsplus_is_recognised_and_mounts_read_only_with_its_file(self):
        self.plug("hfsplus")
        self.assert_probed("sda", "hfsplus", "MYLABEL")
        error = self.machine.mount("/dev/sda", "/media/stick", "hfsplus", machine.MS_RDONLY, "nls=utf8")
        self.assertEqual(error, 0)
        self.assertEqual(self.machine.check(["ls", "/media/stick"]), "hello.txt\n")
        self.assertEqual(self.machine.get("/media/stick/hello.txt"), b"hello\n")

    def test_hfsplus_is_consistent_enough_to_be_written_to(self):
        self.plug("hfsplus")
        self.assert_mounts_writable("sda", "hfsplus", "nls=utf8")

    def test_hfs_is_recognised_and_refuses_the_option_nls(self):
        self.plug("hfs")
        self.assert_probed("sda", "hfs", "MYLABEL")
        error = self.machine.mount("/dev/sda", "/media/stick", "hfs", options="nls=utf8")
        self.assertEqual(error, errno.EINVAL)
        self.assertEqual(self.machine.mount("/dev/sda", "/media/stick", "hfs"), 0)

    def test_ntfs_is_recognised_and_mounts_where_the_kernel_knows_that_name(self):
        self.plug("ntfs")
        self.assert_probed("sda", "ntfs", "MYLABEL")
        if self.kernel_has("ntfs"):
            self.assert_mounts_writable("sda", "ntfs", "nls=utf8")
        else:
            error = self.machine.mount("/dev/sda", "/media/stick", "ntfs", options="nls=utf8")
            self.assertEqual(error, errno.ENODEV)

    def test_garbage_and_empty_disks_are_not_recognised(self):
        for content in ("garbage", "empty"):
            with self.subTest(content):
                stick = self.plug(content)
                self.assertEqual(self.machine.run(["blkid", "-p", "/dev/sda"]).status, 2)
                self.assertEqual(self.machine.mount("/dev/sda", "/media/stick", "vfat"), errno.EINVAL)
                self.machine.unplug(stick)
                self.machine.wait_gone(stick, "sda")

    def test_each_partition_has_a_node_and_its_own_file_system(self):
        for table in ("dos", "gpt"):
            with self.subTest(table):
                image = disks.make_partitioned(self.folder, ["vfat", "ext3"], "MYLABEL", table)
                stick = self.machine.plug(image)
                self.machine.wait_node(stick, "sda2")
                self.assert_probed("sda1", "vfat", "MYLABEL")
                self.assert_probed("sda2", "ext3", "MYLABEL")
                self.assert_mounts_writable("sda1", "vfat", "utf8")
                self.machine.unplug(stick)
                self.machine.wait_gone(stick, "sda")

    def test_partitioned_xfs_keeps_its_contents_at_the_partition_offset(self):
        stick = self.machine.plug(disks.make_partitioned(self.folder, ["xfs"], "MYLABEL"))
        self.machine.wait_node(stick, "sda1")
        self.assert_probed("sda1", "xfs", "MYLABEL")
        self.assert_mounts_writable("sda1", "xfs", "prjquota")


class Plugging(testcase.MachineTestCase):
    def test_a_node_comes_with_the_stick_and_goes_with_it(self):
        self.assertEqual(self.machine.run(["test", "-e", "/dev/sda"]).status, 1)
        stick = self.machine.plug(disks.make(self.folder, "vfat"))
        self.machine.wait_node(stick, "sda")
        self.machine.check(["test", "-b", "/dev/sda"])
        self.machine.unplug(stick)
        self.machine.wait_gone(stick, "sda")
        self.assertEqual(self.machine.run(["test", "-e", "/dev/sda"]).status, 1)

    def test_a_plug_of_a_partitioned_stick_adds_disk_then_partition_then_changes_the_disk(self):
        stick = self.machine.plug(disks.make_partitioned(self.folder, ["vfat"]))
        self.machine.wait_event(stick, "change", "sda")
        self.assertEqual(self.machine.events_of(stick), [("add", "sda"), ("add", "sda1"), ("change", "sda")])

    def test_two_sticks_have_two_names(self):
        first = self.machine.plug(disks.make(self.folder, "vfat", name="first.img"))
        self.machine.wait_node(first, "sda")
        second = self.machine.plug(disks.make(self.folder, "vfat", name="second.img"))
        self.machine.wait_node(second, "sdb")
        self.machine.unplug(first)
        self.machine.wait_gone(first, "sda")
        self.machine.check(["test", "-b", "/dev/sdb"])

    def test_a_mounted_stick_can_be_pulled_out(self):
        stick = self.machine.plug(disks.make(self.folder, "vfat"))
        self.machine.wait_node(stick, "sda")
        self.assertEqual(self.machine.mount("/dev/sda", "/media/stick", "vfat"), 0)
        self.machine.unplug(stick)
        self.machine.wait_gone(stick, "sda")
        self.assertIn(" /media/stick ", self.machine.check(["cat", "/proc/mounts"]))

    def test_a_write_protected_stick_is_read_only(self):
        self.machine.wait_node(self.machine.plug(disks.make(self.folder, "vfat"), read_only=True), "sda")
        self.assertEqual(self.machine.check(["cat", "/sys/block/sda/ro"]), "1\n")
        self.assertEqual(self.machine.mount("/dev/sda", "/media/stick", "vfat"), errno.EROFS)
        self.assertEqual(self.machine.mount("/dev/sda", "/media/stick", "vfat", machine.MS_RDONLY), 0)

    def test_a_stick_is_removable_and_a_usb_disk_is_not(self):
        for removable in (True, False):
            with self.subTest(removable=removable):
                stick = self.machine.plug(disks.make(self.folder, "vfat"), removable=removable)
                self.machine.wait_node(stick, "sda")
                shown = self.machine.check(["cat", "/sys/block/sda/removable"])
                self.assertEqual(shown, f"{int(removable)}\n")
                self.machine.unplug(stick)
                self.machine.wait_gone(stick, "sda")

    def test_usb_version_and_speed_are_those_of_the_port(self):
        for usb, behind_hub, version, speed in (
            (1, False, "2.00", "12"),
            (1, True, "2.00", "12"),
            (2, False, "2.00", "480"),
            (3, False, "3.00", "5000"),
        ):
            with self.subTest(usb=usb, behind_hub=behind_hub):
                stick = self.machine.plug(disks.make(self.folder, "vfat"), usb=usb, behind_hub=behind_hub)
                event = self.machine.wait_node(stick, "sda")
                self.assertEqual(self.machine.usb_attribute("sda", "version"), version)
                self.assertEqual(self.machine.usb_attribute("sda", "speed"), speed)
                # A port behind the hub has a name like 4-1.1.
                self.assertEqual("-1.1/" in event["DEVPATH"], behind_hub)
                self.machine.unplug(stick)
                self.machine.wait_gone(stick, "sda")

    def test_a_card_reader_has_a_size_only_with_a_card(self):
        reader = self.machine.plug_card_reader()
        self.machine.wait_node(reader, "sda")
        self.assertEqual(self.machine.check(["cat", "/sys/block/sda/size"]), "0\n")
        self.machine.insert_card(reader, disks.make_partitioned(self.folder, ["vfat"]))
        self.machine.wait_node(reader, "sda1")
        self.assertNotEqual(self.machine.check(["cat", "/sys/block/sda/size"]), "0\n")
        self.machine.remove_card(reader)
        self.machine.wait_gone(reader, "sda1")
        self.assertEqual(self.machine.check(["cat", "/sys/block/sda/size"]), "0\n")


class Guest(testcase.MachineTestCase):
    def test_the_mount_table_is_short(self):
        # The daemon reads its first 1024 bytes.
        self.assertLess(len(self.machine.get("/proc/mounts")), 900)

    def test_what_the_guest_writes_stays_in_the_guest(self):
        self.machine.put("/etc/written-by-the-guest", b"")
        with self.assertRaises(FileNotFoundError):
            open("/etc/written-by-the-guest", "rb")  # pylint: disable=consider-using-with
        self.machine.check(["rm", "/etc/written-by-the-guest"])

    def test_a_program_reports_status_and_both_outputs(self):
        result = self.machine.run("cat; echo wrong >&2; exit 3", input="right")
        self.assertEqual((result.status, result.stdout, result.stderr), (3, "right", "wrong\n"))

    def test_a_started_program_runs_until_it_is_ended(self):
        pid = self.machine.start(["sleep", "1000"])
        self.machine.check(["kill", "-0", str(pid)])
        self.machine.kill(pid)
        self.assertEqual(self.machine.wait(pid), -15)

    def test_a_program_that_does_not_end_is_an_error(self):
        with self.assertRaisesRegex(machine.MachineError, "still ran after 0.1 s"):
            self.machine.run(["sleep", "1000"], timeout=0.1)


class SystemdGuest(Guest):
    init = "systemd"

    def test_systemd_is_up_without_failed_units(self):
        self.assertEqual(self.machine.check(["cat", "/proc/1/comm"]), "systemd\n")
        self.assertEqual(self.machine.check(["systemctl", "is-system-running"]), "running\n")


if __name__ == "__main__":
    unittest.main()
