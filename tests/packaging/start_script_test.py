#!/usr/bin/python3
"""The start script for images without systemd, with the start-stop-daemon of dpkg and with that of busybox.

Runs in the world that tools/dev/private_root makes. The environment variable DOCKHAND_BUILD_DIR names the build tree.
"""

import ctypes
import os
import pathlib
import shutil
import signal
import socket
import subprocess
import tempfile
import threading
import time
import unittest

SOURCE = pathlib.Path(__file__).resolve().parents[2]
BUILD = pathlib.Path(os.environ.get("DOCKHAND_BUILD_DIR", SOURCE / "build" / "debug"))
PATIENCE_SECONDS = 30
SOCKET = pathlib.Path("/run/ravel/9020.sock")
PR_SET_CHILD_SUBREAPER = 36


def processes():
    """Returns the daemons that run from the build tree."""
    found = []
    for process in pathlib.Path("/proc").glob("[0-9]*"):
        try:
            if os.readlink(process / "exe") == str(BUILD / "bin" / "dockhand"):
                found.append(int(process.name))
        except OSError:
            pass
    return found


def is_served():
    with socket.socket(socket.AF_UNIX) as client:
        return client.connect_ex(str(SOCKET)) == 0


class Init:
    """Acts as init for the processes that a start script leaves: adopts them, and reaps them when they end."""

    def __init__(self):
        self.lock = threading.Lock()
        self.own = None
        if ctypes.CDLL(None).prctl(PR_SET_CHILD_SUBREAPER, 1, 0, 0, 0) != 0:
            raise OSError("prctl failed")
        threading.Thread(target=self.clear, daemon=True).start()

    def clear(self):
        while True:
            with self.lock:
                try:
                    ended = os.waitid(os.P_ALL, 0, os.WEXITED | os.WNOHANG | os.WNOWAIT)
                    if ended is not None and ended.si_pid != self.own:
                        os.waitpid(ended.si_pid, 0)
                except ChildProcessError:
                    pass
            time.sleep(0.005)

    def run(self, command):
        with self.lock:
            process = subprocess.Popen(
                command, stdin=subprocess.DEVNULL, stdout=subprocess.PIPE, stderr=subprocess.STDOUT, text=True
            )
            self.own = process.pid
        output = process.communicate(timeout=PATIENCE_SECONDS)[0]
        return process.returncode, output


INIT = Init()


class StartScriptTest:
    program = ""

    def setUp(self):
        if os.environ.get("PRIVATE_ROOT") != "1":
            self.skipTest(os.environ.get("PRIVATE_ROOT_MISSING", "run by ./test packaging"))
        directory = tempfile.TemporaryDirectory()
        self.addCleanup(directory.cleanup)
        programs = pathlib.Path(directory.name, "bin")
        programs.mkdir()
        self.write(programs / "start-stop-daemon", f'#!/bin/sh\nexec {self.program} "$@"\n')
        text = (SOURCE / "integration" / "init" / "dockhand").read_text()
        for installed, here in (
            ("PATH=/usr/lib/dockhand/tools", f"PATH={programs}"),
            ("/usr/lib/dockhand/dockhand-launch", f"{BUILD}/bin/dockhand-launch"),
            ("/usr/sbin/dockhand\n", f"{BUILD}/bin/dockhand\n"),
            ("/usr/sbin/dockhand &", f"{BUILD}/bin/dockhand &"),
            ("--chuid root:dockhand", "--chuid root:daemon"),
        ):
            text = text.replace(installed, here)
        self.assertNotIn("/usr/lib/dockhand", text)
        self.path = pathlib.Path(directory.name, "dockhand")
        self.write(self.path, text)
        self.assertEqual(processes(), [])
        self.addCleanup(self.end)

    def write(self, path, text):
        path.write_text(text)
        path.chmod(0o755)

    def script(self, action):
        return INIT.run([self.path, action])

    def end(self):
        self.script("stop")
        for process in processes():
            os.kill(process, signal.SIGKILL)

    def wait_until(self, condition):
        deadline = time.monotonic() + PATIENCE_SECONDS
        while not condition():
            self.assertLess(time.monotonic(), deadline)
            time.sleep(0.05)

    def start(self):
        self.assertEqual(self.script("start"), (0, ""))
        self.wait_until(is_served)

    def test_it_reports_whether_the_daemon_runs(self):
        self.assertEqual(self.script("status"), (3, "dockhand is not running\n"))
        self.start()
        self.assertEqual(self.script("status"), (0, "dockhand is running\n"))
        self.script("stop")
        self.assertEqual(self.script("status"), (3, "dockhand is not running\n"))

    def test_it_starts_one_daemon_with_the_group_and_stops_it(self):
        self.start()
        self.assertEqual(SOCKET.group(), "daemon")
        running = processes()
        self.assertEqual(len(running), 1)
        self.assertEqual(self.script("start")[0], 0)
        self.assertEqual(processes(), running)
        self.assertEqual(self.script("stop")[0], 0)
        self.wait_until(lambda: processes() == [])

    def test_stopping_right_after_starting_leaves_no_daemon_behind(self):
        for _ in range(10):
            self.assertEqual(self.script("start")[0], 0)
            self.assertEqual(self.script("stop")[0], 0)
            self.wait_until(lambda: processes() == [])

    def test_it_restarts_a_daemon_that_dies(self):
        self.start()
        first = processes()
        os.kill(first[0], signal.SIGKILL)
        self.wait_until(lambda: len(processes()) == 1 and processes() != first)

    def test_restart_ends_the_old_daemon_and_starts_a_new_one(self):
        self.start()
        first = processes()
        self.assertEqual(self.script("restart")[0], 0)
        self.wait_until(lambda: len(processes()) == 1 and processes() != first)


class DpkgStartScriptTest(StartScriptTest, unittest.TestCase):
    program = shutil.which("start-stop-daemon", path="/usr/sbin:/sbin")


class BusyboxStartScriptTest(StartScriptTest, unittest.TestCase):
    program = f'{shutil.which("busybox", path="/usr/bin:/bin")} start-stop-daemon'


if __name__ == "__main__":
    unittest.main()
