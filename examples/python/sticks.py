#!/usr/bin/python3
"""Lists the USB sticks, opens them, reads their labels, and tells what comes and goes until Ctrl-C."""

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
PATIENCE_MILLISECONDS = 30000


def socket_path(number):
    return os.path.join(os.environ.get('RAVEL_SOCKET_DIR') or '/run/ravel', f'{number}.sock')


class DiskTextProtocol(TBinaryProtocol):
    """Takes texts as Python takes file names: whatever bytes they are, os.fsencode() gives them back, and functions
    that take a path take such a text.

    Labels and file names need not be UTF-8. On one that is not, TBinaryProtocol raises UnicodeDecodeError with the
    answer half read, so that the next call on the connection waits for ever; TBinaryProtocolAccelerated puts U+FFFD in
    the place of bytes, and the name is lost. The generator's option no_utf8strings does nothing in Python 3."""

    def readString(self):
        return os.fsdecode(self.readBinary())

    def writeString(self, text):
        self.writeBinary(os.fsencode(text))


@contextmanager
def dockhand():
    """A connection for a few calls. Dockhand serves ten at a time, so do not keep one that you do not use."""
    socket = TSocket(unix_socket=socket_path(9020))
    socket.setTimeout(PATIENCE_MILLISECONDS)
    transport = TBufferedTransport(socket)
    transport.open()
    try:
        yield usb_rpc_gen_.Client(DiskTextProtocol(transport))
    finally:
        transport.close()


class ListeningSocket(TServerSocket):
    """Listens from the start, so that no event comes too early."""

    def __init__(self, path):
        super().__init__(unix_socket=path)
        try:
            super().listen()
        except OSError as failure:
            raise OSError(f'{path} cannot be served: {failure}') from failure

    def listen(self):
        """What the server would do."""


class MediaService:
    """Dockhand calls the media service, never the observers themselves. A device that has a media service hears of
    sticks from it; here we are the media service. Dockhand waits for the answer, so the work is done elsewhere."""

    def __init__(self, events):
        self.events = events

    def SendUsbAddedCallback(self, usbDevice, observerId, observer):
        self.events.put(('added', usbDevice))

    def SendUsbRemovedCallback(self, usbDevice, observerId, observer):
        self.events.put(('removed', usbDevice))


def serve_media_service(events):
    """Needs several threads: while one call waits, Dockhand may make another on a new connection."""
    server = TThreadedServer(corvane_rpc_gen_.Processor(MediaService(events)), ListeningSocket(socket_path(9014)),
                             TBufferedTransportFactory(), TBinaryProtocolFactory(), daemon=True)
    threading.Thread(target=server.serve, daemon=True).start()


def printable(text):
    """A text from a disk must not drive the terminal."""
    data = os.fsencode(text)
    try:
        if data.decode().isprintable():
            return data.decode()
    except UnicodeDecodeError:
        pass
    return ''.join(chr(byte) if 0x20 <= byte < 0x7f else f'\\x{byte:02x}' for byte in data)


def describe(client, device):
    """Opens a stick unless it is open: opening it once more would mount it anew."""
    is_open = client.IsDeviceOpen(device) or client.OpenDevice(device)
    label = printable(client.GetDeviceLabel(device).text)
    if not is_open:
        return f'{device}: {label} cannot be opened'
    return f'{device}: {label} at {printable(client.GetUsbMountPoint(device).text)}'


def main():
    # Thrift would write on standard error what it raises besides.
    logging.getLogger('thrift').setLevel(logging.CRITICAL)
    events = queue.SimpleQueue()
    for number in (signal.SIGINT, signal.SIGTERM):
        signal.signal(number, lambda *_: events.put(('end', None)))
    serve_media_service(events)
    # First registered, then listed: a stick that comes in between is told twice, not missed. Dockhand forgets us when
    # it is restarted: a service under systemd is best made PartOf=dockhand.service.
    with dockhand() as client:
        client.RegisterUsbAddedCallBack(OBSERVER, 0)
        client.RegisterUsbRemovedCallBack(OBSERVER, 0)
        for device in client.GetListOfInsertedDevices(False):
            print(describe(client, device), flush=True)
    print('watching', flush=True)

    while (event := events.get())[0] != 'end':
        change, device = event
        if change == 'added':
            with dockhand() as client:
                print('added', describe(client, device), flush=True)
        else:
            print('removed', device, flush=True)

    with dockhand() as client:
        client.DeregisterUsbAddedCallBack(OBSERVER, 0)
        client.DeregisterUsbRemovedCallBack(OBSERVER, 0)
    os.unlink(socket_path(9014))


try:
    main()
except (OSError, TException) as failure:
    sys.exit(f'sticks.py: {failure}')
