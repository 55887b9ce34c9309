#!/usr/bin/python3
"""A service written in Python calls every operation of a running daemon. Needs no root and no device.

The environment variable DOCKHAND_BUILD_DIR names the build tree; the default is build/debug.
"""

import os
import pathlib
import subprocess
import sys
import tempfile
import time
import unittest

SOURCE = pathlib.Path(__file__).resolve().parents[2]
BUILD = pathlib.Path(os.environ.get("DOCKHAND_BUILD_DIR", SOURCE / "build" / "debug"))
sys.path.insert(0, str(BUILD / "rpc" / "gen-py"))

from ravel.usb_rpc import usb_rpc_gen_
from thrift.protocol.TBinaryProtocol import TBinaryProtocol
from thrift.Thrift import TApplicationException
from thrift.transport.TSocket import TSocket
from thrift.transport.TTransport import TBufferedTransport, TTransportException

UNKNOWN = 12345
PATIENCE_SECONDS = 20


class PythonClientTest(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        cls.directory = tempfile.TemporaryDirectory()
        cls.log = open(os.path.join(cls.directory.name, "log"), "w+")
        environment = dict(os.environ, RAVEL_SOCKET_DIR=cls.directory.name)
        cls.daemon = subprocess.Popen(
            [str(BUILD / "bin" / "dockhand")],
            env=environment,
            stdin=subprocess.DEVNULL,
            stdout=subprocess.DEVNULL,
            stderr=cls.log,
        )
        cls.addClassCleanup(cls.stop_daemon)
        deadline = time.monotonic() + PATIENCE_SECONDS
        while True:
            try:
                cls.connect().IsDeviceOpen(UNKNOWN)
                return
            except TTransportException as failure:
                if cls.daemon.poll() is not None or time.monotonic() > deadline:
                    cls.log.seek(0)
                    raise RuntimeError("the daemon does not serve: " + cls.log.read()) from failure
                time.sleep(0.01)

    @classmethod
    def stop_daemon(cls):
        cls.daemon.kill()
        cls.daemon.wait()
        cls.log.close()
        cls.directory.cleanup()

    @classmethod
    def connect(cls):
        socket = TSocket(unix_socket=os.path.join(cls.directory.name, "9020.sock"))
        socket.setTimeout(PATIENCE_SECONDS * 1000)
        transport = TBufferedTransport(socket)
        transport.open()
        cls.addClassCleanup(transport.close)
        return usb_rpc_gen_.Client(TBinaryProtocol(transport))

    def setUp(self):
        self.client = self.connect()

    def assert_answer(self, answer, success, text):
        self.assertIs(answer.success, success)
        self.assertEqual(answer.text, text)

    def test_every_operation_is_called_here(self):
        code = pathlib.Path(__file__).read_text()
        operations = [name for name in vars(usb_rpc_gen_.Iface) if not name.startswith("_")]
        self.assertGreater(len(operations), 0)
        self.assertEqual([name for name in operations if f"self.client.{name}(" not in code], [])

    def test_list_of_devices_is_a_list_of_numbers(self):
        self.assertIsNone(self.client.CheckForAndUpdateNewDevices())
        for include_hidden in (False, True):
            devices = self.client.GetListOfInsertedDevices(include_hidden)
            self.assertIsInstance(devices, list)
            self.assertTrue(all(isinstance(device, int) for device in devices))

    def test_unknown_device_cannot_be_opened_closed_or_repaired(self):
        self.assertIs(self.client.OpenDevice(UNKNOWN), False)
        self.assertIs(self.client.OpenDeviceAt(UNKNOWN, "/media/nowhere", False), False)
        self.assertIs(self.client.CloseDevice(UNKNOWN), False)
        self.assertIs(self.client.CloseDeviceSafeRemoval(UNKNOWN), False)
        self.assertIs(self.client.IsDeviceOpen(UNKNOWN), False)
        self.assertIs(self.client.RunDiskRepair(UNKNOWN), False)

    def test_queries_of_an_unknown_device_give_their_neutral_answers(self):
        self.assert_answer(self.client.GetDeviceLabel(UNKNOWN), False, "NONAME")
        self.assert_answer(self.client.GetDeviceUuid(UNKNOWN), False, "0000-0000")
        self.assert_answer(self.client.GetDeviceUsbVersion(UNKNOWN), False, "")
        self.assert_answer(self.client.GetUsbMountPoint(UNKNOWN), True, "")
        self.assert_answer(self.client.GetUsbPhysicalDevice(UNKNOWN), False, "")
        self.assertEqual(self.client.GetDeviceType(UNKNOWN), 0)
        self.assertEqual(self.client.GetDeviceCapacity(UNKNOWN), 0)

    def test_directory_of_an_unknown_device_is_looked_up_from_the_root(self):
        with tempfile.TemporaryDirectory() as directory:
            for name in ("song.mp3", "LOUD.MP3", "photo.jpg"):
                pathlib.Path(directory, name).touch()
            files = self.client.GetFilesByExtension(UNKNOWN, directory, "mp3")
        self.assertEqual(sorted(files), ["LOUD.MP3", "song.mp3"])
        self.assertEqual(self.client.GetFilesByExtension(UNKNOWN, "no/such/directory", "mp3"), [])

    def test_observers_are_registered_and_deregistered(self):
        self.assertIsNone(self.client.RegisterUsbAddedCallBack(-128, 1))
        self.assertIsNone(self.client.RegisterUsbRemovedCallBack(127, -1))
        self.assertIsNone(self.client.DeregisterUsbAddedCallBack(-128, 1))
        self.assertIsNone(self.client.DeregisterUsbRemovedCallBack(127, -1))

    def test_notifications_of_what_is_not_there_do_nothing(self):
        self.assertIsNone(self.client.NotifyUsbAdded("no such device"))
        self.assertIsNone(self.client.NotifyUsbRemoved("no such device"))
        self.assertIsNone(self.client.NotifyUsbXriteAdded())
        self.assertIsNone(self.client.NotifyUsbXriteRemoved())

    def test_notification_without_a_media_service_is_an_application_exception(self):
        self.client.RegisterUsbAddedCallBack(7, 1)
        self.addCleanup(self.client.DeregisterUsbAddedCallBack, 7, 1)
        with self.assertRaises(TApplicationException):
            self.client.NotifyUsbXriteAdded()

    def test_unknown_device_cannot_be_prepared(self):
        self.assertIs(self.client.PrepareDeviceForPvr(UNKNOWN), False)


if __name__ == "__main__":
    unittest.main()
