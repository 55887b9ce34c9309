"""Connects to Dockhand as a service does.

The stubs are generated from rpc/usb_rpc.thrift, which documents every operation:

    thrift --gen py rpc/usb_rpc.thrift
"""

from contextlib import contextmanager

from ravel.usb_rpc.usb_rpc_gen_ import Client
from thrift.protocol.TBinaryProtocol import TBinaryProtocol
from thrift.transport.TSocket import TSocket
from thrift.transport.TTransport import TBufferedTransport

SOCKET = "/run/ravel/9020.sock"


@contextmanager
def connection():
    """Yields a client. Close a connection after use: Dockhand serves ten at a time."""
    transport = TBufferedTransport(TSocket(unix_socket=SOCKET))
    transport.open()
    try:
        yield Client(TBinaryProtocol(transport))
    finally:
        transport.close()
