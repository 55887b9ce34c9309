"""Runs in the guest: calls one operation with one device number many times over one connection.

    caller.py OPERATION DEVICE COUNT    prints the number of different replies
"""

import socket
import struct
import sys

SOCKET = "/run/ravel/9020.sock"
VERSION, CALL, REPLY = 0x80010000, 1, 2
STRUCT_END, I16 = b"\0", 6


def message(operation, device):
    name = operation.encode()
    return (
        struct.pack(">Ii", VERSION | CALL, len(name))
        + name
        + struct.pack(">i", 0)
        + struct.pack(">bhh", I16, 1, device)
        + STRUCT_END
    )


def main():
    operation, device, count = sys.argv[1], int(sys.argv[2]), int(sys.argv[3])
    answers = set()
    with socket.socket(socket.AF_UNIX) as connection:
        connection.connect(SOCKET)
        for _ in range(count):
            connection.sendall(message(operation, device))
            # The daemon sends a reply this small in one piece.
            answer = connection.recv(65536)
            if struct.unpack(">I", answer[:4])[0] != VERSION | REPLY:
                sys.exit(f"no reply: {answer!r}")
            answers.add(answer)
    print(len(answers))


if __name__ == "__main__":
    main()
