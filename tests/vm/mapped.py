"""A device-mapper device in the guest that acts as a stick and fails on demand."""


class Mapped:
    """Over a disk of the guest, such as sda, with the node /dev/usb_storage_<name>."""

    def __init__(self, machine, disk, name):
        self.machine = machine
        self.name = name
        self.disk = disk
        self.node = f"/dev/usb_storage_{name}"
        machine.check(["modprobe", "-a", "dm_mod", "dm_flakey"])
        self.sectors = int(machine.get(f"/sys/block/{disk}/size"))
        machine.check(["dmsetup", "create", name, "--noudevsync", "--table", self._sound(0, self.sectors)])
        number = machine.check(
            ["dmsetup", "info", "-c", "--noheadings", "--separator", " ", "-o", "major,minor", name]
        ).split()
        machine.check(["mknod", self.node, "b", *number])

    def _sound(self, start, end):
        return f"{start} {end - start} linear /dev/{self.disk} {start}"

    def _become(self, *table):
        self.machine.check(["dmsetup", "load", self.name], input="\n".join(table) + "\n")
        self.hang()
        self.wake()

    def recover(self):
        """Makes all reads and writes succeed from now on."""
        self._become(self._sound(0, self.sectors))

    def fail(self, start=0, end=None):
        """Makes every read and write of these sectors fail from now on; by default of all sectors."""
        end = self.sectors if end is None else end
        table = [self._sound(0, start)] if start > 0 else []
        table.append(f"{start} {end - start} error")
        if end < self.sectors:
            table.append(self._sound(end, self.sectors))
        self._become(*table)

    def fail_writes(self):
        """Makes every write fail from now on, and no read."""
        self._become(f"0 {self.sectors} flakey /dev/{self.disk} 0 0 100 1 error_writes")

    def fail_now_and_then(self):
        """Makes the disk work for a second, fail for a second, and so on."""
        self._become(f"0 {self.sectors} flakey /dev/{self.disk} 0 1 1")

    def hang(self):
        """Makes reads and writes hang from now on."""
        self.machine.check(["dmsetup", "suspend", "--nolockfs", "--noflush", self.name])

    def wake(self):
        """Lets hanging reads and writes continue."""
        self.machine.check(["dmsetup", "resume", "--noudevsync", self.name])

    def remove(self):
        self.wake()
        self.recover()
        self.machine.check(["rm", self.node])
        self.machine.check(
            f"umount -l $(awk '$1 == \"{self.node}\" {{ print $2 }}' /proc/mounts) 2>/dev/null; "
            f"dmsetup remove --noudevsync --retry {self.name}"
        )
