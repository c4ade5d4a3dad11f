# SPDX-License-Identifier: Apache-2.0
"""launcher - starts the measured programs, pins them to a core, talks to them and ends them."""
import ctypes
import json
import os
import pathlib
import select
import shutil
import signal
import socket
import subprocess
import tempfile
import time

ROOT = pathlib.Path(__file__).resolve().parent.parent
BIN = ROOT / "build/release/bin"
PATIENCE = 60.0  # seconds; no measured operation takes as long

# Measured programs run on SERVER_CORE or on both cores, this script on DRIVER_CORE.
DRIVER_CORE, SERVER_CORE = min(os.sched_getaffinity(0)), max(os.sched_getaffinity(0))

# The thread of this name is the board's, which is no part of the server.
BOARD_THREAD = "dolm-ric-board"

PR_SET_PDEATHSIG = 1
libc = ctypes.CDLL(None, use_errno=True)


def set_priority(nice):
    """Raises the benchmark's priority, where that is permitted. All measured programs have the same
    priority."""
    try:
        os.setpriority(os.PRIO_PROCESS, 0, nice)
        pathlib.Path("/proc/self/autogroup").write_text(str(nice))
    except OSError:
        pass


class Failed(Exception):
    pass


def wait_until(condition, what, needed=()):
    deadline = time.monotonic() + PATIENCE
    while not condition():
        for program in needed:
            if program.process.poll() is not None:
                raise Failed(f"{program.name} has ended")
        if time.monotonic() > deadline:
            raise Failed(f"timeout: waited until {what}")
        time.sleep(0.002)


class Program:
    """A process that answers each line with a line."""

    def __init__(self, args, core, env=None, **more):
        def prepare():
            libc.prctl(PR_SET_PDEATHSIG, signal.SIGKILL)
            os.sched_setaffinity(0, {core})

        self.name = " ".join(map(str, args))
        self.process = subprocess.Popen(
            list(map(str, args)), stdin=subprocess.PIPE, stdout=subprocess.PIPE, text=True,
            env={**os.environ, **(env or {})}, preexec_fn=prepare, process_group=0, **more)
        self.pid = self.process.pid

    def read_line(self):
        ready, _, _ = select.select([self.process.stdout], [], [], 5 * PATIENCE)
        line = self.process.stdout.readline() if ready else ""
        if not line:
            raise Failed(f"no answer from {self.name}")
        return line

    def ask(self, *words):
        self.process.stdin.write(" ".join(map(str, words)) + "\n")
        self.process.stdin.flush()
        return self.answer()

    def answer(self):
        return json.loads(self.read_line())

    def end(self):
        try:
            os.killpg(self.pid, signal.SIGKILL)
        except ProcessLookupError:
            pass
        self.process.wait()
        self.process.stdin.close()
        self.process.stdout.close()


def tasks(pid):
    return [pathlib.Path(f"/proc/{pid}/task/{task}") for task in os.listdir(f"/proc/{pid}/task")]


def is_counted(task):
    return (task / "comm").read_text().strip() != BOARD_THREAD


def is_asleep(task):
    return (task / "stat").read_text().rpartition(")")[2].split()[0] == "S"


def anonymous_bytes(pid):
    """Memory of the process alone: unmodified pages of files do not count."""
    return sum_of_lines(f"/proc/{pid}/smaps_rollup", "Anonymous")


def sum_of_lines(file, *keys):
    """The sum of these lines of a file in /proc, in bytes; a line that is missing counts as 0."""
    lines = (line.split() for line in pathlib.Path(file).read_text().splitlines())
    return 1024 * sum(int(words[1]) for words in lines if words[0].rstrip(":") in keys)


def memory_of(*pids):
    """Bytes of these processes together: private memory, memory that they share, page tables, and
    the kernel's objects, which are counted for the whole machine."""
    return sum_of_lines("/proc/meminfo", "Slab") + sum(
        sum_of_lines(f"/proc/{pid}/smaps_rollup", "Anonymous", "Pss_Shmem") +
        sum_of_lines(f"/proc/{pid}/status", "VmPTE") for pid in pids)


def can_connect(path, kind):
    with socket.socket(socket.AF_UNIX, kind) as probe:
        return probe.connect_ex(str(path)) == 0


class Server:
    """The processes of one system's server side. Subclasses define how they start."""

    name = label = ""
    client_program = ""

    def __init__(self, launcher, core, **options):
        self.launcher = launcher
        self.folder = launcher.new_folder()
        self.address = self.folder / "socket"
        self.board = self.folder / "board"
        self.env = {}
        self.processes = []
        self.start(core, **options)

    def run(self, args, core, **more):
        self.processes.append(self.launcher.run(args, core, self.env, **more))

    def start(self, core):
        self.run([BIN / self.client_program, "serve", self.address, self.board], core)
        self.await_board()

    def await_board(self):
        wait_until(lambda: can_connect(self.board, socket.SOCK_SEQPACKET), f"{self.label} serves",
                   self.processes)

    def counted_tasks(self):
        return [task for process in self.processes for task in tasks(process.pid)
                if is_counted(task)]

    def pin(self, core):
        for process in self.processes:
            for task in tasks(process.pid):
                os.sched_setaffinity(int(task.name), {core})

    def cpu_ns(self):
        """Processor time of the server, read once all its threads sleep."""
        counted = self.counted_tasks()
        wait_until(lambda: all(map(is_asleep, counted)), f"{self.label} is idle")
        return sum(int((task / "schedstat").read_text().split()[0]) for task in counted)

    def client(self, core, waits="epoll"):
        return self.launcher.run([BIN / self.client_program, "client", self.address, waits], core,
                                 self.env)

    def subscribers(self, processes, each, core, waits):
        """Starts them and returns the file of their receipts."""
        path = self.folder / f"receipts-{waits}"
        program = self.launcher.run([BIN / self.client_program, "subscribe", self.address, waits,
                                     path, processes, each], core, self.env)
        if program.read_line() != "ready\n":
            raise Failed(f"the subscribers of {self.label} are not ready")
        return path

    def end(self):
        for process in self.processes:
            self.launcher.end(process)


class Floor(Server):
    name, label, client_program = "floor", "bare socket", "bench_floor"


class Tesk(Server):
    name, label, client_program = "tesk", "tesk-server", "bench_tesk"

    def start(self, core, ports=16, tick_unit_ms=10, env=None):
        description = self.folder / "board.txt"
        description.write_text(f"ports {ports}\ninsert 0-{ports - 1} lc link=up speed=10\n")
        self.env = {"MBX_DIR": str(self.folder / "mbx"), "DOLM_RIC_BOARD": str(description),
                    "DOLM_RIC_SOCKET": str(self.board), "TESKTMO_UNIT_MS": str(tick_unit_ms),
                    **(env or {})}
        self.run([BIN / "tesk-server"], core)
        self.await_board()
        name = self.folder / "mbx/tesk-server"
        wait_until(lambda: can_connect(name, socket.SOCK_SEQPACKET), "tesk-server serves")


class SdBusPeer(Server):
    name, label, client_program = "sdbus", "sd-bus peer to peer", "bench_sdbus"

    def start(self, core):
        self.address = f"peer:{self.address}"
        super().start(core)


class DBus(Server):
    name, label, client_program = "dbus", "D-Bus daemon", "bench_sdbus"
    # The limits are those of a session bus.
    configuration = """<!DOCTYPE busconfig PUBLIC "-//freedesktop//DTD D-Bus Bus Configuration 1.0//EN"
 "http://www.freedesktop.org/standards/dbus/1.0/busconfig.dtd">
<busconfig><type>session</type><listen>unix:path={path}</listen><auth>EXTERNAL</auth>
<policy context="default"><allow send_destination="*"/><allow receive_sender="*"/>
<allow own="*"/></policy>
<limit name="max_completed_connections">100000</limit>
<limit name="max_incomplete_connections">10000</limit>
<limit name="max_connections_per_user">100000</limit>
<limit name="max_match_rules_per_connection">50000</limit></busconfig>
"""

    def start(self, core):
        path, file = self.address, self.folder / "bus.conf"
        file.write_text(self.configuration.format(path=path))
        self.run(["dbus-daemon", f"--config-file={file}", "--nofork"], core,
                 stderr=subprocess.DEVNULL)
        wait_until(lambda: can_connect(path, socket.SOCK_STREAM), "dbus-daemon serves")
        self.address = f"bus:{path}"
        super().start(core)


class Redis(Server):
    name, label, client_program = "redis", "Redis", "bench_redis"

    def start(self, core):
        self.run(["redis-server", "--port", 0, "--unixsocket", self.address, "--save", "",
                  "--appendonly", "no", "--tcp-backlog", 4096, "--daemonize", "no", "--dir", self.folder, "--logfile",
                  self.folder / "log"], core)
        wait_until(lambda: can_connect(self.address, socket.SOCK_STREAM), "redis-server serves")
        super().start(core)


class TeskWithoutUring(Tesk):
    """As on a system that has no io_uring or refuses it."""

    name, label = "plain", "tesk-server without io_uring"

    def start(self, core):
        super().start(core, env={"MBX_IO_URING": "0"})


class FloorInEpoll(Floor):
    """Its subscribers wait in epoll_wait, whichever way those of the others do."""

    name, label = "floor in epoll", "bare socket, in epoll_wait"

    def subscribers(self, processes, each, core, waits):
        return super().subscribers(processes, each, core, "epoll")


SYSTEMS = [Floor, Tesk, Redis, SdBusPeer, DBus]
# By the way in which the subscribers wait.
FAN_OUT_SYSTEMS = {"epoll": [Floor, Tesk, TeskWithoutUring, *SYSTEMS[2:]],
                   "read": [Floor, FloorInEpoll, Tesk, TeskWithoutUring, *SYSTEMS[2:]]}


class Launcher:
    """All programs that were started; they end with it."""

    def __enter__(self):
        self.folder = pathlib.Path(tempfile.mkdtemp(prefix="tesk-bench-"))
        self.programs = []
        set_priority(-15)
        os.sched_setaffinity(0, {DRIVER_CORE})
        return self

    def __exit__(self, *_):
        self.end_all()
        set_priority(0)
        shutil.rmtree(self.folder, ignore_errors=True)

    def new_folder(self):
        return pathlib.Path(tempfile.mkdtemp(dir=self.folder, prefix=""))

    def run(self, args, core, env=None, **more):
        program = Program(args, core, env, **more)
        self.programs.append(program)
        return program

    def end(self, program):
        program.end()
        self.programs.remove(program)

    def start_growth(self, options):
        """A server and the program with its clients, on one core."""
        server = Tesk(self, SERVER_CORE, **options)
        return server, self.run([BIN / "bench_growth", server.board], SERVER_CORE, server.env)

    def end_growth(self, pair):
        self.end(pair[1])
        pair[0].end()

    def end_all(self):
        # Clients first: they print an error when their server ends.
        for program in reversed(self.programs):
            program.end()
        self.programs = []


def count_system_calls(server, work):
    """The number of calls that the server's processes make during the work."""
    pids = [process.pid for process in server.processes]
    summary = server.folder / "strace"
    args = ["strace", "-f", "-q", "-c", "-o", summary]
    for pid in pids:
        args += ["-p", pid]
    tracer = server.launcher.run(args, DRIVER_CORE, stderr=subprocess.DEVNULL)
    wait_until(lambda: all("TracerPid:\t0\n" not in (task / "status").read_text()
                           for pid in pids for task in tasks(pid)), "strace is attached")
    work()
    tracer.process.send_signal(signal.SIGINT)
    tracer.process.wait(PATIENCE)
    server.launcher.end(tracer)
    total = [line.split() for line in summary.read_text().splitlines() if line.endswith(" total")]
    return int(total[0][3]) if total else 0


class TraceSession:
    """An LTTng session that records all events. `works` is false where LTTng cannot be used."""

    def __init__(self, launcher):
        self.name = f"tesk-bench-{os.getpid()}"
        self.output = launcher.new_folder()
        self.daemon = None

    def lttng(self, *words):
        return subprocess.run(["lttng", "-q", *words], stdout=subprocess.DEVNULL,
                              stderr=subprocess.DEVNULL, timeout=PATIENCE).returncode == 0

    def __enter__(self):
        self.works = shutil.which("lttng-sessiond") is not None
        if self.works and not self.lttng("--no-sessiond", "list"):
            self.start_daemon()
        self.works = self.works and all((
            self.lttng("create", self.name, f"--output={self.output}"),
            self.lttng("enable-event", f"--session={self.name}", "--userspace", "--all"),
            self.lttng("start", self.name)))
        return self

    def start_daemon(self):
        """The daemon goes into the background once it serves; its pid file contains the process
        id."""
        pid_file = self.output / "pid"
        self.works = subprocess.run(
            ["lttng-sessiond", "--daemonize", "--no-kernel", f"--pidfile={pid_file}"],
            stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL, timeout=PATIENCE).returncode == 0
        if self.works:
            self.daemon = int(pid_file.read_text())

    def __exit__(self, *_):
        if self.works:
            self.lttng("destroy", self.name)
        if self.daemon is not None:
            os.kill(self.daemon, signal.SIGTERM)
            wait_until(lambda: not pathlib.Path(f"/proc/{self.daemon}").exists(),
                       "the LTTng session daemon ends")
