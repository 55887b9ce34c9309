"""A USB stick made from a file: an image, loop devices on it and, while it is plugged in, nodes in /dev."""

import errno
import fcntl
import os
import stat
import struct
import subprocess
import tempfile

LOOP_CONFIGURE = 0x4C0A
LOOP_CTL_GET_FREE = 0x4C82
LO_FLAGS_AUTOCLEAR = 4
LO_FLAGS_PARTSCAN = 8
PARTITION_OFFSET = 1 << 20


def attach_loop_device(image, offset=0):
    """Returns the descriptor of a loop device on the image. However this program ends, the kernel removes the device
    once the descriptor is closed and the device is unmounted."""
    # fdisk must be able to re-read the table of a whole disk; the device of a partition has no table.
    flags = LO_FLAGS_AUTOCLEAR | (LO_FLAGS_PARTSCAN if offset == 0 else 0)
    with open("/dev/loop-control") as control, open(image, "r+b") as file:
        # struct loop_config: only the image's descriptor, the offset and the flags are not zero.
        config = struct.pack("=2I 5Q 4I 176x 64x", file.fileno(), 0, 0, 0, 0, offset, 0, 0, 0, 0, flags)
        while True:
            number = fcntl.ioctl(control, LOOP_CTL_GET_FREE)
            with open(f"/sys/class/block/loop{number}/dev") as device:
                major, minor = map(int, device.read().split(":"))
            node = f"/dev/loop{number}"
            if os.path.exists(node):
                os.unlink(node)
            os.mknod(node, stat.S_IFBLK | 0o660, os.makedev(major, minor))
            descriptor = os.open(node, os.O_RDWR)
            try:
                fcntl.ioctl(descriptor, LOOP_CONFIGURE, config)
                return descriptor
            except OSError as failure:
                os.close(descriptor)
                # Somebody else took the device first: try the next one.
                if failure.errno != errno.EBUSY:
                    raise


def write_node(path, descriptor):
    os.mknod(path, stat.S_IFBLK | 0o660, os.fstat(descriptor).st_rdev)


def list_partition(name):
    """Adds a line to the private root's /proc/partitions."""
    with open("/tmp/partitions", "a") as file:
        file.write(f"   8        0     532480 {name}\n")


class Stick:
    """A stick with the kernel name `kernel_name` (sda): ext3 without a partition table, until somebody makes one."""

    def __init__(self, kernel_name, label, uuid, mebibytes, files):
        self.kernel_name = kernel_name
        self.node = f"/dev/usb_storage_{kernel_name}"
        self.image = image = f"/tmp/{kernel_name}.img"
        with open(image, "wb") as file:
            file.truncate(mebibytes << 20)
        with tempfile.TemporaryDirectory() as content:
            for path, text in files.items():
                path = os.path.join(content, path)
                os.makedirs(os.path.dirname(path), exist_ok=True)
                with open(path, "w") as file:
                    file.write(text)
            subprocess.run(
                ["mkfs.ext3", "-q", "-F", "-L", label, "-U", uuid, "-d", content, image], check=True
            )
        self.disk = attach_loop_device(image)
        # Many kernels do not read the partition tables of loop devices, so make this device here.
        self.partition = attach_loop_device(image, PARTITION_OFFSET)

    def plug(self):
        """Does what the kernel and the device manager do for a real stick, but does not notify Dockhand."""
        write_node(self.node, self.disk)
        os.makedirs(f"/sys/block/{self.kernel_name}")
        with open(f"/sys/block/{self.kernel_name}/removable", "w") as file:
            file.write("1\n")
        list_partition(self.kernel_name)

    def show_partition(self):
        """Makes the node of the first partition, as the device manager does while a disk is being prepared."""
        write_node(self.node + "1", self.partition)
        list_partition(self.kernel_name + "1")

    def unplug(self):
        for node in (self.node, self.node + "1"):
            if os.path.exists(node):
                os.unlink(node)
        os.unlink(f"/sys/block/{self.kernel_name}/removable")
        os.rmdir(f"/sys/block/{self.kernel_name}")
        with open("/tmp/partitions", "w") as file:
            file.write("major minor  #blocks  name\n\n")

    def discard(self):
        """Releases the loop devices; the kernel removes them once they are unmounted."""
        os.close(self.disk)
        os.close(self.partition)
        os.unlink(self.image)
