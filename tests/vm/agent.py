"""Runs inside the virtual machine and does what the host asks: one JSON object a line over a virtio port."""

import base64
import ctypes
import glob
import json
import os
import signal
import socket
import struct
import subprocess
import threading
import time

PORT_NAME = "vm-agent"
PATH = "/usr/local/sbin:/usr/local/bin:/usr/sbin:/usr/bin:/sbin:/bin"
NETLINK_KOBJECT_UEVENT = 15
UDEV_GROUP = 2
SO_RCVBUFFORCE = 33

libc = ctypes.CDLL(None, use_errno=True)


class UdevMonitor:
    """Collects udev's announcements of handled events: by then nodes and links exist."""

    def __init__(self):
        self._events = []
        self._changed = threading.Condition()
        self._socket = socket.socket(socket.AF_NETLINK, socket.SOCK_RAW, NETLINK_KOBJECT_UEVENT)
        self._socket.setsockopt(socket.SOL_SOCKET, SO_RCVBUFFORCE, 16 * 1024 * 1024)
        self._socket.bind((0, UDEV_GROUP))
        threading.Thread(target=self._collect, daemon=True).start()

    def count(self):
        with self._changed:
            return len(self._events)

    def since(self, first):
        with self._changed:
            return self._events[first:]

    def wait(self, first, action, name, timeout):
        """Returns the properties of the first such event from position `first` on; None after the timeout."""
        deadline = time.monotonic() + timeout
        with self._changed:
            position = first
            while True:
                while position < len(self._events):
                    event = self._events[position]
                    position += 1
                    if event.get("ACTION") == action and event.get("DEVNAME") == f"/dev/{name}":
                        return event
                left = deadline - time.monotonic()
                if left <= 0 or not self._changed.wait(left):
                    return None

    def _collect(self):
        while True:
            message = self._socket.recv(65536)
            if not message.startswith(b"libudev\0"):
                continue
            offset, length = struct.unpack_from("=II", message, 16)
            lines = message[offset : offset + length].decode(errors="surrogateescape").split("\0")
            event = dict(line.split("=", 1) for line in lines if "=" in line)
            with self._changed:
                self._events.append(event)
                self._changed.notify_all()


class Agent:
    def __init__(self):
        self.monitor = UdevMonitor()
        self.started = {}

    def run(self, argv, input="", timeout=60, env=None, cwd="/"):
        """Runs a program to its end. The shell runs a string."""
        child = self._spawn(
            argv, env, cwd, stdin=subprocess.PIPE, stdout=subprocess.PIPE, stderr=subprocess.PIPE
        )
        try:
            out, err = child.communicate(input.encode(errors="surrogateescape"), timeout)
        except subprocess.TimeoutExpired:
            os.killpg(child.pid, signal.SIGKILL)
            out, err = child.communicate()
            return {"timeout": timeout, "stdout": _text(out), "stderr": _text(err)}
        return {"status": child.returncode, "stdout": _text(out), "stderr": _text(err)}

    def start(self, argv, log="/dev/null", env=None, cwd="/"):
        """Starts a program whose output goes to the file `log`, and returns its pid."""
        with open(log, "ab") as output:
            child = self._spawn(argv, env, cwd, stdin=subprocess.DEVNULL, stdout=output, stderr=output)
        self.started[child.pid] = child
        return child.pid

    def wait(self, pid, timeout=60):
        """Returns the exit status of a started program: negative for a signal, None while it runs."""
        try:
            return self.started[pid].wait(timeout)
        except subprocess.TimeoutExpired:
            return None

    def kill(self, pid, signal_number):
        self.started[pid].send_signal(signal_number)

    def put(self, path, content, mode):
        os.makedirs(os.path.dirname(path), exist_ok=True)
        with open(path, "wb") as file:
            file.write(base64.b64decode(content))
        os.chmod(path, mode)

    def get(self, path):
        with open(path, "rb") as file:
            return base64.b64encode(file.read()).decode()

    def wait_lines(self, path, count, timeout):
        """Waits at most `timeout` seconds until a file has that many lines; returns whether it has."""
        deadline = time.monotonic() + timeout
        while True:
            if os.path.exists(path):
                with open(path, "rb") as file:
                    if file.read().count(b"\n") >= count:
                        return True
            if time.monotonic() > deadline:
                return False
            time.sleep(0.02)

    def mount(self, source, target, filesystem, flags, options):
        """Returns 0 or the errno of mount(2)."""
        os.makedirs(target, exist_ok=True)
        result = libc.mount(
            source.encode(), target.encode(), filesystem.encode(), ctypes.c_ulong(flags), options.encode()
        )
        return ctypes.get_errno() if result != 0 else 0

    def umount(self, target, flags):
        """Returns 0 or the errno of umount2(2)."""
        return ctypes.get_errno() if libc.umount2(target.encode(), flags) != 0 else 0

    def event_count(self):
        return self.monitor.count()

    def events(self, first):
        return self.monitor.since(first)

    def wait_event(self, first, action, name, timeout):
        return self.monitor.wait(first, action, name, timeout)

    @staticmethod
    def _spawn(argv, env, cwd, **streams):
        environment = {"PATH": PATH, "HOME": "/root", "LC_ALL": "C", **(env or {})}
        return subprocess.Popen(
            argv, shell=isinstance(argv, str), env=environment, cwd=cwd, start_new_session=True, **streams
        )


def _text(output):
    return output.decode(errors="surrogateescape")


def _find_port():
    for name in glob.glob("/sys/class/virtio-ports/*/name"):
        with open(name, encoding="ascii") as file:
            if file.read().strip() == PORT_NAME:
                return "/dev/" + name.split("/")[-2]
    raise RuntimeError("no virtio port named " + PORT_NAME)


def serve():
    # The port's module is loaded here: the first stage does not need it.
    subprocess.run(["/sbin/modprobe", "virtio_console"], check=True)
    agent = Agent()
    with open(_find_port(), "r+b", buffering=0) as port:
        _answer(port, {"ready": True})
        pending = b""
        while True:
            received = port.read(65536)
            if not received:
                return
            *lines, pending = (pending + received).split(b"\n")
            for line in lines:
                request = json.loads(line)
                try:
                    _answer(port, {"result": getattr(agent, request["operation"])(**request["arguments"])})
                except Exception as error:  # the host is to see every failure
                    _answer(port, {"error": f"{type(error).__name__}: {error}"})


def _answer(port, answer):
    data = json.dumps(answer).encode() + b"\n"
    while data:
        data = data[port.write(data) :]


if __name__ == "__main__":
    serve()
