"""A USB stick made of a file: an image, a loop device over it and, while it is plugged in, a node in /dev."""

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


def attach_loop_device(image):
    """Returns the descriptor of a loop device over the image. The kernel takes the device away by itself once the
    descriptor is closed and nothing is mounted any more, however this program ends."""
    with open('/dev/loop-control') as control, open(image, 'r+b') as file:
        # struct loop_config: the image's descriptor, the flags, and nothing else that is not zero.
        config = struct.pack('<2I 5Q 4I 176x 64x', file.fileno(), 0, 0, 0, 0, 0, 0, 0, 0, 0, LO_FLAGS_AUTOCLEAR)
        while True:
            number = fcntl.ioctl(control, LOOP_CTL_GET_FREE)
            with open(f'/sys/class/block/loop{number}/dev') as device:
                major, minor = map(int, device.read().split(':'))
            node = f'/dev/loop{number}'
            if os.path.exists(node):
                os.unlink(node)
            os.mknod(node, stat.S_IFBLK | 0o660, os.makedev(major, minor))
            descriptor = os.open(node, os.O_RDWR)
            try:
                fcntl.ioctl(descriptor, LOOP_CONFIGURE, config)
                return descriptor
            except OSError as failure:
                os.close(descriptor)
                # Somebody else took the device in the meantime: on to the next one.
                if failure.errno != errno.EBUSY:
                    raise


class Stick:
    """An ext3 stick without a partition table, called by `kernel_name` (sda)."""

    def __init__(self, kernel_name, label, uuid, mebibytes, files):
        self.kernel_name = kernel_name
        self.node = f'/dev/usb_storage_{kernel_name}'
        image = f'/tmp/{kernel_name}.img'
        with open(image, 'wb') as file:
            file.truncate(mebibytes << 20)
        with tempfile.TemporaryDirectory() as content:
            for path, text in files.items():
                path = os.path.join(content, path)
                os.makedirs(os.path.dirname(path), exist_ok=True)
                with open(path, 'w') as file:
                    file.write(text)
            subprocess.run(['mkfs.ext3', '-q', '-F', '-L', label, '-U', uuid, '-d', content, image], check=True)
        self.loop_device = attach_loop_device(image)

    def plug(self):
        """Does what the kernel and the device manager do for a real stick, except for telling Dockhand."""
        os.mknod(self.node, stat.S_IFBLK | 0o660, os.fstat(self.loop_device).st_rdev)
        os.makedirs(f'/sys/block/{self.kernel_name}')
        with open(f'/sys/block/{self.kernel_name}/removable', 'w') as file:
            file.write('1\n')
        with open('/tmp/partitions', 'a') as file:
            file.write(f'   8        0      16384 {self.kernel_name}\n')

    def unplug(self):
        os.unlink(self.node)
        os.unlink(f'/sys/block/{self.kernel_name}/removable')
        os.rmdir(f'/sys/block/{self.kernel_name}')
        with open('/tmp/partitions', 'w') as file:
            file.write('major minor  #blocks  name\n\n')
