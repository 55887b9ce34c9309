#!/usr/bin/python3
"""Lists the USB sticks, opens them, reads their labels, then reports what comes and goes until Ctrl-C."""

import logging
import os
import queue
import signal
import sys
import threading
from contextlib import contextmanager

from ravel.corvane_rpc import corvane_rpc_gen_
from ravel.usb_rpc import usb_rpc_gen_
from thrift.protocol.TBinaryProtocol import TBinaryProtocol, TBinaryProtocolFactory
from thrift.server.TServer import TThreadedServer
from thrift.Thrift import TException
from thrift.transport.TSocket import TServerSocket, TSocket
from thrift.transport.TTransport import TBufferedTransport, TBufferedTransportFactory

OBSERVER = 42
TIMEOUT_MILLISECONDS = 30000


def socket_path(number):
    return os.path.join(os.environ.get("RAVEL_SOCKET_DIR") or "/run/ravel", f"{number}.sock")


class DiskTextProtocol(TBinaryProtocol):
    """Reads texts as Python reads file names: os.fsencode() returns the bytes of any text, and functions that take a
    path accept it.

    Labels and file names need not be UTF-8. For one that is not, TBinaryProtocol raises UnicodeDecodeError with the
    reply half read, and the next call on the connection waits forever. TBinaryProtocolAccelerated replaces bytes with
    U+FFFD, and the name is lost. The generator's option no_utf8strings does nothing in Python 3."""

    def readString(self):
        return os.fsdecode(self.readBinary())

    def writeString(self, text):
        self.writeBinary(os.fsencode(text))


@contextmanager
def dockhand():
    """A connection for a few calls. Dockhand serves ten at a time, so do not keep an idle one."""
    socket = TSocket(unix_socket=socket_path(9020))
    socket.setTimeout(TIMEOUT_MILLISECONDS)
    transport = TBufferedTransport(socket)
    transport.open()
    try:
        yield usb_rpc_gen_.Client(DiskTextProtocol(transport))
    finally:
        transport.close()


class ListeningSocket(TServerSocket):
    """Listens as soon as it is made, so that no event comes too early."""

    def __init__(self, path):
        super().__init__(unix_socket=path)
        try:
            super().listen()
        except OSError as failure:
            raise OSError(f'cannot serve "{path}": {failure}') from failure

    def listen(self):
        """The server would listen again."""


class MediaService:
    """Dockhand calls the media service, never the observers themselves. On a device with a media service, subscribe
    there; here we are the media service. Dockhand waits for the reply, so main does the work."""

    def __init__(self, events):
        self.events = events

    def SendUsbAddedCallback(self, usbDevice, observerId, observer):
        self.events.put(("added", usbDevice))

    def SendUsbRemovedCallback(self, usbDevice, observerId, observer):
        self.events.put(("removed", usbDevice))


def serve_media_service(events):
    """Needs several threads: while one call waits, Dockhand may make another call on a new connection."""
    server = TThreadedServer(
        corvane_rpc_gen_.Processor(MediaService(events)),
        ListeningSocket(socket_path(9014)),
        TBufferedTransportFactory(),
        TBinaryProtocolFactory(),
        daemon=True,
    )
    threading.Thread(target=server.serve, daemon=True).start()


def printable(text):
    """A text from a disk must not control the terminal."""
    data = os.fsencode(text)
    try:
        if data.decode().isprintable():
            return data.decode()
    except UnicodeDecodeError:
        pass
    return "".join(chr(byte) if 0x20 <= byte < 0x7F else f"\\x{byte:02x}" for byte in data)


def describe(client, device):
    """Opens a stick unless it is open, because opening it again would mount it again."""
    is_open = client.IsDeviceOpen(device) or client.OpenDevice(device)
    label = printable(client.GetDeviceLabel(device).text)
    if not is_open:
        return f"{device}: {label} cannot be opened"
    return f"{device}: {label} at {printable(client.GetUsbMountPoint(device).text)}"


def main():
    # Thrift also writes to standard error what it raises.
    logging.getLogger("thrift").setLevel(logging.CRITICAL)
    events = queue.SimpleQueue()
    for number in (signal.SIGINT, signal.SIGTERM):
        signal.signal(number, lambda *_: events.put(("end", None)))
    serve_media_service(events)
    # Register first, then list: a stick that comes in between is reported twice, not missed. Dockhand forgets us when
    # it restarts, so a service under systemd should be PartOf=dockhand.service.
    with dockhand() as client:
        client.RegisterUsbAddedCallBack(OBSERVER, 0)
        client.RegisterUsbRemovedCallBack(OBSERVER, 0)
        for device in client.GetListOfInsertedDevices(False):
            print(describe(client, device), flush=True)
    print("watching", flush=True)

    while (event := events.get())[0] != "end":
        change, device = event
        if change == "added":
            with dockhand() as client:
                print("added", describe(client, device), flush=True)
        else:
            print("removed", device, flush=True)

    with dockhand() as client:
        client.DeregisterUsbAddedCallBack(OBSERVER, 0)
        client.DeregisterUsbRemovedCallBack(OBSERVER, 0)
    os.unlink(socket_path(9014))


try:
    main()
except (OSError, TException) as failure:
    sys.exit(f"sticks.py: {failure}")
