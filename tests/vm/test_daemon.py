"""The daemon with sticks from plug to unplug, with the real events of the kernel and udev."""

import signal

import daemon
import disks


class Plugging(daemon.DaemonTestCase):
    def plug_new(self, name, **options):
        return self.machine.plug(disks.make_partitioned(self.folder, ["vfat"], "MUSIC", name=name), **options)

    def test_a_stick_is_announced_opened_read_safely_removed_unplugged_and_plugged_in_again(self):
        self.start_daemon()
        self.watch()
        image = disks.make_partitioned(self.folder, ["vfat"], "MUSIC")
        stick = self.machine.plug(image)
        self.wait_observed(("added", 1))
        self.assertEqual(self.devices(), [1])
        self.assertEqual(self.kernel_name(1), "sda1")
        self.assertEqual(self.ask("label", 1)["label"], "MUSIC")

        self.assert_ctl(0, "open", 1)
        self.assert_mounted("/media/disk_1", "vfat", "rw", "nosuid")
        for name in ("b.mp3", "a.MP3", "c.txt"):
            self.machine.put(f"/media/disk_1/songs/{name}", b"la la la")
        self.assertEqual(sorted(self.names_of_files(1, "mp3", "songs")), ["a.MP3", "b.mp3"])

        self.assert_ctl(0, "close", 1, "--safe")
        self.assertEqual(self.mounts(), [])
        self.assertEqual(self.devices(), [])
        self.assert_ctl(1, "open", 1)
        self.machine.unplug(stick)
        self.machine.wait_gone(stick, "sda")
        self.wait_observed(("added", 1), ("removed", 1))
        self.assert_ctl(daemon.NO_SUCH_DEVICE, "label", 1)

        # Once plugged in again, it can be used.
        self.machine.plug(image)
        self.wait_observed(("added", 1), ("removed", 1), ("added", 1))
        self.assert_ctl(0, "open", 1)
        self.assertEqual(self.names_of_files(1, "txt", "songs"), ["c.txt"])

    def test_a_bare_stick_is_announced_by_the_name_of_its_disk(self):
        self.start_daemon()
        self.watch()
        stick = self.machine.plug(disks.make(self.folder, "ext3", "BARE"))
        self.wait_observed(("added", 1))
        self.assertEqual(self.kernel_name(1), "sda")
        self.machine.unplug(stick)
        self.wait_observed(("added", 1), ("removed", 1))
        self.assertEqual(self.devices(), [])

    def test_two_sticks_on_one_hub_are_two_devices(self):
        self.start_daemon()
        self.watch()
        self.plug_new("first.img", behind_hub=1)
        self.wait_observed(("added", 1))
        second = self.plug_new("second.img", behind_hub=2)
        self.wait_observed(("added", 1), ("added", 2))
        self.assertEqual([self.kernel_name(device) for device in self.devices()], ["sda1", "sdb1"])
        for device in (1, 2):
            self.assert_ctl(0, "open", device)
            self.machine.put(f"/media/disk_{device}/mine.txt", str(device).encode())
        self.machine.unplug(second)
        self.wait_observed(("added", 1), ("added", 2), ("removed", 2))
        self.assertEqual(self.devices(), [1])
        self.assertEqual(self.machine.get("/media/disk_1/mine.txt"), b"1")
        self.assertEqual([mount[1] for mount in self.mounts()], ["/media/disk_1"])

    def test_a_stick_that_comes_back_gets_its_number_back(self):
        self.start_daemon()
        self.watch()
        image = disks.make_partitioned(self.folder, ["vfat"], "FIRST", name="first.img")
        stick = self.machine.plug(image)
        self.wait_observed(("added", 1))
        self.plug_new("second.img")
        self.wait_observed(("added", 1), ("added", 2))
        self.machine.unplug(stick)
        self.wait_observed(("added", 1), ("added", 2), ("removed", 1))
        self.machine.plug(image)
        self.wait_observed(("added", 1), ("added", 2), ("removed", 1), ("added", 1))
        self.assertEqual(self.ask("label", 1)["label"], "FIRST")
        self.assertEqual(self.devices(), [1, 2])

    def assert_usable_after_a_pull(self, image, *events):
        """Expects that nothing is left of the unplugged stick, which was device 1."""
        self.wait_observed(*events, ("removed", 1))
        self.assertEqual(self.mounts(), [])
        self.assertEqual(self.devices(), [])
        self.machine.plug(image)
        self.wait_observed(*events, ("removed", 1), ("added", 1))
        self.assert_ctl(0, "open", 1)
        self.assert_mounted("/media/disk_1", "vfat", "rw")
        self.machine.put("/media/disk_1/after.txt", b"still works")
        self.assert_ctl(0, "close", 1)
        self.assertEqual(self.mounts(), [])

    def test_a_mounted_stick_that_is_pulled_is_detached_and_forgotten(self):
        self.start_daemon()
        self.watch()
        image = disks.make_partitioned(self.folder, ["vfat"], "MUSIC")
        stick = self.machine.plug(image)
        self.wait_observed(("added", 1))
        self.assert_ctl(0, "open", 1)
        self.machine.unplug(stick)
        self.assert_usable_after_a_pull(image, ("added", 1))

    def test_a_stick_that_is_pulled_while_it_is_written_to_is_detached_and_forgotten(self):
        self.start_daemon()
        self.watch()
        image = disks.make_partitioned(self.folder, ["vfat"], "MUSIC")
        stick = self.machine.plug(image)
        self.wait_observed(("added", 1))
        self.assert_ctl(0, "open", 1)
        writer = self.start_writing("/media/disk_1")
        self.machine.unplug(stick)
        self.machine.wait(writer)
        self.assert_usable_after_a_pull(image, ("added", 1))


class Starting(daemon.DaemonTestCase):
    def test_a_stick_plugged_in_before_the_daemons_start_is_found_without_an_announcement(self):
        stick = self.machine.plug(disks.make_partitioned(self.folder, ["ext3"], "EARLY"))
        self.machine.wait_node(stick, "sda1")
        self.finish_announcements()
        self.start_daemon()
        self.assertEqual(self.devices(), [1])
        self.assert_ctl(0, "open", 1)
        self.assert_mounted("/media/disk_1", "ext3", "rw")
        # Its unplug is announced, as for any stick.
        self.watch()
        self.machine.unplug(stick)
        self.wait_observed(("removed", 1))
        self.assertEqual(self.mounts(), [])

    def test_a_restarted_daemon_can_open_again_what_was_open(self):
        self.start_daemon()
        for name in ("first.img", "second.img"):
            stick = self.machine.plug(disks.make_partitioned(self.folder, ["vfat"], name=name))
            self.machine.wait_event(stick, "change", "sda" if name == "first.img" else "sdb")
            self.finish_announcements()
        for device in (1, 2):
            self.assert_ctl(0, "open", device)
            self.machine.put(f"/media/disk_{device}/mine.txt", str(device).encode())
        self.kill_daemon()
        self.assertEqual(len(self.mounts()), 2)
        self.start_daemon()
        self.assertEqual(self.devices(), [1, 2])
        for device in (1, 2):
            self.assert_ctl(1, "is-open", device)
            self.assert_ctl(0, "open", device)
            self.assert_mounted(f"/media/disk_{device}", "vfat")
            self.assertEqual(self.machine.get(f"/media/disk_{device}/mine.txt"), str(device).encode())
            self.assert_ctl(0, "close", device)
        self.assertEqual(self.mounts(), [])

    def test_what_a_killed_repair_has_mounted_is_unmounted_before_the_daemon_starts(self):
        stick = self.machine.plug(disks.make(self.folder, "xfs", "PVR_DISK"))
        self.machine.wait_node(stick, "sda")
        self.finish_announcements()
        self.assertEqual(self.machine.mount("/dev/usb_storage_sda", "/media/disk_tmp", "xfs"), 0)
        self.start_daemon()
        self.assertEqual(self.mounts(), [])
        self.assertEqual(self.machine.check(["ls", "/media"]), "")


class Properties(daemon.DaemonTestCase):
    def test_type_usb_version_and_capacity_match_the_stick(self):
        self.start_daemon()
        self.watch()
        image = disks.make_partitioned(self.folder, ["vfat"], "MUSIC")
        events = []
        for usb, removable, version in ((1, True, "2.00"), (2, True, "2.00"), (3, False, "3.00")):
            with self.subTest(usb=usb, removable=removable):
                stick = self.machine.plug(image, usb=usb, removable=removable)
                events.append(("added", 1))
                self.wait_observed(*events)
                info = self.ask("info", 1)
                self.assertEqual(info["usbVersion"], version)
                self.assertEqual(info["type"], "removable" if removable else "fixed")
                # The capacity is that of the whole disk: 8 MiB of file system, 1 before it and 2 after it.
                self.assertEqual(info["capacityMiB"], 11)
                self.machine.unplug(stick)
                events.append(("removed", 1))
                self.wait_observed(*events)


class StartScript(daemon.DaemonTestCase):
    SCRIPT = "/usr/share/dockhand/init.d/dockhand"

    def setUp(self):
        super().setUp()
        # The socket's mode admits members of the group.
        self.machine.check(["systemd-sysusers"])

    def script(self, action):
        return self.machine.run([self.SCRIPT, action])

    def processes(self):
        return self.machine.run(["pidof", "dockhand"]).stdout.split()

    def test_it_starts_and_stops_the_daemon_and_reports_whether_it_runs(self):
        self.addCleanup(self.script, "stop")
        self.assertEqual(self.script("status").status, 3)
        self.assertEqual(self.script("start").status, 0)
        self.await_daemon()
        self.assertEqual(self.script("status").stdout, "dockhand is running\n")
        owner = self.machine.check(["stat", "-c", "%G %a", "/run/ravel/9020.sock"])
        self.assertEqual(owner, "dockhand 660\n")
        # A second start changes nothing.
        running = self.processes()
        self.assertEqual(len(running), 1)
        self.assertEqual(self.script("start").status, 0)
        self.assertEqual(self.processes(), running)

        self.assertEqual(self.script("stop").status, 0)
        self.machine.check("while pidof dockhand; do sleep 0.1; done")
        self.assertEqual(self.script("status").status, 3)
        self.assert_ctl(4, "list")

    def test_it_restarts_a_daemon_that_dies(self):
        self.addCleanup(self.script, "stop")
        self.assertEqual(self.script("start").status, 0)
        self.await_daemon()
        first = self.processes()
        self.machine.check(["kill", f"-{int(signal.SIGKILL)}", *first])
        self.machine.check(f'while test "$(pidof dockhand)" = {first[0]}; do sleep 0.1; done')
        self.await_daemon()
        self.assertNotEqual(self.processes(), first)

    def test_busybox_init_starts_the_daemon_with_the_system_and_stops_it_with_the_system(self):
        numbered, seen, busybox_tool = (
            "/etc/init.d/S",
            "/run/seen",
            "/usr/lib/dockhand/tools/start-stop-daemon",
        )
        self.addCleanup(self.script, "stop")
        self.addCleanup(self.machine.check, f"rm -f {numbered}[0-9]* {seen} {busybox_tool}")
        self.machine.check(["ln", "-s", self.SCRIPT, numbered + "60dockhand"])
        # Its neighbours: one starts before it and stops after it, the other one the other way round.
        for number in (59, 61):
            recorder = (
                f'#!/bin/sh\necho "{number} $1: $({self.SCRIPT} status)" >>{seen}\n'
                f'case "{number} $1" in\n'
                f'  "61 stop") pidof dockhand >/dev/null && echo "it lives" >>{seen} ;;\n'
                f'  "59 stop") timeout 10 sh -c "while pidof dockhand; do sleep 0.1; done" '
                f'|| echo "it still lives" >>{seen} ;;\n'
                "esac\n"
            )
            self.machine.put(f"{numbered}{number}recorder", recorder.encode(), 0o755)
        running, not_running = "dockhand is running", "dockhand is not running"
        started = [f"59 start: {not_running}", f"61 start: {running}"]
        stopped = [f"61 stop: {running}", "it lives", f"59 stop: {not_running}"]

        stick = self.machine.plug(disks.make_partitioned(self.folder, ["vfat"], "MUSIC"))
        self.machine.wait_node(stick, "sda1")
        self.finish_announcements()
        expected = [f"61 stop: {not_running}", f"59 stop: {not_running}", *started]
        for tool in ("dpkg", "busybox"):
            with self.subTest(start_stop_daemon=tool):
                if tool == "busybox":
                    self.machine.check(["ln", "-s", "/bin/busybox", busybox_tool])
                self.machine.restart_init()
                self.await_daemon()
                self.assertEqual(self.machine.get(seen).decode().splitlines(), expected)
                self.finish_announcements()
                self.assertEqual(self.devices(), [1])
                self.assert_ctl(0, "open", 1)
                self.assert_mounted("/media/disk_1", "vfat")
                self.assert_ctl(0, "close", 1)
                expected += stopped + started

    def test_a_stick_is_served_and_its_lines_go_to_the_system_log(self):
        log = self.machine.start(["busybox", "syslogd", "-n", "-O", "/run/messages"])
        self.addCleanup(self.machine.check, ["rm", "-f", "/run/messages", "/dev/log"])
        self.addCleanup(self.machine.wait, log)
        self.addCleanup(self.machine.kill, log)
        self.machine.check("until test -S /dev/log; do sleep 0.1; done")
        self.addCleanup(self.script, "stop")
        self.assertEqual(self.script("start").status, 0)
        self.await_daemon()
        self.watch()
        stick = self.machine.plug(disks.make_partitioned(self.folder, ["vfat"], "MUSIC"))
        self.wait_observed(("added", 1))
        self.assert_ctl(0, "open", 1)
        self.assert_mounted("/media/disk_1", "vfat")
        self.machine.unplug(stick)
        self.wait_observed(("added", 1), ("removed", 1))
        self.assertEqual(self.mounts(), [])
        self.machine.check("until grep -q 'OpenDeviceAt(1, /media/disk_1' /run/messages; do sleep 0.1; done")
