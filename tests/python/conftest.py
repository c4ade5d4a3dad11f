# SPDX-License-Identifier: Apache-2.0
"""A real server on the simulated board, for each test. TESK_BUILD_DIR is the build's folder; the
mailbox library takes MBX_DIR once for a process, so all tests share a private one."""
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


class Server:
    """tesk-server, and the board that it stands on."""

    def __init__(self):
        self.process = None
        self.start()

    def start(self, **environment):
        self.process = subprocess.Popen([BIN / "tesk-server"], env={**os.environ, **environment})
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
                       stdout=subprocess.DEVNULL)

    def await_unsubscribed(self, ports):
        for what in ("port", "link"):
            self.board("wait", ports, "--unsubscribed", what)


@pytest.fixture(scope="session", autouse=True)
def clean_up():
    """The folder goes last."""
    yield
    folder.cleanup()


@pytest.fixture
def server():
    running = Server()
    yield running
    running.signal(signal.SIGCONT)
    running.kill()


@pytest.fixture(autouse=True)
def patience():
    """Whatever hangs fails, with the place where it hangs."""
    def give_up(*_):
        raise TimeoutError("the test hangs")

    previous = signal.signal(signal.SIGALRM, give_up)
    signal.alarm(2 * PATIENCE)
    yield time.monotonic() + PATIENCE
    signal.alarm(0)
    signal.signal(signal.SIGALRM, previous)
