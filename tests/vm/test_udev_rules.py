"""The rules for the device manager, with a dockhandctl that records its calls."""

import os

import disks
import machine
import testcase

INTEGRATION = os.path.join(machine.CHECKOUT, "integration")

# If a gate exists, each call waits there until it is released, and is recorded only then.
RECORDER = b"""#!/bin/sh
if [ -p /run/gate ]; then
  echo "$*" >> /run/waiting
  cat /run/gate
fi
echo "$*" >> /run/calls
"""


class UdevRules(testcase.MachineTestCase):
    """Cases that hold with and without systemd."""

    def setUp(self):
        super().setUp()
        self.machine.put("/run/calls", b"")
        self.machine.put("/usr/bin/dockhandctl", RECORDER, 0o755)
        self.install("udev/dockhand-notify", "/usr/lib/dockhand/dockhand-notify", 0o755)
        self.install("systemd/dockhand-usb@.service", "/etc/systemd/system/dockhand-usb@.service")
        self.machine.add_udev_rules(os.path.join(INTEGRATION, "udev"))
        self.addCleanup(self.machine.check, "rm -rf /run/calls /run/gate /run/waiting /run/udev/rules.d")

    def install(self, source, target, mode=0o644):
        with open(os.path.join(INTEGRATION, source), "rb") as file:
            self.machine.put(target, file.read(), mode)

    def calls(self, count):
        """Waits for that many calls, and until none is running; returns the recorded calls."""
        self.machine.wait_lines("/run/calls", count)
        self.machine.settle()
        self.finish_announcements()
        return self.machine.check(["cat", "/run/calls"]).splitlines()

    def finish_announcements(self):
        raise NotImplementedError

    def close_gate(self):
        self.machine.check(["mkfifo", "/run/gate"])

    def let_through(self):
        """Waits for a call at the gate and releases it."""
        self.machine.check(": > /run/gate")

    def nodes(self):
        return self.machine.check("ls /dev | grep usb_storage_ || true").split()


class AnnouncementCases:
    def test_a_bare_stick_has_a_node_and_is_announced(self):
        stick = self.machine.plug(disks.make(self.folder, "vfat"))
        self.machine.wait_event(stick, "change", "sda")
        self.assertEqual(self.calls(1), ["notify added sda"])
        self.assertEqual(self.nodes(), ["usb_storage_sda"])
        self.machine.unplug(stick)
        self.machine.wait_gone(stick, "sda")
        self.assertEqual(self.calls(2), ["notify added sda", "notify removed sda"])
        self.assertEqual(self.nodes(), [])

    def test_a_partitioned_stick_is_announced_under_both_names(self):
        stick = self.machine.plug(disks.make_partitioned(self.folder, ["vfat"]))
        self.machine.wait_event(stick, "change", "sda")
        self.assertEqual(sorted(self.calls(2)), ["notify added sda", "notify added sda1"])
        self.assertEqual(self.nodes(), ["usb_storage_sda", "usb_storage_sda1"])
        self.machine.unplug(stick)
        self.machine.wait_gone(stick, "sda")
        self.assertEqual(sorted(self.calls(4)[2:]), ["notify removed sda", "notify removed sda1"])
        self.assertEqual(self.nodes(), [])

    def test_udev_does_not_wait_for_the_announcement(self):
        self.close_gate()
        stick = self.machine.plug(disks.make(self.folder, "vfat"))
        self.machine.wait_event(stick, "change", "sda")
        self.machine.settle()
        self.assertEqual(self.machine.get("/run/calls"), b"")
        self.let_through()
        self.assertEqual(self.calls(1), ["notify added sda"])
        self.machine.check(["rm", "/run/gate"])

    def test_a_card_reader_is_announced_with_its_card_only(self):
        reader = self.machine.plug_card_reader()
        self.machine.wait_node(reader, "sda")
        self.assertEqual(self.nodes(), [])
        self.machine.insert_card(reader, disks.make(self.folder, "vfat"))
        self.assertEqual(self.calls(1), ["notify added sda"])
        self.assertEqual(self.nodes(), ["usb_storage_sda"])
        self.machine.remove_card(reader)
        self.assertEqual(self.calls(2), ["notify added sda", "notify removed sda"])
        self.assertEqual(self.nodes(), [])
        self.machine.unplug(reader)
        self.machine.wait_gone(reader, "sda")
        self.assertEqual(self.calls(2), ["notify added sda", "notify removed sda"])

    def test_a_disk_that_is_not_on_usb_has_no_node_and_is_not_announced(self):
        self.machine.check(["modprobe", "scsi_debug", "dev_size_mb=8"])
        self.addCleanup(self.machine.check, ["modprobe", "-r", "scsi_debug"])
        self.machine.settle()
        self.machine.check(["test", "-b", "/dev/sda"])
        self.assertEqual(self.nodes(), [])
        self.assertEqual(self.calls(0), [])


class UdevRulesWithoutSystemd(AnnouncementCases, UdevRules):
    """dockhand-notify announces in the background."""

    def finish_announcements(self):
        self.machine.check("test ! -e /run/dockhand || flock /run/dockhand/plug-events.lock true")

    def test_a_quick_unplug_is_announced_after_the_plug(self):
        self.close_gate()
        stick = self.machine.plug(disks.make(self.folder, "vfat"))
        self.machine.wait_node(stick, "sda")
        self.machine.unplug(stick)
        self.machine.wait_gone(stick, "sda")
        # The kernel marks processes that wait for a lock.
        self.machine.check("until grep -q -e '-> FLOCK' /proc/locks; do sleep 0.05; done")
        self.assertEqual(self.machine.get("/run/waiting"), b"notify added sda\n")
        self.let_through()
        self.machine.wait_lines("/run/calls", 1)
        self.let_through()
        self.assertEqual(self.calls(2), ["notify added sda", "notify removed sda"])

    def test_an_announcement_that_fails_is_logged_and_does_not_delay_the_next(self):
        self.machine.put("/usr/bin/dockhandctl", RECORDER + b"exit 1\n", 0o755)
        self.machine.put("/usr/sbin/logger", b'#!/bin/sh\necho "$*" >> /run/logged\n', 0o755)
        self.addCleanup(self.machine.check, ["rm", "/usr/sbin/logger", "/run/logged"])
        stick = self.machine.plug(disks.make(self.folder, "vfat"))
        self.machine.wait_node(stick, "sda")
        self.machine.unplug(stick)
        self.machine.wait_gone(stick, "sda")
        self.assertEqual(self.calls(2), ["notify added sda", "notify removed sda"])
        self.assertEqual(
            self.machine.get("/run/logged"),
            b"-t dockhand-notify cannot announce: added sda\n"
            b"-t dockhand-notify cannot announce: removed sda\n",
        )


class UdevRulesWithSystemd(AnnouncementCases, UdevRules):
    """The device's own unit announces; dockhand-notify does not run."""

    init = "systemd"

    def setUp(self):
        super().setUp()
        self.machine.check(["systemctl", "daemon-reload"])

    def finish_announcements(self):
        self.machine.check('until test -z "$(systemctl list-jobs --no-legend)"; do sleep 0.05; done')
        self.machine.check(["test", "!", "-e", "/run/dockhand"])

    def test_an_unplug_ends_an_announcement_that_is_still_under_way(self):
        self.close_gate()
        stick = self.machine.plug(disks.make(self.folder, "vfat"))
        self.machine.wait_lines("/run/waiting", 1)
        self.machine.unplug(stick)
        self.machine.wait_lines("/run/waiting", 2)
        self.assertEqual(self.machine.get("/run/waiting"), b"notify added sda\nnotify removed sda\n")
        self.let_through()
        self.assertEqual(self.calls(1), ["notify removed sda"])

    def test_after_an_announcement_that_fails_the_unplug_is_still_announced(self):
        self.machine.put("/usr/bin/dockhandctl", RECORDER + b"exit 1\n", 0o755)
        stick = self.machine.plug(disks.make(self.folder, "vfat"))
        self.machine.wait_node(stick, "sda")
        self.assertEqual(self.calls(1), ["notify added sda"])
        self.machine.unplug(stick)
        self.machine.wait_gone(stick, "sda")
        self.assertEqual(self.calls(2), ["notify added sda", "notify removed sda"])
