"""What the test cases share: a running machine of each kind, and a folder for images."""

import atexit
import os
import shutil
import tempfile
import unittest

import machine

# Where the programs under test are built.
PROGRAMS = os.environ.get("DOCKHAND_VM_PROGRAMS", os.path.join(machine.CHECKOUT, "build", "release", "bin"))

_machines = {}
kept_logs = []


def _shared_machine(init):
    if init not in _machines:
        _machines[init] = machine.Machine(init=init, programs=PROGRAMS)
    return _machines[init]


def _close_all():
    while _machines:
        _machines.popitem()[1].close()


atexit.register(_close_all)


class MachineTestCase(unittest.TestCase):
    """A test case in a machine that is booted once for all cases of its kind.

    A case leaves no program running and no file behind that another would notice; sticks and mounts below
    /media are taken away for it. After a failure the console log is kept and the next case gets a fresh
    machine.
    """

    init = "busybox"

    def run(self, result=None):
        problems = len(result.failures) + len(result.errors)
        super().run(result)
        failed = len(result.failures) + len(result.errors) > problems
        if failed and self.init in _machines:
            broken = _machines.pop(self.init)
            kept_logs.append((self.id(), broken.keep_log()))
            broken.close()
        return result

    def setUp(self):
        self.folder = tempfile.mkdtemp(prefix="dockhand-sticks-")
        self.addCleanup(shutil.rmtree, self.folder)
        self.machine = _shared_machine(self.init)
        self.addCleanup(self._clear_machine)

    def _clear_machine(self):
        for target in self.machine.check("awk '$2 ~ \"^/media/\" { print $2 }' /proc/mounts").split():
            self.assertEqual(self.machine.umount(target, machine.MNT_DETACH), 0)
        for stick in self.machine.sticks():
            self.machine.unplug(stick)
        self.machine.wait_no_disks()
