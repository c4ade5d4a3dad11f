# SPDX-License-Identifier: Apache-2.0
"""linux - the cost of the board library for Linux, in a network namespace of the benchmark's own:
links against a bare listener, modules on a slow bus, which slow_reader.py stands in for, and many idle
ports against the simulated board. The real reader gets the requests of the idle ports, too; its kernel
answers that there is no module, so the share leaves out what a driver and a bus add."""
import ctypes
import fcntl
import json
import multiprocessing
import os
import pathlib
import random
import select
import signal
import socket
import struct
import subprocess
import sys
import threading
import time

from exporter import cpu_ms
from launcher import (BIN, DRIVER_CORE, ROOT, SERVER_CORE, Failed, Server, Tesk, anonymous_bytes,
                      can_connect, libc, wait_until)

PORTS = 512
FLAPS = 200_000
CAPPED_PAIRS = 5  # the server's filter is full after so many falls
SFP_READ_MS = 3.5  # 32 bytes at 100 kHz
MODULE = ROOT / "examples/modules/sfp-10g-sr.bin"
CLONE_NEWNET, CLONE_NEWUSER = 0x40000000, 0x10000000
TUNSETIFF, TUNSETCARRIER = 0x400454CA, 0x400454E2
IFF_TAP, IFF_NO_PI = 2, 0x1000
IFF_UP, SIOCSIFFLAGS = 1, 0x8914
LATE = 1.2  # seconds; the kernel reports a fall so late if it has just reported another one
QUIET = 0.4  # seconds without a line, after which none will come any more
MOST_ROUNDS = 3


class LinuxBoard(Server):
    name, label, client_program = "linux", "tesk-server on the board for Linux", "bench_tesk"

    def start(self, core, interfaces=(), read_ms=0.0, reader=()):
        ports = self.folder / "ports"
        ports.write_text("".join(f"{number} {name}\n" for number, name in enumerate(interfaces)))
        self.env = {"MBX_DIR": str(self.folder / "mbx"), "DOLM_RIC_PORTS": str(ports),
                    "DOLM_RIC_PORT_MAP": str(self.folder / "map"), "TESKTMO_UNIT_MS": "10",
                    "DOLM_RIC_READER": str(self.folder / "reader")}
        self.reader = self.launcher.run(
            [sys.executable, ROOT / "benchmarks/slow_reader.py", self.folder / "reader", ports,
             MODULE, read_ms, *reader], DRIVER_CORE)
        self.reader_pid = int(self.reader.read_line())
        self.processes.append(self.launcher.run([BIN / "tesk-server"], core, {
            **self.env, "LD_LIBRARY_PATH": str(ROOT / "build/release/lib/linux")}))
        name = self.folder / "mbx/tesk-server"
        wait_until(lambda: can_connect(name, socket.SOCK_SEQPACKET), "tesk-server serves",
                   self.processes)

    def end(self):
        super().end()
        self.launcher.end(self.reader)
        if self.reader_pid:
            wait_until(lambda: not os.path.exists(f"/proc/{self.reader_pid}"), "the reader has ended")


class Tap:
    """An interface whose carrier the benchmark sets."""

    def __init__(self, name):
        self.file = open("/dev/net/tun", "r+b", buffering=0)
        fcntl.ioctl(self.file, TUNSETIFF, struct.pack("16sH14x", name.encode(), IFF_TAP | IFF_NO_PI))
        run_ip(f"link set {name} up")

    def set(self, carrier):
        fcntl.ioctl(self.file, TUNSETCARRIER, struct.pack("i", carrier))

    def flap(self, times):
        down, up = struct.pack("i", 0), struct.pack("i", 1)
        for _ in range(times):
            fcntl.ioctl(self.file, TUNSETCARRIER, down)
            fcntl.ioctl(self.file, TUNSETCARRIER, up)


def run_ip(*lines):
    subprocess.run(["ip", "-batch", "-"], input="\n".join(lines), text=True, check=True)


def enter_own_network():
    user, group = os.getuid(), os.getgid()
    if libc.unshare(CLONE_NEWNET | (CLONE_NEWUSER if user else 0)) != 0:
        raise Failed(f"no network namespace: {os.strerror(ctypes.get_errno())}")
    if user:
        pathlib.Path("/proc/self/setgroups").write_text("deny")
        pathlib.Path("/proc/self/uid_map").write_text(f"0 {user} 1")
        pathlib.Path("/proc/self/gid_map").write_text(f"0 {group} 1")


def measure_linux(bench):
    enter_own_network()
    links(bench)
    slow_module(bench)
    names = add_pairs()
    idle(bench, names)
    storm(bench, names)


def next_line(listener, patience):
    """Returns what the program has written, as soon as there is some; empty after `patience`
    seconds."""
    ready, _, _ = select.select([listener], [], [], patience)
    return os.read(listener.fileno(), 65536) if ready else b""


def await_quiet(listener):
    while next_line(listener, QUIET):
        pass


def time_rise(tap, listener):
    """From our call into the kernel to the line, in microseconds."""
    tap.set(0)
    next_line(listener, 2 * LATE)
    await_quiet(listener)
    start = time.monotonic()
    tap.set(1)
    if not next_line(listener, 20):
        raise Failed("a link came up, and no line says so")
    took = time.monotonic() - start
    await_quiet(listener)
    return 1e6 * took


def links(bench):
    launcher, tap = bench.launcher, Tap("bench0")
    bare = launcher.run([BIN / "bench_link_listener"], SERVER_CORE)
    server = LinuxBoard(launcher, SERVER_CORE, interfaces=["bench0"])
    subscriber = launcher.run([BIN / "bench_link_subscriber"], SERVER_CORE, server.env)
    watch = launcher.run([BIN / "teskctl", "--json", "watch", "--status", "0"], SERVER_CORE, server.env)
    for program in (subscriber, watch):
        program.read_line()
    followers = {"floor": [bare], "linux": [subscriber, *server.processes],
                 "teskctl": [watch, *server.processes]}
    programs = {program for processes in followers.values() for program in processes}
    for _ in range(min(bench.rounds, MOST_ROUNDS)):
        for name, processes in followers.items():
            listener, others = processes[0].process.stdout, programs.difference(processes)
            # One at a time, as all would be woken at once.
            for each in others:
                each.process.send_signal(signal.SIGSTOP)
            await_quiet(listener)
            for _ in range(4):
                add_rise(bench, name, time_rise(tap, listener))
            for each in others:
                each.process.send_signal(signal.SIGCONT)
    for program in (watch, bare):
        launcher.end(program)
    flaps(bench, tap, server.processes[0].pid)
    launcher.end(subscriber)
    server.end()


def add_rise(bench, name, took):
    if name != "teskctl":
        bench.add("linux event", "a rise of the link to the subscriber's line", "µs", name, took)
    if name != "linux":
        bench.add("linux line", "the same to the line of `teskctl --json watch`", "µs",
                  "floor" if name == "floor" else "linux", took)


def flaps(bench, tap, pid):
    """With a subscriber: each event that the server gets makes it read the link."""
    for _ in range(min(bench.rounds, MOST_ROUNDS)):
        for name, times in (("floor", CAPPED_PAIRS), ("linux", FLAPS)):
            time.sleep(LATE)
            before, end = cpu_ms(pid), time.monotonic() + 2 * LATE
            tap.flap(times)
            time.sleep(max(LATE, end - time.monotonic()))
            bench.add("linux flaps", f"server CPU for {FLAPS:,} flaps, beside {CAPPED_PAIRS}", "ms",
                      name, cpu_ms(pid) - before)


def slow_module(bench):
    launcher = bench.launcher
    run_ip("link add slow0 type veth peer name slow1", "link set slow0 up", "link set slow1 up")
    servers = [Tesk(launcher, SERVER_CORE),
               LinuxBoard(launcher, SERVER_CORE, interfaces=["slow0"], read_ms=SFP_READ_MS)]
    for server in servers:
        wait_until(lambda: b"rx power" in output_of(server, "pm"), "the module is measured")
    for number in range(4 * min(bench.rounds, MOST_ROUNDS)):
        for server in servers[:: 1 if number % 2 else -1]:
            for command in ("pm", "status"):
                start = time.monotonic()
                output_of(server, command)
                bench.add(f"linux {command}", f"teskctl {command} 0, from start to end", "ms",
                          "floor" if server.name == Tesk.name else "linux",
                          1000 * (time.monotonic() - start))
    for server in servers:
        server.end()


def output_of(server, command):
    return subprocess.run([BIN / "teskctl", command, "0"], env={**os.environ, **server.env},
                          stdout=subprocess.PIPE, check=True).stdout


def add_pairs():
    """Returns the names of PORTS interfaces; each is up while its neighbour is started."""
    names = [f"port{number}" for number in range(PORTS)]
    run_ip(*(f"link add {a} type veth peer name {b}" for a, b in zip(names[::2], names[1::2])),
           *(f"link set {name} up" for name in names))
    return names


def idle(bench, names):
    """Measures all boards over the same idle time. The bytes are those that modules would send."""
    launcher, seconds = bench.launcher, 10 if bench.quick else 20
    simulated = Tesk(launcher, SERVER_CORE, ports=PORTS)
    server = LinuxBoard(launcher, SERVER_CORE, interfaces=names,
                        reader=[BIN / "tesk-module-reader"])
    pids = {"simulated": simulated.processes[0].pid, "library": server.processes[0].pid,
            "reader": server.reader_pid}
    time.sleep(5)
    before, begin = {name: cpu_ms(pid) for name, pid in pids.items()}, time.monotonic()
    requests, read = server.reader.ask("count")
    time.sleep(seconds)
    took = time.monotonic() - begin
    share = {name: (cpu_ms(pid) - before[name]) / took / 10 for name, pid in pids.items()}
    memory = {name: anonymous_bytes(pid) / 1024 for name, pid in pids.items()}
    requests_after, read_after = server.reader.ask("count")
    for key, title, unit, value in (
            ("cpu", "share of a core", "%", share), ("memory", "anonymous memory", "KiB", memory)):
        bench.add(f"linux idle {key}", f"{PORTS} idle ports: {title}, library and reader beyond the "
                  "simulated board", unit, "linux",
                  value["library"] + value["reader"] - value["simulated"])
        bench.add(f"linux reader {key}", f"{PORTS} idle ports: {title}, the reader alone", unit,
                  "linux", value["reader"])
    bench.add("linux requests", f"{PORTS} idle ports: reads a second", "", "linux",
              (requests_after - requests) / took)
    bench.add("linux bytes", f"{PORTS} idle ports: bytes read from modules a second", "B", "linux",
              (read_after - read) / took)
    server.end()
    simulated.end()


def flap_at_random(names):
    """For ever. The kernel merges no message of such interfaces."""
    control = socket.socket(socket.AF_INET, socket.SOCK_DGRAM)
    while True:
        name = random.choice(names).encode()
        for flags in (0, IFF_UP):
            fcntl.ioctl(control, SIOCSIFFLAGS, struct.pack("16sh14x", name, flags))


def storm(bench, names):
    """One client watches all ports, which flap at random, while another one asks."""
    launcher = bench.launcher
    server = LinuxBoard(launcher, SERVER_CORE, interfaces=names)
    watch = launcher.run([BIN / "teskctl", "--json", "watch", "--status", "all"], SERVER_CORE,
                         server.env)
    for _ in names:
        watch.process.stdout.readline()
    threading.Thread(target=watch.process.stdout.read, daemon=True).start()
    flapping = multiprocessing.Process(target=flap_at_random, args=(names,), daemon=True)
    flapping.start()
    time.sleep(1)
    pings = subprocess.run(
        [BIN / "teskctl", "--json", "--timeout", "20", "ping", "--count", "500", "--interval", "0.01"],
        env={**os.environ, **server.env}, stdout=subprocess.PIPE, check=True)
    flapping.kill()
    flapping.join()
    times = sorted(each["time_ms"] for each in map(json.loads, pings.stdout.splitlines())
                   if "time_ms" in each)
    bench.add("linux storm", f"{PORTS} watched ports flap: another client's request, p99", "ms",
              "linux", times[len(times) * 99 // 100])
    launcher.end(watch)
    server.end()
