"""The daemon's unit, and the rules and units around it, under systemd."""

import json
import os
import signal

import daemon
import disks

SOCKET = "/run/ravel/9020.sock"

# The kernel's numbers of capabilities.
CAPABILITIES = {"DAC_OVERRIDE": 1, "DAC_READ_SEARCH": 2, "FOWNER": 3, "SYS_ADMIN": 21}

ERROR, WARNING, NOTICE, INFORMATIONAL = "3", "4", "5", "6"


class Unit(daemon.DaemonTestCase):
    init = "systemd"

    def setUp(self):
        super().setUp()
        self.machine.check(["systemd-sysusers"])
        self.addCleanup(self.stop_unit)

    def start_unit(self):
        self.machine.check(["systemctl", "start", "dockhand"])
        self.await_daemon()

    def stop_unit(self):
        self.machine.check(["systemctl", "stop", "dockhand"])
        # The tests cause many starts in a short time, so reset systemd's count.
        self.machine.run(["systemctl", "reset-failed", "dockhand"])

    def main_pid(self):
        return int(self.machine.check(["systemctl", "show", "--property=MainPID", "--value", "dockhand"]))

    def kill_main_process(self):
        """Kills the daemon; returns once the next one has started."""
        before = self.main_pid()
        self.machine.check(["kill", f"-{int(signal.SIGKILL)}", str(before)])
        self.machine.check(
            f"while pid=$(systemctl show --property=MainPID --value dockhand); "
            f"test $pid = 0 || test $pid = {before}; do sleep 0.1; done",
            timeout=120,
        )

    def drop_in(self, text, unit="dockhand.service"):
        """Changes the unit for the duration of the test."""
        folder = f"/run/systemd/system/{unit}.d"
        self.addCleanup(self.machine.check, f"rm -r {folder} && systemctl daemon-reload")
        self.machine.put(f"{folder}/test.conf", text.encode())
        self.machine.check(["systemctl", "daemon-reload"])

    def replace_tools(self, options="", **scripts):
        """Puts these scripts first in the unit's PATH, and gives the unit more options."""
        self.addCleanup(self.machine.check, ["rm", "-r", "/run/tools"])
        for name, script in scripts.items():
            self.machine.put(f"/run/tools/{name}", f"#!/bin/sh\n{script}\n".encode(), mode=0o755)
        self.drop_in(f"[Service]\nEnvironment=PATH=/run/tools:{daemon.TOOLS_PATH}\n{options}\n")

    def journal(self, *matches):
        self.machine.check(["journalctl", "--sync"])
        lines = self.machine.check(["journalctl", "--unit=dockhand", "--output=json", *matches]).splitlines()
        return [json.loads(line) for line in lines]

    def status_of(self, pid):
        lines = self.machine.get(f"/proc/{pid}/status").decode().splitlines()
        return {name: value.strip() for name, _, value in (line.partition(":") for line in lines)}

    def plug(self, *events, image=None):
        """Plugs in a stick, which becomes device 1. `events` are those observed before."""
        stick = self.machine.plug(image or disks.make_partitioned(self.folder, ["vfat"], "MUSIC"))
        self.wait_observed(*events, ("added", 1))
        return stick

    def lengthen_mount_table(self):
        """Also mounts two file systems at one directory, as full systems do."""
        self.addCleanup(self.machine.check, "for n in 20 $(seq 20); do umount /mnt/filler-$n; done")
        self.machine.check(
            "for n in $(seq 20) 20; do mkdir -p /mnt/filler-$n && "
            "mount -t tmpfs filler /mnt/filler-$n; done",
            timeout=240,
        )
        self.assertGreater(len(self.machine.get("/proc/1/mounts")), 1024)

    def system_mounts(self):
        lines = self.machine.get("/proc/1/mounts").decode().splitlines()
        return [directory for directory in (line.split(" ")[1] for line in lines) if directory != "/media"]

    def test_a_stick_is_served_and_its_mount_seen_by_the_system(self):
        self.start_unit()
        self.watch()
        stick = self.plug()
        self.assert_ctl(0, "open", 1)
        self.assert_mounted("/media/disk_1", "vfat", "rw")
        self.assertEqual(self.mounts(1), self.mounts())
        self.assertEqual(self.ask("usb-version", 1)["usbVersion"], "3.00")
        self.assert_ctl(0, "close", 1)
        self.assertEqual(self.mounts(1), [])
        self.assert_ctl(0, "open", 1)
        self.machine.unplug(stick)
        self.wait_observed(("added", 1), ("removed", 1))
        self.assertEqual(self.mounts(1), [])
        self.assertEqual(self.devices(), [])

    def test_closing_unmounts_also_where_the_mount_table_is_long(self):
        self.lengthen_mount_table()
        before = self.system_mounts()
        self.start_unit()
        # The launcher removes mounts from the daemon's namespace only.
        self.assertEqual(self.system_mounts(), before)
        self.watch()
        stick = self.plug()
        self.assert_ctl(0, "open", 1)
        daemon_pid = self.main_pid()
        self.assertEqual([mount[1] for mount in self.mounts(1)], ["/media/disk_1"])
        self.assertEqual(self.mounts(daemon_pid), self.mounts(1))
        # docs/SECURITY.md relies on this.
        self.assertLess(len(self.machine.get(f"/proc/{daemon_pid}/mounts")), 560)
        self.machine.put("/media/disk_1/song.mp3", b"la la la")
        self.assertEqual(self.names_of_files(1, "mp3"), ["song.mp3"])

        self.assert_ctl(0, "close", 1)
        self.assertEqual(self.mounts(1), [])
        self.assertEqual(self.mounts(daemon_pid), [])
        # The next daemon finds the mounts, and can clear that of a stick that is unplugged.
        self.assert_ctl(0, "open", 1)
        self.machine.check(["systemctl", "restart", "dockhand"])
        self.await_daemon()
        daemon_pid = self.main_pid()
        self.assertEqual([mount[1] for mount in self.mounts(daemon_pid)], ["/media/disk_1"])
        self.assert_ctl(0, "open", 1)
        self.assertEqual([mount[1] for mount in self.mounts(1)], ["/media/disk_1"])
        self.assertEqual(self.mounts(daemon_pid), self.mounts(1))
        self.machine.unplug(stick)
        self.machine.wait_gone(stick, "sda")
        self.finish_announcements()
        self.assertEqual(self.mounts(1), [])
        self.assertEqual(self.mounts(daemon_pid), [])

    def test_a_directory_that_the_image_names_is_shared_with_the_system(self):
        self.lengthen_mount_table()
        self.drop_in("[Service]\nEnvironment=DOCKHAND_SHARED=/srv/usb\n")
        self.start_unit()
        self.watch()
        self.plug()
        for directory, status, mounts in (("/srv/usb", 0, 1), ("/opt/usb", 1, 0)):
            # The client sees the system's mounts.
            self.assert_ctl(status, "open", 1, "--at", directory)
            self.assertEqual(self.machine.get("/proc/1/mounts").decode().count(f" {directory} "), mounts)
            self.assert_ctl(0, "close", 1)
            self.assertNotIn(f" {directory} ", self.machine.get("/proc/1/mounts").decode())

    def test_without_the_launcher_closing_finds_no_mount_in_a_long_table(self):
        self.lengthen_mount_table()
        self.drop_in("[Service]\nExecStart=\nExecStart=/usr/sbin/dockhand\n")
        self.start_unit()
        self.watch()
        self.plug()
        self.assert_ctl(0, "open", 1)
        self.assertIn("still mounted", self.assert_ctl(1, "close", 1).stderr)
        self.assertEqual([mount[1] for mount in self.mounts(1)], ["/media/disk_1"])

    def test_a_killed_daemon_comes_back_and_opens_its_stick_again(self):
        self.start_unit()
        self.watch()
        self.plug()
        self.assert_ctl(0, "open", 1)
        self.kill_main_process()
        self.await_daemon()
        self.assertEqual(self.devices(), [1])
        self.assert_ctl(1, "is-open", 1)
        self.assert_ctl(0, "open", 1)
        self.assert_mounted("/media/disk_1", "vfat")
        self.assertEqual(self.mounts(1), self.mounts())

    def test_a_daemon_that_dies_many_times_is_restarted_each_time(self):
        # By default systemd refuses more than five starts in ten seconds.
        self.drop_in("[Service]\nRestartSec=100ms\n")
        self.start_unit()
        for _ in range(7):
            self.kill_main_process()
        self.await_daemon()

    def test_a_repair_whose_daemon_is_killed_ends_before_the_next_start_and_can_be_repeated(self):
        tool, began = "/usr/lib/dockhand/tools/xfs_repair", "/run/repair-began"
        self.addCleanup(self.machine.check, ["rm", "-f", tool, began])
        self.start_unit()
        self.watch()
        self.plug(image=disks.make_partitioned(self.folder, ["xfs"], "PVR_DISK"))
        self.assert_ctl(0, "open", 1)
        self.machine.put("/media/disk_1/recording.ts", b"film")
        self.assert_ctl(0, "close", 1)

        self.machine.put(tool, f"#!/bin/sh\necho $$ >{began}\nexec sleep 1000\n".encode(), mode=0o755)
        client = self.machine.start(["dockhandctl", "repair", "1"])
        self.machine.wait_lines(began, 1)
        self.kill_main_process()
        self.assertNotEqual(self.machine.wait(client), 0)
        self.assertNotEqual(
            self.machine.run(["kill", "-0", self.machine.get(began).decode().strip()]).status, 0
        )
        self.await_daemon()
        self.machine.check(["rm", tool])
        self.assert_ctl(0, "repair", 1, timeout=300)
        self.assert_ctl(0, "open", 1, "--pvr")
        self.assert_mounted("/media/disk_1", "xfs", "rw", "prjquota")
        self.assertEqual(self.machine.get("/media/disk_1/recording.ts"), b"film")

    def test_members_of_the_group_are_served_and_others_are_not(self):
        self.start_unit()
        self.assertEqual(self.machine.check(["stat", "-c", "%U %G %a", SOCKET]), "root dockhand 660\n")
        somebody = ["setpriv", "--reuid=nobody", "--regid=nogroup"]
        outside = self.machine.run([*somebody, "--clear-groups", "dockhandctl", "list"])
        self.assertEqual(outside.status, 4, outside)
        self.assertIn("ermission", outside.stderr)
        inside = self.machine.run([*somebody, "--groups=dockhand", "dockhandctl", "list"])
        self.assertEqual(inside.status, 0, inside)

    def test_the_journal_has_the_lines_with_their_priorities(self):
        self.start_unit()
        self.watch()
        self.plug()
        self.assert_ctl(0, "open", 1)
        self.assert_ctl(0, "close", 1)
        self.assert_ctl(1, "repair", 1)
        self.assert_ctl(1, "call", "RunDiskRepair", 99)
        entries = self.journal(f"_PID={self.main_pid()}")
        self.assertEqual({entry["SYSLOG_IDENTIFIER"] for entry in entries}, {"dockhand"})
        for text, priority in (
            ("OpenDeviceAt(1, /media/disk_1, isPvrDevice=0)", NOTICE),
            ("repair not supported for: vfat", WARNING),
            ("RunDiskRepair(99) - Unknown device!", ERROR),
        ):
            found = [entry["PRIORITY"] for entry in entries if entry["MESSAGE"].endswith(text)]
            self.assertEqual(found, [priority], text)

    def test_a_line_of_a_tool_cannot_set_its_priority(self):
        # Some programs named logger write lines unchanged.
        self.replace_tools(xfs_repair="echo '<0>/recording.ts'; exit 1", logger="exec cat >&2")
        self.start_unit()
        self.watch()
        self.plug(image=disks.make_partitioned(self.folder, ["xfs"], "PVR_DISK"))
        self.assert_ctl(1, "repair", 1)
        found = {
            (entry["MESSAGE"], entry["PRIORITY"])
            for entry in self.journal()
            if "/recording.ts" in entry["MESSAGE"]
        }
        self.assertEqual(found, {("<0>/recording.ts", INFORMATIONAL)})

    def test_a_tool_killed_for_lack_of_memory_does_not_end_the_daemon(self):
        seen = "/run/end-seen"
        self.addCleanup(self.machine.check, ["rm", seen])
        # The second repair waits until systemd has noticed the first one's end.
        self.replace_tools(
            "MemoryMax=100M\nMemorySwapMax=0",
            xfs_repair='test "$1" = -L || exec tail /dev/zero\n'
            f"until test -e {seen}; do sleep 0.1; done; exit 1",
        )
        self.start_unit()
        self.watch()
        self.plug(image=disks.make_partitioned(self.folder, ["xfs"], "PVR_DISK"))
        before = self.main_pid()
        client = self.machine.start(["dockhandctl", "repair", "1"])
        # systemd's releases say it in different words.
        self.machine.check("until dmesg | grep -q 'dockhand.service: .* OOM killer'; do sleep 0.1; done")
        self.machine.put(seen, b"")
        self.assertEqual(self.machine.wait(client), 1)
        self.assertEqual(self.main_pid(), before)

    def test_announcements_take_no_mount_namespace(self):
        self.addCleanup(self.machine.check, ["rm", "/run/namespace"])
        self.drop_in(
            "[Service]\nExecStart=/bin/sh -c 'readlink /proc/self/ns/mnt >/run/namespace'\n",
            "dockhand-usb@.service",
        )
        self.start_unit()
        self.watch()
        self.plug()
        self.assertEqual(
            self.machine.get("/run/namespace").decode(), self.machine.check(["readlink", "/proc/1/ns/mnt"])
        )

    def record(self, device):
        """Prepares a disk, records on it, repairs it."""
        self.assert_ctl(0, "prepare", device, "--yes", timeout=300)
        self.finish_announcements()
        self.assert_ctl(0, "open", device, "--pvr")
        self.assert_mounted(f"/media/disk_{device}", "xfs", "rw", "prjquota")
        self.machine.put(f"/media/disk_{device}/recording.ts", b"film")
        self.assert_ctl(0, "close", device)
        self.assert_ctl(0, "repair", device, timeout=300)
        self.assert_ctl(0, "open", device, "--pvr")
        self.assertEqual(self.machine.get(f"/media/disk_{device}/recording.ts"), b"film")
        self.assertEqual(
            [mount for mount in self.mounts(1) if mount[1] == f"/media/disk_{device}"], self.mounts()
        )

    def test_recording_disks_are_prepared_and_repaired_in_the_hardened_unit(self):
        self.start_unit()
        status = self.status_of(self.main_pid())
        self.assertEqual(status["NoNewPrivs"], "1")
        self.assertEqual(status["Seccomp"], "2")
        bounds = sum(1 << number for number in CAPABILITIES.values())
        self.assertEqual(int(status["CapBnd"], 16), bounds)
        self.assertEqual(int(status["CapEff"], 16), bounds)

        self.watch()
        image = disks.make_partitioned(self.folder, ["vfat"], "MOVIES")
        os.truncate(image, 400 * disks.MIB)
        stick = self.plug(image=image)
        self.record(1)
        self.assertEqual(self.observed(), [("added", 1)])
        self.assertEqual(self.devices(), [1])
        self.assertEqual(self.ask("label", 1)["label"], "MOVIES")
        # The unit that announced the first partition of that name is now bound to the second one.
        self.machine.unplug(stick)
        self.wait_observed(("added", 1), ("removed", 1))
        self.assertEqual(self.mounts(1), [])

    def test_a_disk_of_a_driver_that_is_loaded_later_becomes_a_recording_disk_in_the_hardened_unit(self):
        rules, image = "/run/udev/rules.d/61-loop.rules", "/run/disk.img"
        self.start_unit()
        self.assertNotIn(" loop\n", self.machine.get("/proc/devices").decode())
        self.machine.put(
            rules,
            b'KERNEL=="loop0", SYMLINK+="usb_storage_vda"\n'
            b'KERNEL=="loop0p1", SYMLINK+="usb_storage_vda1"\n',
        )
        # The nodes go while the rules are installed. udev may hold the disk open for a moment.
        self.addCleanup(
            self.machine.check,
            "losetup -d /dev/loop0 && until rmmod loop; do sleep 0.1; done && "
            "udevadm settle && test ! -e /dev/usb_storage_vda && "
            f"rm {rules} {image} && udevadm control --reload",
            timeout=120,
        )
        self.machine.check(
            f"udevadm control --reload && truncate -s 400M {image} && "
            f"echo ',,L' | sfdisk -q {image} && modprobe loop && losetup -P /dev/loop0 {image}"
        )
        self.machine.settle()
        self.assertEqual(self.devices(), [1])
        self.assertEqual(self.kernel_name(1), "vda1")
        self.record(1)
        self.assert_ctl(0, "close", 1)
