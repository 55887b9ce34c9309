"""Shared by the test cases: a running machine of each kind, and a folder for images."""

import atexit
import os
import shutil
import subprocess
import tempfile
import unittest

import machine

# The build folder whose installation is tested. Its prefix is /usr.
PROGRAMS = os.path.join(machine.ROOT, "root/dockhand" if machine.RELEASE else machine.CHECKOUT, "build/image")

_machines = {}
_boot_failures = {}
_images = []
kept_logs = []


def _image():
    """Returns the folder with the installation for the guest: the programs under test."""
    if not _images:
        folder = tempfile.mkdtemp(prefix="dockhand-image-")
        _images.append(folder)
        subprocess.run(
            ["cmake", "--install", PROGRAMS, "--strip"],
            check=True,
            stdout=subprocess.DEVNULL,
            env={**os.environ, "DESTDIR": folder},
        )
    return _images[0]


def package(name):
    """Returns the path of one of our packages."""
    folder = os.path.join(PROGRAMS, "packages")
    (found,) = (entry.path for entry in os.scandir(folder) if entry.name.startswith(f"{name}_"))
    return found


def _install_packages(guest):
    """Installs our packages in the guest, whose dpkg finds every dependency there."""
    paths = []
    for name in ("dockhand", "dockhand-client"):
        paths.append(f"/tmp/{name}.deb")
        with open(package(name), "rb") as file:
            guest.put(paths[-1], file.read())
    guest.check(["dpkg", "--install", *paths], timeout=300)
    guest.check(["rm", *paths])
    if guest.init == "systemd":
        # The cases start the service themselves.
        guest.check(["systemctl", "disable", "--now", "dockhand"])


def _boot(init, programs):
    """Boots a machine, a second time if the emulation breaks the kernel."""
    try:
        return machine.Machine(init=init, programs=programs)
    except machine.MachineError as error:
        # Linux 7 patches its code during the boot, and QEMU may run the old instruction on its other processor. This
        # was seen once in fourteen boots, on a host with ten times as much to do as it could.
        if "Oops: int3" not in str(error):
            raise
    return machine.Machine(init=init, programs=programs)


def _shared_machine(init, installed):
    kind = (init, installed)
    if kind not in _machines:
        if kind in _boot_failures:
            raise machine.MachineError(f"did not boot before: {_boot_failures[kind]}")
        try:
            copied = installed and not machine.RELEASE
            guest = _boot(init, _image() if copied else "")
            if installed and not copied:
                _install_packages(guest)
            _machines[kind] = guest
        except Exception as error:
            _boot_failures[kind] = str(error).partition("\n")[0]
            raise
    return _machines[kind]


def _close_machines():
    while _machines:
        _machines.popitem()[1].close()


def _close_all():
    _close_machines()
    while _images:
        shutil.rmtree(_images.pop())


atexit.register(_close_all)


class MachineTestCase(unittest.TestCase):
    """A test case in a machine that is booted once for all cases of its kind.

    A case must end its programs and remove files that another case would notice. Sticks, and the mounts and
    empty directories below /media, are removed for it. After a failure the console log is kept and the next
    case gets a new machine.
    """

    init = "busybox"
    installed = False

    def run(self, result=None):
        problems = len(result.failures) + len(result.errors)
        super().run(result)
        failed = len(result.failures) + len(result.errors) > problems
        if failed and (self.init, self.installed) in _machines:
            broken = _machines.pop((self.init, self.installed))
            kept_logs.append((self.id(), broken.keep_log()))
            broken.close()
        return result

    def setUp(self):
        self.folder = tempfile.mkdtemp(prefix="dockhand-sticks-")
        self.addCleanup(shutil.rmtree, self.folder)
        self.machine = _shared_machine(self.init, self.installed)
        self.addCleanup(self._clear_machine)

    def kernel_has(self, module):
        return self.machine.run(["modprobe", "--dry-run", "--quiet", module]).status == 0

    def _clear_machine(self):
        for target in self.machine.check("awk '$2 ~ \"^/media/\" { print $2 }' /proc/mounts").split():
            self.assertEqual(self.machine.umount(target, machine.MNT_DETACH), 0)
        # A daemon that is killed with an open stick leaves its directory, and the next daemon would reuse it.
        self.machine.check("test ! -d /media || find /media -mindepth 1 -depth -type d -exec rmdir {} +")
        for stick in self.machine.sticks():
            self.machine.unplug(stick)
        self.machine.wait_no_disks()
