"""Images of USB sticks, made by the host's standard tools.

    disks.py FOLDER FILESYSTEM LABEL    makes FOLDER/stick.img
"""

import lzma
import os
import random
import shutil
import subprocess
import sys

import hfsplus

MIB = 1024 * 1024

TOOL_PATH = os.environ.get("PATH", "") + ":/usr/sbin:/sbin:/usr/bin:/bin"

# Start of the first partition, and the room after it for the second partition table of GPT.
PARTITION_OFFSET = MIB
PARTITION_TABLE_ROOM = 2 * MIB

# Where an HFS volume has its name: the length, and up to 27 characters.
HFS_NAME = 1024 + 36

# MBR type of the partition of each file system.
# fmt: off
PARTITION_TYPES = {
    "vfat": "c", "ext3": "83", "ext4": "83", "xfs": "83", "hfs": "af", "hfsplus": "af", "ntfs": "7",
    "garbage": "83", "empty": "83",
}
# fmt: on


def make(folder, filesystem, label="", name="stick.img"):
    """Makes an image without partitions; returns its path. `filesystem` may also be "garbage" or "empty"."""
    path = os.path.join(folder, name)
    MAKERS[filesystem](path, label)
    return path


def make_partitioned(folder, filesystems, label="", table="dos", name="stick.img"):
    """Makes an image with a partition for each of the file systems, all with that label; returns its path."""
    path = os.path.join(folder, name)
    parts = []
    script = [f"label: {table}"]
    start = PARTITION_OFFSET
    for number, filesystem in enumerate(filesystems):
        part = make(folder, filesystem, label, f"{name}.part{number + 1}")
        size = os.path.getsize(part)
        kind = f", type={PARTITION_TYPES[filesystem]}" if table == "dos" else ""
        script.append(f"start={start // 512}, size={size // 512}{kind}")
        parts.append((start, part))
        start += size
    _truncate(path, start + PARTITION_TABLE_ROOM)
    _tool(["sfdisk", "--quiet", path], input="\n".join(script) + "\n")
    for offset, part in parts:
        _copy_sparsely(part, path, offset)
        os.remove(part)
    return path


def _ext2(path, label):
    _truncate(path, 8 * MIB)
    _tool(["mkfs.ext2", "-q", "-F", "-L", label, path])


def _ext3(path, label):
    _truncate(path, 8 * MIB)
    _tool(["mkfs.ext3", "-q", "-F", "-L", label, path])


def _ext4(path, label):
    _truncate(path, 8 * MIB)
    _tool(["mkfs.ext4", "-q", "-F", "-L", label, path])


def _vfat(path, label):
    _truncate(path, 8 * MIB)
    _tool(["mkfs.vfat", *(["-n", label] if label else []), path])


def _fat32(path, label):
    # Smaller than the format allows: the tool warns, but the file system works.
    _truncate(path, 8 * MIB)
    _tool(["mkfs.vfat", "-F", "32", *(["-n", label] if label else []), path])


def _xfs(path, label):
    # The minimum of mkfs.xfs. The file is sparse.
    _truncate(path, 300 * MIB)
    _tool(["mkfs.xfs", "-q", "-L", label, path])


def _hfs(path, label):
    # Written once by hformat: newer releases of Debian have no tool for HFS.
    with lzma.open(os.path.join(os.path.dirname(__file__), "hfs.img.xz")) as volume:
        image = bytearray(volume.read())
    name = (label or "Untitled").encode("mac_roman")
    image[HFS_NAME : HFS_NAME + 28] = bytes([len(name)]) + name.ljust(27, b"\0")
    with open(path, "wb") as file:
        file.write(image)


def _hfsplus(path, label):
    hfsplus.write_volume(path, 8, label or "Untitled", {"hello.txt": b"hello\n"})


def _ntfs(path, label):
    _truncate(path, 8 * MIB)
    _tool(["mkntfs", "-q", "-F", "-f", "-p", "0", "-H", "0", "-S", "0", "-L", label or "Untitled", path])


def _garbage(path, _label):
    with open(path, "wb") as file:
        file.write(random.Random(1).randbytes(4 * MIB))


def _empty(path, _label):
    _truncate(path, 4 * MIB)


# fmt: off
MAKERS = {
    "ext2": _ext2, "ext3": _ext3, "ext4": _ext4, "vfat": _vfat, "fat32": _fat32, "xfs": _xfs, "hfs": _hfs,
    "hfsplus": _hfsplus, "ntfs": _ntfs, "garbage": _garbage, "empty": _empty,
}
# fmt: on


def _truncate(path, size):
    with open(path, "wb") as file:
        file.truncate(size)


def _copy_sparsely(source, target, offset):
    with open(source, "rb") as reader, open(target, "r+b") as writer:
        size = os.path.getsize(source)
        position = 0
        while position < size:
            try:
                position = os.lseek(reader.fileno(), position, os.SEEK_DATA)
            except OSError:  # nothing but a hole is left
                break
            end = os.lseek(reader.fileno(), position, os.SEEK_HOLE)
            reader.seek(position)
            writer.seek(offset + position)
            while position < end:
                block = reader.read(min(MIB, end - position))
                writer.write(block)
                position += len(block)


def _tool(command, input="", env=None):
    program = shutil.which(command[0], path=TOOL_PATH)
    if not program:
        raise RuntimeError(f"{command[0]} is missing")
    done = subprocess.run(
        [program, *command[1:]],
        input=input,
        text=True,
        check=False,
        stdout=subprocess.PIPE,
        stderr=subprocess.STDOUT,
        env={**os.environ, "PATH": TOOL_PATH, **(env or {})},
    )
    if done.returncode != 0:
        raise RuntimeError(f"{' '.join(command)}: status {done.returncode}\n{done.stdout}")


if __name__ == "__main__":
    make(*sys.argv[1:])
