"""Preparing and repairing recording disks while the kernel and udev report every change of a partition."""

import os
import re

import daemon
import disks

DISK_BYTES = 400 * disks.MIB


class RecordingTestCase(daemon.DaemonTestCase):
    """Starts with a daemon, an observer, and a plugged stick."""

    disk_bytes = DISK_BYTES

    def setUp(self):
        super().setUp()
        self.image = disks.make_partitioned(self.folder, ["vfat"], "MOVIES")
        os.truncate(self.image, self.disk_bytes)
        self.start_daemon()
        self.watch()
        self.stick = self.machine.plug(self.image)
        self.wait_observed(("added", 1))

    def prepare(self):
        self.stick.first_event = self.machine.event_count()
        self.assert_ctl(0, "prepare", 1, "--yes", timeout=300)

    def open_for_recording(self):
        self.assert_ctl(0, "open", 1, "--pvr")
        self.assert_mounted("/media/disk_1", "xfs", "rw", "prjquota")


class RecordingDisks(RecordingTestCase):
    def test_a_disk_becomes_a_recording_disk_without_being_announced_anew(self):
        self.prepare()
        self.finish_announcements()
        # The kernel and udev have reported the change.
        events = self.machine.events_of(self.stick)
        self.assertIn(("remove", "sda1"), events)
        self.assertIn(("add", "sda1"), events)
        self.assertEqual(self.observed(), [("added", 1)])
        self.assertEqual(self.devices(), [1])
        self.assertEqual(self.kernel_name(1), "sda1")
        self.assertEqual(self.ask("label", 1)["label"], "MOVIES")
        self.assertEqual(self.ask("info", 1)["capacityMiB"], DISK_BYTES // disks.MIB)
        # One partition over the whole disk except its beginning.
        sectors = int(self.machine.get("/sys/block/sda/sda1/size"))
        self.assertEqual(sectors, DISK_BYTES // 512 - 2048)

        self.open_for_recording()
        self.assertIn("noexec", self.mounts()[0][3])
        self.machine.put("/media/disk_1/recording.ts", b"film")
        self.assertEqual(self.ask("list"), [])
        self.assertEqual(self.devices(), [1])
        self.assertEqual(self.names_of_files(1, "ts"), ["recording.ts"])
        self.assert_ctl(0, "close", 1)
        self.assertEqual(self.mounts(), [])
        self.machine.unplug(self.stick)
        self.wait_observed(("added", 1), ("removed", 1))

    def test_a_recording_disk_that_was_pulled_while_recording_is_repaired_with_its_files(self):
        self.prepare()
        self.open_for_recording()
        self.machine.put("/media/disk_1/recording.ts", b"film")
        self.machine.check(["sync", "-f", "/media/disk_1/recording.ts"])
        writer = self.start_writing("/media/disk_1")
        self.machine.unplug(self.stick)
        self.machine.wait(writer)
        self.wait_observed(("added", 1), ("removed", 1))
        self.assertEqual(self.mounts(), [])

        self.machine.plug(self.image)
        self.wait_observed(("added", 1), ("removed", 1), ("added", 1))
        self.assert_ctl(0, "repair", 1, timeout=300)
        self.assertIn("xfs_repair PASSED", self.daemon_log())
        self.assertEqual(self.mounts(), [])
        self.open_for_recording()
        self.assertEqual(self.machine.get("/media/disk_1/recording.ts"), b"film")
        self.assertEqual(self.names_of_files(1, "ts"), ["recording.ts"])


class LargeDisks(RecordingTestCase):
    disk_bytes = 4 << 40

    def test_a_disk_of_four_tebibytes_is_a_recording_disk_to_its_end(self):
        self.prepare()
        self.finish_announcements()
        self.assertEqual(
            self.machine.check(["blkid", "-p", "-o", "value", "-s", "PTTYPE", "/dev/sda"]), "gpt\n"
        )
        sectors = int(self.machine.get("/sys/block/sda/sda1/size"))
        self.assertGreater(sectors, self.disk_bytes // 512 - 2 * 2048 - 1)

        self.open_for_recording()
        film = "/media/disk_1/recording.ts"
        self.machine.check(["fallocate", "-l", str(3 << 40), film])
        # The last extent on the disk: its start in the file and in the partition, in sectors.
        parts = re.findall(
            r"^\s+\d+: \[(\d+)\.\.\d+\]: (\d+)\.\.", self.machine.check(["xfs_bmap", film]), re.M
        )
        begin, place = max(((int(begin), int(place)) for begin, place in parts), key=lambda part: part[1])
        self.assertGreater(place, 1 << 32)
        self.machine.check(f"yes recorded | dd of={film} bs=512 count=8 seek={begin} conv=notrunc,fsync")
        self.assert_ctl(0, "close", 1)
        with open(self.image, "rb") as image:
            image.seek((2048 + place) * 512)
            self.assertEqual(image.read(9), b"recorded\n")
        self.open_for_recording()
        self.assertEqual(
            self.machine.check(f"dd if={film} bs=512 count=8 skip={begin} | head -n 1"), "recorded\n"
        )
