"""The media service: the process that Dockhand calls when a stick comes or goes."""

import os
import threading

from ravel.corvane_rpc import corvane_rpc_gen_
from thrift.protocol.TBinaryProtocol import TBinaryProtocolFactory
from thrift.server.TServer import TThreadedServer
from thrift.transport.TSocket import TServerSocket
from thrift.transport.TTransport import TBufferedTransportFactory

SOCKET = "/run/ravel/9014.sock"


class Observer(corvane_rpc_gen_.Iface):
    """Keeps the callbacks that arrive. Dockhand waits for the reply, so return quickly."""

    def __init__(self):
        self.callbacks = []

    def SendUsbAddedCallback(self, usbDevice, observerId, observer):
        self.callbacks.append(("SendUsbAddedCallback", usbDevice, observerId, observer))

    def SendUsbRemovedCallback(self, usbDevice, observerId, observer):
        self.callbacks.append(("SendUsbRemovedCallback", usbDevice, observerId, observer))

    def serve_in_background(self):
        os.makedirs(os.path.dirname(SOCKET), exist_ok=True)
        socket = TServerSocket(unix_socket=SOCKET)
        server = TThreadedServer(
            corvane_rpc_gen_.Processor(self),
            socket,
            TBufferedTransportFactory(),
            TBinaryProtocolFactory(),
            daemon=True,
        )
        threading.Thread(target=server.serve, daemon=True).start()
