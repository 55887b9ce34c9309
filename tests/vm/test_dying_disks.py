"""Disks that return errors or hang: the daemon reports it, serves the other disks, and serves the disk again once it
works. Data that was synced before is kept.
"""

import daemon
import disks
import machine
import mapped

CALLER = machine.GUEST_FOLDER + "/caller.py"
WAITS = 6

SOUND, BELOW, DYING = 1, 2, 3
KEPT = b"kept\n" * 1000


class DyingDisks(daemon.DaemonTestCase):
    def setUp(self):
        """Device 1 is a healthy disk, device 3 a dying one; device 2 is the disk below device 3."""
        super().setUp()
        self.start_daemon()
        self.plug("sda", disks.make(self.folder, "ext3", "SOUND", "sound.img"))

    def plug(self, name, image, **options):
        stick = self.machine.plug(image, **options)
        self.machine.wait_event(stick, "change", name)
        self.finish_announcements()
        return stick

    def plug_dying(self, filesystem):
        """Plugs the disk in and writes a file to it. The kernel's caches keep nothing of it."""
        self.plug("sdb", disks.make(self.folder, filesystem, "DYING", "dying.img"))
        self.disk = mapped.Mapped(self.machine, "sdb", "sdx")
        self.addCleanup(self.disk.remove)
        self.assertEqual(self.devices(), [SOUND, BELOW, DYING])
        self.assert_ctl(0, "open", DYING)
        self.machine.put("/media/disk_3/kept.txt", KEPT)
        self.machine.check(["sync", "-f", "/media/disk_3/kept.txt"])
        self.assert_ctl(0, "close", DYING)

    def call(self, operation, *arguments, timeout=60):
        """Makes one call; returns its exit status."""
        return self.ctl("call", "--timeout", timeout, operation, *arguments).status

    def start_call(self, operation, *arguments):
        """Starts a call in the background and waits until the daemon runs it; returns its process."""
        lines = self.daemon_log().count("\n")
        caller = self.machine.start(
            ["dockhandctl", "call", "--timeout", "300", operation, *map(str, arguments)]
        )
        self.machine.wait_lines(daemon.DAEMON_LOG, lines + 1)
        return caller

    def assert_serves_the_sound_disk(self):
        self.assert_ctl(0, "open", SOUND)
        self.assert_mounted("/media/disk_1", "ext3")
        self.assert_ctl(0, "close", SOUND)

    def assert_serves_the_dying_disk_again(self):
        self.disk.recover()
        self.assertEqual(self.ask("label", DYING)["label"], "DYING")
        self.assert_ctl(0, "open", DYING)
        self.assertEqual([mount[1] for mount in self.mounts()], ["/media/disk_3"])
        self.assertEqual(self.machine.get("/media/disk_3/kept.txt"), KEPT)
        self.assertEqual(self.names_of_files(DYING, "txt"), ["kept.txt"])
        self.assert_ctl(0, "close", DYING)
        self.assertEqual(self.mounts(), [])

    def descriptors(self):
        return len(self.machine.check(["ls", f"/proc/{self.daemon}/fd"]).split())


class Errors(DyingDisks):
    def test_a_disk_that_cannot_be_read_is_listed_and_not_opened(self):
        self.plug_dying("ext3")
        self.disk.fail()
        self.assertEqual(self.devices(), [SOUND, BELOW, DYING])
        self.assertEqual(self.ask("label", DYING)["label"], "NONAME")
        self.assertIn(f"No LABEL found for {self.disk.node}", self.daemon_log())
        self.assert_ctl(1, "uuid", DYING)
        self.assertEqual(self.ask("capacity", DYING)["capacityMiB"], 8)
        self.assert_ctl(1, "open", DYING)
        self.assert_ctl(1, "repair", DYING)
        self.assertEqual(self.mounts(), [])
        self.assertEqual(self.machine.check(["ls", "/media"]), "")
        self.assert_serves_the_sound_disk()
        self.assert_serves_the_dying_disk_again()

    def test_two_thousand_failing_probes_leave_no_descriptor_open(self):
        self.plug_dying("ext3")
        self.disk.fail()
        # The daemon may keep a failed probe until the next one fails.
        self.machine.check(["python3", CALLER, "GetDeviceLabel", str(DYING), "1"])
        before = self.descriptors()
        answers = self.machine.check(["python3", CALLER, "GetDeviceLabel", str(DYING), "2000"], timeout=300)
        after = self.descriptors()
        self.assertEqual(int(answers), 1)
        self.assertGreaterEqual(self.daemon_log().count(f"No LABEL found for {self.disk.node}"), 2001)
        self.assertEqual(after, before)
        print(f"dying disks: {before} descriptors before 2000 failing probes, {after} after")
        self.assert_serves_the_dying_disk_again()

    def test_a_directory_that_cannot_be_read_is_empty_and_the_disk_can_be_closed(self):
        self.plug_dying("ext3")
        self.assert_ctl(0, "open", DYING)
        self.disk.fail()
        self.assertEqual(self.names_of_files(DYING, "txt"), [])
        self.assert_ctl(0, "close", DYING)
        self.assertEqual(self.mounts(), [])
        self.assert_serves_the_sound_disk()
        self.assert_serves_the_dying_disk_again()

    def test_a_disk_that_cannot_be_written_to_keeps_what_was_synced(self):
        self.plug_dying("ext3")
        self.assert_ctl(0, "open", DYING)
        self.disk.fail_writes()
        self.assertNotEqual(
            self.machine.run(
                ["dd", "if=/dev/zero", "of=/media/disk_3/new", "bs=64k", "count=4", "conv=fsync"]
            ).status,
            0,
        )
        self.assert_ctl(0, "close", DYING)
        self.assertEqual(self.mounts(), [])
        self.assert_serves_the_sound_disk()
        self.disk.recover()
        # The new file got its name before the disk failed.
        self.assert_ctl(0, "open", DYING)
        self.assertEqual(self.machine.get("/media/disk_3/kept.txt"), KEPT)
        self.assert_ctl(0, "close", DYING)

    def test_a_disk_that_fails_every_other_second_gets_replies_and_keeps_what_was_synced(self):
        self.plug_dying("ext3")
        self.disk.fail_now_and_then()
        opened = 0
        for _ in range(5):
            opened += self.call("OpenDevice", DYING) == 0
            self.assertEqual(self.call("GetFilesByExtension", DYING, "", "txt"), 0)
            self.call("CloseDevice", DYING)
            self.assertEqual(self.mounts(), [])
        print(f"dying disks: opened {opened} of 5 times")
        self.assert_serves_the_sound_disk()
        self.assert_serves_the_dying_disk_again()

    def assert_repaired_only_once_it_works(self):
        self.assert_ctl(1, "repair", DYING, timeout=300)
        self.assertIn("xfs_repair FAILED", self.daemon_log())
        self.assertEqual(self.mounts(), [])
        self.assert_serves_the_sound_disk()
        self.disk.recover()
        self.assert_ctl(0, "repair", DYING, timeout=300)
        self.assert_serves_the_dying_disk_again()

    def test_a_repair_of_a_disk_that_cannot_be_written_to_fails_and_loses_nothing(self):
        self.plug_dying("xfs")
        self.disk.fail_writes()
        self.assert_repaired_only_once_it_works()

    def test_a_repair_of_a_disk_with_unreadable_parts_fails_and_loses_nothing(self):
        self.plug_dying("xfs")
        # The type is in the first megabytes, the log and most allocation groups after them.
        self.disk.fail(start=8 * disks.MIB // 512)
        self.assert_repaired_only_once_it_works()


class Sticks(DyingDisks):
    """The stick itself reports the error, through the USB driver."""

    def pull(self, stick):
        self.machine.unplug(stick)
        self.machine.wait_gone(stick, "sdb")
        self.finish_announcements()
        self.assertEqual(self.devices(), [SOUND])

    def test_a_stick_with_errors_gets_replies_and_keeps_what_was_synced(self):
        image = disks.make(self.folder, "ext3", "DYING", "dying.img")
        stick = self.plug("sdb", image)
        self.assert_ctl(0, "open", 2)
        self.machine.put("/media/disk_2/kept.txt", KEPT)
        self.assert_ctl(0, "close", 2)
        self.pull(stick)
        for fails in ("read", "write"):
            with self.subTest(fails=fails):
                stick = self.machine.plug(image, fails=fails)
                self.machine.wait_node(stick, "sdb")
                self.finish_announcements()
                self.assertEqual(self.devices(), [SOUND, 2])
                self.assertEqual(self.ask("label", 2)["label"], "NONAME" if fails == "read" else "DYING")
                opened = self.ctl("open", 2).status
                print(
                    f"dying disks: a stick that fails to {fails} is{'' if opened == 0 else ' not'} opened: "
                    f"{self.mounts()}"
                )
                self.assertEqual(self.call("GetFilesByExtension", 2, "", "txt"), 0)
                self.call("CloseDevice", 2)
                self.assertEqual(self.mounts(), [])
                self.assert_serves_the_sound_disk()
                self.pull(stick)
        self.plug("sdb", image)
        self.assert_ctl(0, "open", 2)
        self.assertEqual(self.machine.get("/media/disk_2/kept.txt"), KEPT)
        self.assert_ctl(0, "close", 2)


class Hanging(DyingDisks):
    def test_while_a_disk_hangs_only_its_readers_wait(self):
        self.plug_dying("ext3")
        self.disk.hang()
        for operation, *arguments in (
            ("CheckForAndUpdateNewDevices",),
            ("GetListOfInsertedDevices", "true"),
            ("IsDeviceOpen", DYING),
            ("GetDeviceType", DYING),
            ("GetDeviceCapacity", DYING),
            ("GetUsbMountPoint", DYING),
            ("GetUsbPhysicalDevice", DYING),
        ):
            self.assertIn(self.call(operation, *arguments), (0, 1), operation)
        self.assert_serves_the_sound_disk()

    def test_a_probe_that_hangs_for_a_minute_delays_every_other_call_and_all_get_replies(
        self,
    ):
        self.plug_dying("ext3")
        self.disk.hang()
        probe = self.start_call("GetDeviceLabel", DYING)
        for operation, *arguments in (
            ("GetListOfInsertedDevices", "true"),
            ("IsDeviceOpen", SOUND),
            ("OpenDevice", SOUND),
            ("NotifyUsbAdded", "sda"),
            ("NotifyUsbXriteAdded",),
        ):
            self.assertEqual(self.call(operation, *arguments, timeout=1), WAITS, operation)
        waiting = self.machine.start(["dockhandctl", "call", "--timeout", "300", "GetUsbMountPoint", "1"])
        # Longer than the kernel's time limit for a command to a disk.
        self.machine.check(["sleep", "60"], timeout=120)
        self.assertEqual(self.call("IsDeviceOpen", SOUND, timeout=1), WAITS)
        self.disk.wake()
        for caller in (probe, waiting):
            self.assertEqual(self.machine.wait(caller), 0)
        # The opening was done too, though its client had given up.
        self.assertEqual(self.call("IsDeviceOpen", SOUND), 0)
        self.assert_ctl(0, "close", SOUND)
        self.assert_serves_the_dying_disk_again()

    def test_a_close_that_hangs_delays_others_and_loses_nothing(self):
        self.plug_dying("ext3")
        self.assert_ctl(0, "open", DYING)
        self.machine.put("/media/disk_3/unsynced", b"x" * 100000)
        self.disk.hang()
        close = self.start_call("CloseDevice", DYING)
        self.assertEqual(self.call("IsDeviceOpen", SOUND, timeout=1), WAITS)
        self.disk.wake()
        self.assertEqual(self.machine.wait(close), 0)
        self.assert_serves_the_dying_disk_again()
        self.assert_ctl(0, "open", DYING)
        self.assertEqual(self.machine.get("/media/disk_3/unsynced"), b"x" * 100000)
        self.assert_ctl(0, "close", DYING)

    def test_the_removal_of_an_open_disk_that_hangs_waits_for_it(self):
        self.plug_dying("ext3")
        self.assert_ctl(0, "open", DYING)
        self.machine.put("/media/disk_3/unsynced", b"x" * 100000)
        self.disk.hang()
        removal = self.start_call("NotifyUsbRemoved", "sdx")
        self.assertEqual(self.call("IsDeviceOpen", SOUND, timeout=1), WAITS)
        self.disk.wake()
        self.machine.wait(removal)
        self.assertEqual(self.mounts(), [])
        self.assert_serves_the_sound_disk()

    def test_during_a_repair_that_hangs_only_its_own_disk_cannot_be_opened(self):
        tool, began = "/usr/lib/dockhand/tools/xfs_repair", "/run/repair-began"
        self.addCleanup(self.machine.check, ["rm", "-f", tool, began])
        self.plug_dying("xfs")
        self.machine.put(
            tool,
            b"#!/bin/sh\ndmsetup suspend --nolockfs --noflush sdx\necho >/run/repair-began\n"
            b'exec /sbin/xfs_repair "$@"\n',
            mode=0o755,
        )
        repair = self.start_call("RunDiskRepair", DYING)
        self.machine.wait_lines(began, 1)
        self.assertEqual(self.devices(), [SOUND, BELOW, DYING])
        self.assert_ctl(1, "open", DYING)
        self.assertIn(f"Disk repair is running, cannot open dev {DYING}", self.daemon_log())
        self.assert_serves_the_sound_disk()
        self.disk.wake()
        self.assertEqual(self.machine.wait(repair, timeout=120), 0)
        self.assert_serves_the_dying_disk_again()
