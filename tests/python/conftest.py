# SPDX-License-Identifier: Apache-2.0
"""A real server on the simulated board, for each test. TESK_BUILD_DIR is the build's folder; the mailbox
library reads MBX_DIR once for a process, so all tests share one private directory."""
import atexit
import ctypes
import os
import pathlib
import signal
import subprocess
import tempfile
import time

import pytest

BIN = pathlib.Path(os.environ["TESK_BUILD_DIR"]) / "bin"
PATIENCE = 20  # seconds
folder = tempfile.TemporaryDirectory(prefix="tesk-python-")
os.environ.update(MBX_DIR=f"{folder.name}/mbx", DOLM_RIC_SOCKET=f"{folder.name}/board.sock",
                  MBX_LOCATE_MS=str(PATIENCE * 1000))
atexit.register(folder.cleanup)

libc = ctypes.CDLL(None)


def await_descriptors(count):
    """Waits until `count` descriptors are open: the mailbox library closes those of a connection on a thread
    of its own."""
    deadline = time.monotonic() + PATIENCE
    while (still := len(os.listdir("/proc/self/fd"))) != count:
        assert time.monotonic() < deadline, f"{still} descriptors, not {count}"
        time.sleep(0.001)


class Server:
    """tesk-server, which ends with the test, and its board."""

    def start(self, **environment):
        self.process = subprocess.Popen([BIN / "tesk-server"], env={**os.environ, **environment},
                                        preexec_fn=lambda: libc.prctl(1, signal.SIGKILL))
        end = time.monotonic() + PATIENCE
        while any(subprocess.run([BIN / name, *words], timeout=PATIENCE, capture_output=True)
                  .returncode for name, *words in (("teskctl", "capabilities"),
                                                   ("teskboard", "ports"))):
            assert self.process.poll() is None and time.monotonic() < end

    def signal(self, number):
        self.process.send_signal(number)

    def kill(self):
        self.process.kill()
        self.process.wait(PATIENCE)

    @staticmethod
    def board(*words):
        subprocess.run([BIN / "teskboard", "--timeout", str(PATIENCE), *words], check=True,
                       capture_output=True)

    def await_unsubscribed(self, ports):
        self.board("wait", ports, "--unsubscribed", "port")
        self.board("wait", ports, "--unsubscribed", "link")


@pytest.fixture
def server():
    running = Server()
    running.start()
    yield running
    running.signal(signal.SIGCONT)
    running.kill()
