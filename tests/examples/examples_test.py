#!/usr/bin/python3
"""Runs the examples in C++, Python and Node against the real daemon and sticks that come and go.

Runs inside tools/dev/private_root. The environment variable DOCKHAND_BUILD_DIR names the build tree,
DOCKHAND_EXAMPLES_DIR the folder in which ./test builds the examples.
"""

import logging
import os
import pathlib
import queue
import signal
import stat
import subprocess
import sys
import threading
import time
import unittest

SOURCE = pathlib.Path(__file__).resolve().parents[2]
BUILD = pathlib.Path(os.environ.get("DOCKHAND_BUILD_DIR", SOURCE / "build" / "debug"))
EXAMPLES = pathlib.Path(os.environ.get("DOCKHAND_EXAMPLES_DIR", SOURCE / "build" / "examples"))
STUBS = EXAMPLES / "python" / "gen-py"
sys.path[:0] = [str(STUBS), str(SOURCE / "tools" / "try")]

from ravel.usb_rpc import usb_rpc_gen_
from stick import Stick
from thrift.protocol.TBinaryProtocol import TBinaryProtocol, TBinaryProtocolAccelerated
from thrift.transport.TSocket import TSocket
from thrift.transport.TTransport import TBufferedTransport, TTransportException

TIMEOUT_SECONDS = 60
USB_SERVICE = "/run/ravel/9020.sock"
MEDIA_SERVICE = "/run/ravel/9014.sock"
# A label from an older computer: "café" in Latin-1, which is not UTF-8.
NOT_UTF8 = b"caf\xe9"

# Thrift logs each failed try to connect to a daemon that does not serve yet.
logging.getLogger("thrift").setLevel(logging.CRITICAL)


class Example:
    """A running example; `line` waits for its next line."""

    def __init__(self, command):
        self.process = subprocess.Popen(
            command,
            stdin=subprocess.DEVNULL,
            stdout=subprocess.PIPE,
            stderr=subprocess.STDOUT,
            env=dict(os.environ, PYTHONPATH=str(STUBS)),
        )
        self.lines = queue.Queue()
        self.reader = threading.Thread(target=self.read)
        self.reader.start()

    def read(self):
        for line in self.process.stdout:
            self.lines.put(line.decode().rstrip("\n"))
        self.lines.put("(no more output)")

    def line(self):
        return self.lines.get(timeout=TIMEOUT_SECONDS)

    def end(self):
        self.process.send_signal(signal.SIGTERM)
        return self.process.wait(TIMEOUT_SECONDS)

    def discard(self):
        self.process.kill()
        self.process.wait()
        self.reader.join()
        self.process.stdout.close()


class WorldTest(unittest.TestCase):
    def setUp(self):
        if os.environ.get("PRIVATE_ROOT") != "1":
            self.skipTest(os.environ.get("PRIVATE_ROOT_MISSING", "run by ./test examples"))
        self.addCleanup(self.clear_world)

    def clear_world(self):
        for directory in os.listdir("/media"):
            subprocess.run(["umount", "--lazy", f"/media/{directory}"])
            os.rmdir(f"/media/{directory}")
        if os.path.exists(MEDIA_SERVICE):
            os.unlink(MEDIA_SERVICE)

    def make_stick(self, kernel_name, label):
        uuid = "7b5f1b2e-9d3a-4c55-8a52-3f1d6c0e4a11"
        stick = Stick(kernel_name, os.fsdecode(label), uuid, mebibytes=16, files={"song.mp3": "la la la"})
        self.addCleanup(stick.discard)
        return stick

    def plug(self, stick):
        stick.plug()
        self.addCleanup(lambda: os.path.exists(stick.node) and stick.unplug())

    def connect(self, protocol=TBinaryProtocol):
        socket = TSocket(unix_socket=USB_SERVICE)
        socket.setTimeout(TIMEOUT_SECONDS * 1000)
        transport = TBufferedTransport(socket)
        self.addCleanup(transport.close)
        transport.open()
        return usb_rpc_gen_.Client(protocol(transport))

    def start_daemon(self):
        """Returns a connection to it."""
        daemon = subprocess.Popen(
            [str(BUILD / "bin" / "dockhand")],
            stdin=subprocess.DEVNULL,
            stdout=subprocess.DEVNULL,
            stderr=subprocess.DEVNULL,
        )
        self.addCleanup(daemon.wait)
        self.addCleanup(daemon.kill)
        deadline = time.monotonic() + TIMEOUT_SECONDS
        while True:
            try:
                return self.connect()
            except TTransportException:
                if daemon.poll() is not None or time.monotonic() > deadline:
                    raise
                time.sleep(0.01)


class LanguageTest:
    """The tests of every language."""

    command = []

    def start_example(self):
        example = Example(self.command)
        self.addCleanup(example.discard)
        return example

    def test_sticks_are_listed_opened_and_watched(self):
        self.plug(self.make_stick("sda", b"HOLIDAY"))
        other = self.make_stick("sdb", NOT_UTF8)
        device_manager = self.start_daemon()
        example = self.start_example()
        self.assertEqual(example.line(), "1: HOLIDAY at /media/disk_1")
        self.assertEqual(example.line(), "watching")
        self.assertTrue(os.path.exists("/media/disk_1/song.mp3"))

        self.plug(other)
        device_manager.NotifyUsbAdded("sdb")
        self.assertEqual(example.line(), r"added 2: caf\xe9 at /media/disk_2")
        self.assertTrue(os.path.exists("/media/disk_2/song.mp3"))

        other.unplug()
        device_manager.NotifyUsbRemoved("sdb")
        self.assertEqual(example.line(), "removed 2")

        self.assertEqual(example.end(), 0)
        self.assertEqual(example.line(), "(no more output)")
        # This would raise with a registered observer, because nobody serves the media service's socket now.
        self.plug(other)
        device_manager.NotifyUsbAdded("sdb")

    def test_event_after_a_restart_is_not_lost(self):
        stick = self.make_stick("sda", b"HOLIDAY")
        device_manager = self.start_daemon()
        first = self.start_example()
        self.assertEqual(first.line(), "watching")
        self.plug(stick)
        device_manager.NotifyUsbAdded("sda")
        self.assertEqual(first.line(), "added 1: HOLIDAY at /media/disk_1")
        self.assertEqual(first.end(), 0)

        second = self.start_example()
        self.assertEqual(second.line(), "1: HOLIDAY at /media/disk_1")
        self.assertEqual(second.line(), "watching")
        stick.unplug()
        device_manager.NotifyUsbRemoved("sda")
        self.assertEqual(second.line(), "removed 1")

    def test_stick_that_cannot_be_mounted_is_reported(self):
        stick = self.make_stick("sda", b"HOLIDAY")
        self.plug(stick)
        # A character device cannot be mounted.
        os.unlink(stick.node)
        os.mknod(stick.node, stat.S_IFCHR | 0o600, os.makedev(1, 3))
        self.start_daemon()
        example = self.start_example()
        self.assertEqual(example.line(), "1: NONAME cannot be opened")
        self.assertEqual(example.line(), "watching")

    def test_stale_socket_of_a_media_service_is_replaced(self):
        os.makedirs(os.path.dirname(MEDIA_SERVICE), exist_ok=True)
        self.leave_socket(MEDIA_SERVICE)
        self.start_daemon()
        self.assertEqual(self.start_example().line(), "watching")

    def test_media_service_is_left_alone(self):
        self.start_daemon()
        first = self.start_example()
        self.assertEqual(first.line(), "watching")
        second = self.start_example()
        self.assertIn(MEDIA_SERVICE, second.line())
        self.assertEqual(second.process.wait(TIMEOUT_SECONDS), 1)
        self.assertEqual(first.end(), 0)

    def test_missing_daemon_is_reported(self):
        os.makedirs(os.path.dirname(MEDIA_SERVICE), exist_ok=True)
        if os.path.exists(USB_SERVICE):
            os.unlink(USB_SERVICE)
        example = self.start_example()
        self.assertRegex(example.line(), r"^sticks(\.\w+)?: .*9020.sock")
        self.assertEqual(example.process.wait(TIMEOUT_SECONDS), 1)

    def leave_socket(self, path):
        code = f"import socket; socket.socket(socket.AF_UNIX).bind({path!r})"
        subprocess.run([sys.executable, "-c", code], check=True)


class CppExampleTest(LanguageTest, WorldTest):
    command = [str(EXAMPLES / "cpp" / "sticks")]


class PythonExampleTest(LanguageTest, WorldTest):
    command = ["/usr/bin/python3", "-B", str(SOURCE / "examples" / "python" / "sticks.py")]


class NodeExampleTest(LanguageTest, WorldTest):
    command = ["node", str(EXAMPLES / "node" / "sticks.js")]


class UsualProtocolsTest(WorldTest):
    """Shows why the examples have their own protocols: the usual ones lose a label that is not UTF-8."""

    def setUp(self):
        super().setUp()
        self.plug(self.make_stick("sda", NOT_UTF8))
        self.start_daemon()

    def test_usual_protocol_of_python_raises(self):
        with self.assertRaises(UnicodeDecodeError):
            self.connect().GetDeviceLabel(1)

    def test_accelerated_protocol_of_python_loses_the_bytes(self):
        self.assertEqual(self.connect(TBinaryProtocolAccelerated).GetDeviceLabel(1).text, "caf\ufffd")

    def test_usual_protocol_of_node_loses_the_bytes(self):
        code = f"""
            const thrift = require('thrift');
            const connection = thrift.createUDSConnection('{USB_SERVICE}');
            thrift.createClient(require('./gen-nodejs/usb_rpc_gen_'), connection).GetDeviceLabel(1).then((label) => {{
              console.log(JSON.stringify(label.text));
              connection.end();
            }});"""
        output = subprocess.run(
            ["node", "-e", code], cwd=EXAMPLES / "node", stdout=subprocess.PIPE, check=True
        )
        self.assertEqual(output.stdout.decode(), '"caf\ufffd"\n')


if __name__ == "__main__":
    unittest.main()
