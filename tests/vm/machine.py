"""A QEMU machine with software emulation, over a root file system of the host, and its USB sticks."""

import base64
import ctypes
import json
import os
import shutil
import signal
import socket
import subprocess
import tempfile
import time

import agent
import kernel

FOLDER = os.path.dirname(os.path.abspath(__file__))
CHECKOUT = os.path.dirname(os.path.dirname(FOLDER))

# The release of Debian in the guest; empty: this machine's system.
RELEASE = os.environ.get("DOCKHAND_VM_RELEASE", "")
# `./test vm --release` makes this root.
ROOT = os.path.join(CHECKOUT, "build", "roots", f"vm-{RELEASE}") if RELEASE else "/"
BUILD = os.environ.get("DOCKHAND_VM_BUILD", os.path.join(CHECKOUT, "build", "vm", RELEASE))

# Where the guest has the programs of the tests.
GUEST_FOLDER = "/vm"

BOOT_SECONDS = 240
ANSWER_SECONDS = 60

MS_RDONLY = 1
MNT_DETACH = 2
PR_SET_PDEATHSIG = 1

# By speed: full, high and super speed.
BUSES = {1: "uhci.0", 2: "ehci.0", 3: "xhci.0"}


class MachineError(Exception):
    """The machine does not boot, does not reply, or refuses a request."""


class Result:
    """The exit status and output of a program in the guest."""

    def __init__(self, status, stdout, stderr):
        self.status = status
        self.stdout = stdout
        self.stderr = stderr

    def __repr__(self):
        return f"status {self.status}\nstdout: {self.stdout}\nstderr: {self.stderr}"


class _Lines:
    """JSON objects, one a line, over a socket pair; QEMU has the other end."""

    def __init__(self):
        self._socket, self.peer = socket.socketpair()
        self._pending = b""

    def send(self, message):
        self._socket.settimeout(ANSWER_SECONDS)
        self._socket.sendall(json.dumps(message).encode() + b"\n")

    def receive(self, deadline):
        while b"\n" not in self._pending:
            left = deadline - time.monotonic()
            if left <= 0:
                raise TimeoutError
            self._socket.settimeout(left)
            received = self._socket.recv(65536)
            if not received:
                raise ConnectionError("closed by QEMU")
            self._pending += received
        line, _, self._pending = self._pending.partition(b"\n")
        return json.loads(line)

    def close(self):
        self._socket.close()


class Stick:
    """A plugged USB stick or card reader."""

    def __init__(self, identifier, node, first_event):
        self.identifier = identifier
        self.node = node
        self.first_event = first_event


class Machine:
    """A running guest. `init` is "busybox" (with udev, without systemd) or "systemd".

    Use it from one thread only. It leaves nothing but the console log, after keep_log().
    """

    def __init__(self, init="busybox", programs=""):
        """The contents of `programs`, a folder of this machine's system, are copied over the guest's root."""
        self._folder = tempfile.mkdtemp(prefix="dockhand-vm-")
        self.console_log = os.path.join(self._folder, "console.log")
        self.init = init
        self._keep_log = False
        self._sticks = {}
        self._next_stick = 1
        self._events = []
        self._agent = _Lines()
        self._monitor = _Lines()
        started = time.monotonic()
        image = kernel.ensure(BUILD, ROOT)
        self._process = self._launch(image, programs)
        try:
            self._await_boot()
        except BaseException:
            self._keep_log = True
            self.close()
            raise
        self.boot_seconds = time.monotonic() - started

    def __enter__(self):
        return self

    def __exit__(self, *_):
        self.close()

    def close(self):
        """Ends the machine without shutting the guest down: nothing in it is needed any more."""
        self._process.kill()
        self._process.wait()
        self._agent.close()
        self._monitor.close()
        if not self._keep_log:
            shutil.rmtree(self._folder)

    def keep_log(self):
        """Keeps the console log after close(), with the kernel's and the daemon's at its end; returns its path."""
        if not self._keep_log:
            self._keep_log = True
            try:
                log = self.run("dmesg; tail -n +1 /run/dockhand.log /tmp/Dockhand.log 2>/dev/null").stdout
            except (MachineError, OSError) as error:
                log = f"no kernel log: {error}"
            with open(self.console_log, "a", encoding="utf-8", errors="surrogateescape") as file:
                file.write(f"\n--- kernel log ---\n{log}")
        return self.console_log

    # Programs and files in the guest.

    def run(self, argv, input="", timeout=60, env=None, cwd="/"):
        """Runs a program (a list), or a shell command (a string), to its end."""
        answer = self._ask("run", timeout, argv=argv, input=input, timeout=timeout, env=env, cwd=cwd)
        if "timeout" in answer:
            raise MachineError(f"{argv} still ran after {timeout} s\n{answer['stdout']}\n{answer['stderr']}")
        return Result(answer["status"], answer["stdout"], answer["stderr"])

    def check(self, argv, **options):
        """Like run(), but the program must succeed; returns its standard output."""
        result = self.run(argv, **options)
        if result.status != 0:
            raise MachineError(f"{argv}: {result}")
        return result.stdout

    def start(self, argv, log="/dev/null", env=None, cwd="/"):
        """Starts a program in the background; returns its pid. Its output is appended to the guest's file `log`."""
        return self._ask("start", 0, argv=argv, log=log, env=env, cwd=cwd)

    def wait(self, pid, timeout=60):
        """Returns the exit status of a started program, negative for a signal."""
        status = self._ask("wait", timeout, pid=pid, timeout=timeout)
        if status is None:
            raise MachineError(f"process {pid} still ran after {timeout} s")
        return status

    def kill(self, pid, signal_number=signal.SIGTERM):
        self._ask("kill", 0, pid=pid, signal_number=signal_number)

    def put(self, path, content, mode=0o644):
        """Writes a small file into the guest."""
        self._ask("put", 0, path=path, content=base64.b64encode(content).decode(), mode=mode)

    def get(self, path):
        """Returns the bytes of a small file of the guest."""
        return base64.b64decode(self._ask("get", 0, path=path))

    def wait_lines(self, path, count, timeout=60):
        """Waits until a file has that many lines."""
        if not self._ask("wait_lines", timeout, path=path, count=count, timeout=timeout):
            raise MachineError(
                f"{path} has less than {count} lines after {timeout} s:\n"
                + self.get(path).decode(errors="replace")
            )

    def mount(self, source, target, filesystem, flags=0, options=""):
        """Makes a directory and calls mount(2) at it; returns 0 or errno."""
        return self._ask(
            "mount", 0, source=source, target=target, filesystem=filesystem, flags=flags, options=options
        )

    def umount(self, target, flags=0):
        """Calls umount2(2); returns 0 or errno."""
        return self._ask("umount", 0, target=target, flags=flags)

    def add_udev_rules(self, folder):
        """Makes udev use the *.rules files of a folder of the host."""
        for name in sorted(os.listdir(folder)):
            if name.endswith(".rules"):
                with open(os.path.join(folder, name), "rb") as file:
                    self.put(f"/run/udev/rules.d/{name}", file.read())
        self.check(["udevadm", "control", "--reload"])

    def restart_init(self):
        """Makes busybox' init run its shutdown, end all programs and start again, under the same kernel."""
        self._agent.send(
            {"operation": "run", "arguments": {"argv": ["kill", f"-{int(signal.SIGQUIT)}", "1"]}}
        )
        try:
            while "ready" not in self._agent.receive(time.monotonic() + BOOT_SECONDS):
                pass
        except (TimeoutError, OSError) as error:
            raise MachineError(f"init does not start again: {error!r}{self._console_tail()}") from error

    # USB sticks.

    def plug(self, image, usb=3, behind_hub=0, read_only=False, removable=True, serial=None, fails=None):
        """Plugs in a stick with that image file.

        `usb` is the speed: 1 (full), 2 (high) or 3 (super). `behind_hub` is the hub's port, from 1 on. `fails` is
        the operation that fails with an error: "read", "write", or None.
        """
        first_event = self._ask("event_count", 0)
        identifier = f"stick{self._next_stick}"
        self._next_stick += 1
        # Without locks: the tests read an image while it is plugged in.
        file = {"driver": "file", "filename": image, "locking": "off"}
        if fails:
            file = {"driver": "blkdebug", "image": file, "inject-error": [{"event": "none", "iotype": fails}]}
        self.command(
            "blockdev-add", **{"node-name": identifier, "driver": "raw", "read-only": read_only, "file": file}
        )
        device = {
            "driver": "usb-storage",
            "id": identifier,
            "drive": identifier,
            "removable": removable,
            "bus": BUSES[usb],
        }
        if serial:
            device["serial"] = serial
        if behind_hub:
            # The emulated hub is a full-speed one, and no device behind it is faster.
            device.update(bus="uhci.0", port=f"1.{int(behind_hub)}")
        try:
            self.command("device_add", **device)
        except MachineError:
            self.command("blockdev-del", **{"node-name": identifier})
            raise
        stick = Stick(identifier, identifier, first_event)
        self._sticks[identifier] = stick
        return stick

    def plug_card_reader(self, usb=3):
        """Plugs in a reader without a card: a disk of size 0 until a card is inserted."""
        first_event = self._ask("event_count", 0)
        identifier = f"reader{self._next_stick}"
        self._next_stick += 1
        # QEMU makes no drive without a medium.
        self.command("blockdev-add", **{"node-name": identifier, "driver": "null-co"})
        self.command("device_add", driver="usb-bot", id=identifier, bus=BUSES[usb])
        self.command(
            "device_add",
            **{
                "driver": "scsi-hd",
                "id": f"{identifier}-drive",
                "bus": f"{identifier}.0",
                "scsi-id": 0,
                "lun": 0,
                "drive": identifier,
                "removable": True,
            },
        )
        reader = Stick(identifier, identifier, first_event)
        self._sticks[identifier] = reader
        self.remove_card(reader)
        reader.first_event = first_event
        self.command("qom-set", path=f"/machine/peripheral/{identifier}", property="attached", value=True)
        return reader

    def insert_card(self, reader, image):
        reader.first_event = self._ask("event_count", 0)
        reader.node = f"card{self._next_stick}"
        self._next_stick += 1
        self.command(
            "blockdev-add",
            **{
                "node-name": reader.node,
                "driver": "raw",
                "file": {"driver": "file", "filename": image, "locking": "off"},
            },
        )
        self.command(
            "blockdev-insert-medium", **{"id": f"{reader.identifier}-drive", "node-name": reader.node}
        )
        self.command("blockdev-close-tray", id=f"{reader.identifier}-drive")

    def remove_card(self, reader):
        reader.first_event = self._ask("event_count", 0)
        self.command("blockdev-open-tray", id=f"{reader.identifier}-drive", force=True)
        self.command("blockdev-remove-medium", id=f"{reader.identifier}-drive")
        self.command("blockdev-del", **{"node-name": reader.node})
        reader.node = None

    def unplug(self, stick):
        """Unplugs a stick. Returns once QEMU has released it; wait_gone() waits for the guest."""
        stick.first_event = self._ask("event_count", 0)
        self.command("device_del", id=stick.identifier)
        self._await_monitor_event("DEVICE_DELETED", stick.identifier)
        if stick.node:
            self.command("blockdev-del", **{"node-name": stick.node})
        del self._sticks[stick.identifier]

    def sticks(self):
        return list(self._sticks.values())

    def event_count(self):
        """Returns the number of events that udev has handled; a stick's `first_event` may be set to it."""
        return self._ask("event_count", 0)

    def wait_event(self, stick, action, name, timeout=60):
        """Waits for an event that udev handles after the last action on `stick`; returns its properties."""
        event = self._ask(
            "wait_event", timeout, first=stick.first_event, action=action, name=name, timeout=timeout
        )
        if event is None:
            seen = self.events_of(stick)
            raise MachineError(f"no event {action} {name} within {timeout} s, only {seen}")
        return event

    def wait_node(self, stick, name, timeout=60):
        """Waits until a plugged stick has that kernel name and all events are handled."""
        event = self.wait_event(stick, "add", name, timeout)
        self.settle()
        return event

    def wait_gone(self, stick, name, timeout=60):
        """Waits until the kernel name of an unplugged stick is gone and all events are handled."""
        self.wait_event(stick, "remove", name, timeout)
        self.settle()

    def wait_no_disks(self, timeout=60):
        """Waits until the kernel and udev have removed every disk."""
        self.run(
            "until test -z \"$(ls /sys/block | grep '^sd')\"; do udevadm settle; done; udevadm settle",
            timeout=timeout,
        )

    def settle(self):
        """Waits until udev has handled all events of the kernel."""
        self.check(["udevadm", "settle"])

    def usb_attribute(self, name, attribute):
        """Returns an attribute of the USB device of the disk with that kernel name."""
        return self.check(
            "folder=$(readlink -f /sys/block/%s) && until [ -e $folder/bcdDevice ]; do "
            "folder=${folder%%/*}; done; cat $folder/%s" % (name, attribute)
        ).strip()

    def events_of(self, stick, subsystem="block"):
        """Returns [(action, kernel name), ...] since the last action on `stick`."""
        events = self._ask("events", 0, first=stick.first_event)
        return [
            (event["ACTION"], os.path.basename(event["DEVPATH"]))
            for event in events
            if event.get("SUBSYSTEM") == subsystem
        ]

    # QEMU's monitor.

    def command(self, name, **arguments):
        self._monitor.send({"execute": name, "arguments": arguments})
        deadline = time.monotonic() + ANSWER_SECONDS
        while True:
            message = self._monitor_message(deadline, name)
            if "event" in message:
                self._events.append(message)
            elif "error" in message:
                raise MachineError(f"{name} {arguments}: {message['error']['desc']}")
            else:
                return message["return"]

    def _await_monitor_event(self, event, device):
        deadline = time.monotonic() + ANSWER_SECONDS
        while True:
            for message in self._events:
                if message["event"] == event and message["data"].get("device") == device:
                    self._events.remove(message)
                    return
            self._events.append(self._monitor_message(deadline, f"{event} of {device}"))

    def _monitor_message(self, deadline, what):
        try:
            return self._monitor.receive(deadline)
        except (TimeoutError, OSError) as error:
            raise MachineError(f"QEMU's monitor, {what}: {error!r}{self._console_tail()}") from error

    # The guest's agent.

    def _ask(self, operation, seconds, **arguments):
        try:
            self._agent.send({"operation": operation, "arguments": arguments})
            answer = self._agent.receive(time.monotonic() + seconds + ANSWER_SECONDS)
        except (TimeoutError, OSError) as error:
            raise MachineError(f"guest, {operation} {arguments}: {error!r}{self._console_tail()}") from error
        if "error" in answer:
            raise MachineError(f"guest, {operation} {arguments}: {answer['error']}")
        return answer["result"]

    # The start.

    def _launch(self, image, programs):
        qemu = shutil.which("qemu-system-x86_64")
        if not qemu:
            raise MachineError("qemu-system-x86_64 (package qemu-system-x86) is missing")
        append = [
            "console=ttyS0",
            "loglevel=4",
            "panic=-1",
            "mitigations=off",
            "no_timer_check",
            "usb_storage.delay_use=0",
            "block.events_dfl_poll_msecs=500",
            f"VM_INIT={self.init}",
        ]
        if programs:
            append.append(f"VM_PROGRAMS={programs}")
        if self.init == "systemd":
            append += ["systemd.unit=vm.target", "systemd.show_status=0", "systemd.log_target=kmsg"]
        if any(" " in word for word in append):
            raise MachineError("the kernel's command line takes no path with a space")
        # fmt: off
        command = [
            qemu, "-nodefaults", "-no-user-config", "-display", "none", "-no-reboot",
            "-machine", "q35,usb=off", "-accel", "tcg,thread=multi,tb-size=128", "-cpu", "max,la57=off",
            "-m", "512", "-smp", "2",
            "-kernel", image.image, "-initrd", image.initramfs, "-append", " ".join(append),
            "-chardev", f"file,id=console,path={self.console_log}", "-serial", "chardev:console",
            "-chardev", f"socket,id=monitor,fd={self._monitor.peer.fileno()}",
            "-mon", "chardev=monitor,mode=control",
            "-device", "virtio-serial-pci",
            "-chardev", f"socket,id=agent,fd={self._agent.peer.fileno()}",
            "-device", f"virtserialport,chardev=agent,name={agent.PORT_NAME}",
            "-device", "virtio-rng-pci",
            *_share("host", ROOT), *_share("kernel", image.root),
            "-device", "qemu-xhci,id=xhci,p2=8,p3=8",
            "-device", "usb-ehci,id=ehci",
            "-device", "piix3-usb-uhci,id=uhci", "-device", "usb-hub,bus=uhci.0,port=1",
        ]
        # fmt: on
        qemu_log = open(os.path.join(self._folder, "qemu.log"), "wb")
        with qemu_log:
            process = subprocess.Popen(
                command,
                stdin=subprocess.DEVNULL,
                stdout=qemu_log,
                stderr=qemu_log,
                pass_fds=(self._monitor.peer.fileno(), self._agent.peer.fileno()),
                preexec_fn=_die_with_parent,
            )
        self._monitor.peer.close()
        self._agent.peer.close()
        return process

    def _await_boot(self):
        deadline = time.monotonic() + BOOT_SECONDS
        greeting = self._monitor_message(deadline, "greeting")
        if "QMP" not in greeting:
            raise MachineError(f"QEMU's monitor greets with {greeting}")
        self.command("qmp_capabilities")
        try:
            self._agent.receive(deadline)
        except (TimeoutError, OSError) as error:
            raise MachineError(
                f"the guest does not boot: {error!r}, {self.console_log}{self._console_tail()}"
            ) from error

    def _console_tail(self):
        tail = ""
        for name in ("qemu.log", "console.log"):
            path = os.path.join(self._folder, name)
            if os.path.exists(path):
                with open(path, encoding="utf-8", errors="replace") as file:
                    tail += "".join(f"\n  {line.rstrip()}" for line in file.readlines()[-60:])
        return tail


def _share(tag, path):
    return [
        "-fsdev",
        f"local,id={tag},path={path},security_model=none,readonly=on,multidevs=remap",
        "-device",
        f"virtio-9p-pci,fsdev={tag},mount_tag={tag}",
    ]


def _die_with_parent():
    ctypes.CDLL(None).prctl(PR_SET_PDEATHSIG, signal.SIGKILL)
