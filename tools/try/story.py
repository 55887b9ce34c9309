#!/usr/bin/python3
"""Plays the life of one USB stick with a real daemon and shows every call and its reply.

    story.py BUILD_DIRECTORY

Runs inside tools/dev/private_root, so nothing here touches the machine's own /dev and /media.
"""

import signal
import sys


def end_on_signal(*_):
    sys.exit("\nInterrupted; everything is cleaned up.")


for number in (signal.SIGINT, signal.SIGTERM, signal.SIGHUP):
    signal.signal(number, end_on_signal)

import logging
import os
import re
import subprocess
import time

SOURCE = os.path.dirname(os.path.dirname(os.path.dirname(os.path.abspath(__file__))))
BUILD = os.path.abspath(sys.argv[1])
IMAGE_TOOLS = os.path.join(BUILD, "image-tools")
sys.path.insert(0, os.path.join(BUILD, "rpc", "gen-py"))

from observer import Observer
from stick import Stick, attach_loop_device, write_node
from thrift.Thrift import TException
from thrift.transport.TTransport import TTransportException
from usb_client import connection

LOG = os.path.join(BUILD, "try.log")
UUID = "7b5f1b2e-9d3a-4c55-8a52-3f1d6c0e4a11"
FILES = {
    "song.mp3": "la la la",
    "SONG2.MP3": "LA LA LA",
    "photo.jpg": "a beach",
    "Films/beach.mp4": "waves",
}
TIMEOUT_SECONDS = 20
# Large enough for XFS. The image is sparse: it takes only the space that is written.
STICK_MEBIBYTES = 520

in_colour = sys.stdout.isatty() and "NO_COLOR" not in os.environ


def coloured(code, text):
    return f"\033[{code}m{text}\033[0m" if in_colour else text


def shown(value):
    """A reply in the form that a reader wants."""
    if value is None:
        return "done"
    if hasattr(value, "success"):
        return f"{value.success}, {value.text!r}"
    return repr(value)


class Story:
    """Shows replies, and counts the right and the wrong ones."""

    def __init__(self, client):
        self.client = client
        self.right = 0
        self.wrong = 0

    def chapter(self, title):
        print("\n" + coloured("1", title))

    def compare(self, what, answer, expected, seconds=None):
        is_right = answer == expected
        mark = coloured("32", "✓") if is_right else coloured("31", "✗")
        elapsed = f" ({seconds:.1f} s)" if seconds is not None else ""
        print(f'  {mark} {what:<46} {coloured("36", shown(answer))}{elapsed}')
        if is_right:
            self.right += 1
        else:
            self.wrong += 1
            print(f'    {coloured("31", "should be")} {shown(expected)}')
        sys.stdout.flush()

    def call(self, operation, *arguments, expect=None, timed=False):
        """Calls an operation of the daemon. A pair in `expect` means a ReturnValueWithString. Lists are shown sorted.
        `timed` shows the duration."""
        start = time.monotonic()
        try:
            answer = getattr(self.client, operation)(*arguments)
        except TTransportException:
            raise
        except TException as failure:
            answer = failure
        seconds = time.monotonic() - start
        if isinstance(expect, tuple) and hasattr(answer, "success"):
            expect = type(answer)(*expect)
        if isinstance(answer, list):
            answer = sorted(answer)
        what = f'{operation}({", ".join(map(repr, arguments))})'
        self.compare(what, answer, expect, seconds if timed else None)


def play(story, observer, stick):
    story.chapter("A service registers for plug events")
    story.call("RegisterUsbAddedCallBack", 1, 4711)
    story.call("RegisterUsbRemovedCallBack", 1, 4712)
    story.call("GetListOfInsertedDevices", False, expect=[])

    story.chapter(f"A stick is plugged in: {stick.node} appears")
    stick.plug()
    story.call("NotifyUsbAdded", "sda")
    story.compare("the observer was called", observer.callbacks, [("SendUsbAddedCallback", 1, 1, 4711)])
    story.call("GetListOfInsertedDevices", False, expect=[1])

    story.chapter("What is it?")
    story.call("GetDeviceLabel", 1, expect=(True, "HOLIDAY"))
    story.call("GetDeviceUuid", 1, expect=(True, UUID))
    story.call("GetDeviceType", 1, expect=2)
    story.call("GetDeviceCapacity", 1, expect=STICK_MEBIBYTES)
    story.call("GetUsbPhysicalDevice", 1, expect=(True, "sda"))

    story.chapter("It is opened and read")
    story.call("OpenDevice", 1, expect=True)
    story.call("IsDeviceOpen", 1, expect=True)
    story.call("GetUsbMountPoint", 1, expect=(True, "/media/disk_1"))
    story.call("GetFilesByExtension", 1, "", "mp3", expect=["SONG2.MP3", "song.mp3"])
    story.call("GetFilesByExtension", 1, "Films", "mp4", expect=["beach.mp4"])
    story.compare("/media/disk_1/song.mp3 holds", content("/media/disk_1/song.mp3"), FILES["song.mp3"])

    story.chapter("It is closed")
    story.call("CloseDevice", 1, expect=True)
    story.call("IsDeviceOpen", 1, expect=False)
    story.compare("directories left in /media", os.listdir("/media"), [])

    story.chapter("It is opened again, and removed safely")
    story.call("OpenDevice", 1, expect=True)
    story.call("CloseDeviceSafeRemoval", 1, expect=True)
    story.call("GetListOfInsertedDevices", False, expect=[])
    story.call("OpenDevice", 1, expect=False)

    story.chapter("It is pulled out")
    stick.unplug()
    observer.callbacks.clear()
    story.call("NotifyUsbRemoved", "sda")
    story.compare("the observer was called", observer.callbacks, [("SendUsbRemovedCallback", 1, 1, 4712)])
    story.call("GetListOfInsertedDevices", False, expect=[])

    story.chapter("It is plugged in again, and becomes a recording disk: partitioned, and formatted with XFS")
    stick.plug()
    stick.show_partition()
    observer.callbacks.clear()
    story.call("NotifyUsbAdded", "sda1")
    story.compare("the observer was called", observer.callbacks, [("SendUsbAddedCallback", 1, 1, 4711)])
    story.call("GetListOfInsertedDevices", False, expect=[1])
    story.call("PrepareDeviceForPvr", 1, expect=True, timed=True)
    story.call("GetDeviceLabel", 1, expect=(True, "PVR_DISK"))
    story.call("GetUsbPhysicalDevice", 1, expect=(True, "sda1"))
    story.compare("its file system", file_system_of(stick.node + "1"), "xfs")

    story.chapter("It is repaired")
    story.call("RunDiskRepair", 1, expect=True, timed=True)


def file_system_of(node):
    return subprocess.run(
        ["blkid", "--probe", "--output", "value", "--match-tag", "TYPE", node],
        stdout=subprocess.PIPE,
        text=True,
    ).stdout.strip()


def show_what_the_kernel_lacks():
    """Lists the file systems that Dockhand mounts and this machine's kernel does not support."""
    with open(os.path.join(SOURCE, "Src", "Dockhand", "MountTable.h")) as table:
        mounted = dict.fromkeys(re.findall(r'{"[^"]*", "([^"]*)"', table.read()))
    lacking = [name for name in mounted if not kernel_knows(name)]
    if kernel_knows("xfs") and not kernel_has_xfs_quota():
        lacking.append("xfs with project quota, which opening a recording disk needs")
    if lacking:
        print("\n" + coloured("1", "What this machine's kernel cannot mount"))
        for name in lacking:
            print(f"  {name}")


def kernel_knows(file_system):
    with open("/proc/filesystems") as table:
        if any(line.split()[-1] == file_system for line in table):
            return True
    return subprocess.run(["modprobe", "--dry-run", "--quiet", file_system]).returncode == 0


def kernel_has_xfs_quota():
    """Mounts a new XFS with quota, because the kernel reports this nowhere."""
    image, target = "/tmp/quota.img", "/tmp/quota"
    with open(image, "wb") as file:
        file.truncate(300 << 20)
    subprocess.run(["mkfs.xfs", "-q", image], check=True)
    os.mkdir(target)
    loop_device = attach_loop_device(image)
    write_node("/tmp/quota_disk", loop_device)
    mounted = (
        subprocess.run(
            ["mount", "-t", "xfs", "-o", "prjquota", "/tmp/quota_disk", target], stderr=subprocess.DEVNULL
        ).returncode
        == 0
    )
    if mounted:
        subprocess.run(["umount", target], check=True)
    os.close(loop_device)
    return mounted


def content(path):
    try:
        with open(path) as file:
            return file.read()
    except OSError as failure:
        return failure


def start_daemon(log):
    """Starts the daemon and returns once it serves. The daemon ends no later than this process."""
    program = os.path.join(BUILD, "bin", "dockhand")
    daemon = subprocess.Popen(
        ["setpriv", "--pdeathsig", "KILL", program],
        stdin=subprocess.DEVNULL,
        stdout=subprocess.DEVNULL,
        stderr=log,
        start_new_session=True,
        env=dict(os.environ, TLOG_LEVEL="2", PATH=f'{IMAGE_TOOLS}:{os.environ["PATH"]}'),
    )
    deadline = time.monotonic() + TIMEOUT_SECONDS
    while True:
        try:
            with connection() as client:
                client.IsDeviceOpen(1)
            return daemon
        except TTransportException:
            if daemon.poll() is not None or time.monotonic() > deadline:
                stop_daemon(daemon)
                raise
            time.sleep(0.01)


def stop_daemon(daemon):
    daemon.kill()
    daemon.wait()


def show_log():
    """Shows the lines that the daemon writes by default: level 3 and above."""
    print("\n" + coloured("1", "What the daemon logged") + f" (all of it: {LOG})")
    with open(LOG, errors="replace") as log:
        for line in log:
            fields = line.split(" ", 5)
            if len(fields) == 6 and fields[2] in "345":
                print(f"  {fields[2]} {fields[3]} {fields[5].rstrip()}")


def main():
    # Thrift logs each failed try to connect to a daemon that does not serve yet.
    logging.getLogger("thrift").setLevel(logging.CRITICAL)
    observer = Observer()
    observer.serve_in_background()
    stick = Stick("sda", label="HOLIDAY", uuid=UUID, mebibytes=STICK_MEBIBYTES, files=FILES)
    with open(LOG, "w") as log:
        daemon = start_daemon(log)
    try:
        with connection() as client:
            story = Story(client)
            play(story, observer, stick)
    finally:
        stop_daemon(daemon)
    show_log()
    show_what_the_kernel_lacks()
    if story.wrong > 0:
        sys.exit(f"\n{story.wrong} of {story.right + story.wrong} replies are wrong.")
    print(
        f"\nA stick was plugged in, read, pulled out, made a recording disk and repaired: "
        f"all {story.right} replies are right."
    )


if os.environ.get("PRIVATE_ROOT") != "1":
    sys.exit("The demonstration needs a private root: " + os.environ.get("PRIVATE_ROOT_MISSING", "run ./try"))
try:
    main()
except TTransportException as failure:
    sys.exit(f'\nThe daemon does not reply: {failure}; its log is "{LOG}"')
