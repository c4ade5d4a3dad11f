# SPDX-License-Identifier: Apache-2.0
"""measure - the measurements of ./bench, as series of figures for the report.

All systems of a measurement run at once and take turns, so that other work of the machine slows all
of them; a ratio is taken within a round, and the report has the median of the rounds."""
import os
import statistics
import sys
import time

from callgrind import count_instructions, run_cases, trace_test
from launcher import (BIN, DRIVER_CORE, FAN_OUT_SYSTEMS, ROOT, SERVER_CORE, SYSTEMS, Redis, Tesk,
                      TraceSession, anonymous_bytes, count_system_calls, memory_of, tasks)

CAPABILITIES, PM_COUNTERS = 0, 1
EVENTS_A_BATCH = 16
# Seconds after which the filters of the four ports are empty again.
FILTER_REST = 0.6
# How the clients wait, as the programs take it; see harness.h.
WAITS = ("epoll", "read")
CONNECTIONS = 50  # one after the other, for each system in each round
CLIENTS_IN_MEMORY = 1000  # enough that other work of the machine does not matter


def median(values):
    return statistics.median(values)


def percentile(values, percent):
    ordered = sorted(values)
    return ordered[min(len(ordered) - 1, len(ordered) * percent // 100)]


def count_of(number, thing):
    return f"{number:,} {thing}" + "s" * (number != 1)


class Series:
    """One measure of several systems over the rounds."""

    def __init__(self, key, title, unit):
        self.key, self.title, self.unit = key, title, unit
        self.rounds = {}

    def add(self, system, value):
        self.rounds.setdefault(system, []).append(value)

    def value(self, system):
        return median(self.rounds[system])

    def ratio(self, system, base="floor"):
        return median([value / reference for value, reference
                       in zip(self.rounds[system], self.rounds[base]) if reference])


class Bench:
    def __init__(self, launcher, rounds, calls, quick):
        self.launcher, self.rounds, self.calls, self.quick = launcher, rounds, calls, quick
        self.series = {}
        self.latencies = {}

    def add(self, key, title, unit, system, value):
        self.series.setdefault(key, Series(key, title, unit)).add(system, value)

    def in_turns(self, servers, work, before_round=lambda: None):
        """Each round begins with another system."""
        for number in range(self.rounds):
            before_round()
            turn = number % len(servers)
            for server in servers[turn:] + servers[:turn]:
                work(server)

    def requests(self):
        """Request to answer, 64 in flight, and connecting."""
        servers = [system(self.launcher, SERVER_CORE) for system in SYSTEMS]
        for waits in WAITS:
            self.requests_of(servers, waits)
        for server in servers:
            server.end()

    def requests_of(self, servers, waits):
        clients = {server.name: server.client(SERVER_CORE, waits) for server in servers}
        for server in servers:
            clients[server.name].ask("calls", CAPABILITIES, 200)
        for cores in (1, 2):
            for server in servers:
                server.pin(SERVER_CORE if cores == 1 else DRIVER_CORE)
            for kind, what in ((CAPABILITIES, "capabilities"), (PM_COUNTERS, "PM counters")):
                self.in_turns(servers, lambda server: self.round_trip(
                    server, clients[server.name], kind, f"{what}, {count_of(cores, 'core')}",
                    waits))
            self.in_turns(servers, lambda server: self.flight(
                server, clients[server.name], count_of(cores, "core"), waits))
        for server in servers:
            self.system_calls(server, clients[server.name], waits)
            server.pin(SERVER_CORE)
        self.in_turns(servers, lambda server: self.add(
            f"connect {waits}", "connecting, until the server's first answer", "µs", server.name,
            median(clients[server.name].ask("connect", CONNECTIONS)) / 1000))
        for client in clients.values():
            self.launcher.end(client)

    def system_calls(self, server, client, waits):
        calls = count_system_calls(server, lambda: client.ask("calls", CAPABILITIES, 500))
        self.add(f"calls trip {waits}", "system calls per request", "", server.name, calls / 500)
        calls = count_system_calls(server, lambda: client.ask("flight", CAPABILITIES, 2000, 64))
        self.add(f"calls flight {waits}", "64 in flight, system calls per request", "",
                 server.name, calls / 2000)

    def round_trip(self, server, client, kind, what, waits):
        before = server.cpu_ns()
        times = client.ask("calls", kind, self.calls)
        cpu = server.cpu_ns() - before
        self.add(f"trip {what} {waits}", f"{what}: round trip, median", "µs", server.name,
                 median(times) / 1000)
        self.add(f"p99 {what} {waits}", f"{what}: round trip, p99", "µs", server.name,
                 percentile(times, 99) / 1000)
        self.add(f"cpu {what} {waits}", f"{what}: server CPU per request", "µs", server.name,
                 cpu / self.calls / 1000)
        if waits == "epoll":
            self.latencies.setdefault(f"round trip, {what}", {}).setdefault(
                server.name, []).extend(times)

    def flight(self, server, client, what, waits):
        count = 2 * self.calls
        before = server.cpu_ns()
        time_ns, = client.ask("flight", CAPABILITIES, count, 64)
        cpu = server.cpu_ns() - before
        self.add(f"rate {what} {waits}", f"64 in flight, {what}: rate", "1/ms", server.name,
                 count / time_ns * 1e6)
        self.add(f"cpu flight {what} {waits}", f"64 in flight, {what}: server CPU per request",
                 "µs", server.name, cpu / count / 1000)

    def python(self):
        """A request's round trip in Python, beside that of the C libraries. All on one core."""
        tesk, redis = Tesk(self.launcher, SERVER_CORE), Redis(self.launcher, SERVER_CORE)
        script = ["/usr/bin/python3", ROOT / "benchmarks/python_client.py"]
        env = {**tesk.env, "PYTHONPATH": str(ROOT / "python"),
               "LD_LIBRARY_PATH": str(BIN.parent / "lib")}
        clients = [
            ("libtesk_client", self.launcher.run([BIN / "bench_library", "client", "-", "read"],
                                                 SERVER_CORE, env)),
            ("tesk_client in Python", self.launcher.run([*script, "tesk"], SERVER_CORE, env)),
            ("the same, asyncio", self.launcher.run([*script, "asyncio"], SERVER_CORE, env)),
            ("hiredis", redis.client(SERVER_CORE, "read")),
            ("redis-py", self.launcher.run([*script, "redis", redis.address], SERVER_CORE))]
        for _, client in clients:
            client.ask("calls", PM_COUNTERS, 200)
        for number in range(self.rounds):
            turn = number % len(clients)
            for name, client in clients[turn:] + clients[:turn]:
                times = client.ask("calls", PM_COUNTERS, self.calls)
                self.add("python trip", "round trip, median", "µs", name, median(times) / 1000)
                self.add("python p99", "round trip, p99", "µs", name, percentile(times, 99) / 1000)
        self.launcher.end_all()

    def fan_out(self, subscribers, waits):
        processes = subscribers if subscribers <= 100 else 4
        each = subscribers // processes
        servers, raisers = [], {}
        for system in FAN_OUT_SYSTEMS[waits]:
            server = system(self.launcher, SERVER_CORE)
            receipts = server.subscribers(processes, each, SERVER_CORE, waits)
            servers.append(server)
            raisers[server.name] = self.launcher.run(
                [BIN / "bench_events", server.board, receipts, subscribers], DRIVER_CORE)
        rested = 0.0

        def rest():
            """Waits before a round until the filters are empty. The next system then finds cold
            caches; each round begins with another one."""
            time.sleep(max(0, rested - time.monotonic()))

        def one_batch(server):
            nonlocal rested
            before = server.cpu_ns()
            times = raisers[server.name].ask("events", EVENTS_A_BATCH)
            cpu = server.cpu_ns() - before
            if isinstance(server, Tesk):
                rested = time.monotonic() + FILTER_REST
            what = count_of(subscribers, "subscriber")
            self.add(f"fan cpu {subscribers} {waits}", f"{what}: server CPU per indication", "µs",
                     server.name, cpu / EVENTS_A_BATCH / subscribers / 1000)
            self.add(f"fan time {subscribers} {waits}", f"{what}: event to last receipt", "µs",
                     server.name, median(times) / 1000)
            if waits == "epoll" and type(server) in SYSTEMS:
                self.latencies.setdefault(f"event to last receipt, {what}", {}).setdefault(
                    server.name, []).extend(times)

        for server in servers:
            raisers[server.name].ask("events", EVENTS_A_BATCH)
        rested = time.monotonic() + FILTER_REST
        self.in_turns(servers, one_batch, rest)
        self.launcher.end_all()

    def growth(self):
        """Whole operations of a server that grows, against one with one client and one port."""
        board, clients, ports = {"ports": 65535}, 1000, 10000 if self.quick else 65535
        size = f"{ports:,} ports, {clients:,} clients"
        small, grown = (self.launcher.start_growth(board) for _ in range(2))
        small[1].ask("clients", 1)
        grown[1].ask("clients", clients)
        grown[1].ask("hold", 1, ports - 1, clients)
        times = max(20, self.calls // 20)
        for number in range(self.rounds):
            for server, program in [(small, "small"), (grown, "grown")][:: 1 if number % 2 else -1]:
                self.add(f"growth request {size}", f"{size}: a request", "µs", program,
                         percentile(server[1].ask("request", 10 * times), 25) / 1000)
                self.add_cycle(size, program, server[1].ask("cycle", times))
        self.launcher.end_growth(grown)
        self.losses(small, (100, ports))

    def add_cycle(self, size, program, taken):
        for operation, places in (("subscribe to SFP info", (0,)),
                                  ("subscribe to port status", (1,)), ("an event", range(2, 6)),
                                  ("unsubscribe from SFP info", (6,)),
                                  ("unsubscribe from port status", (7,))):
            values = [time for place in places for time in taken[place::8]]
            self.add(f"growth {operation} {size}", f"{size}: {operation}", "µs", program,
                     percentile(values, 25) / 1000)

    def losses(self, small, sizes):
        """Server CPU for each subscription of a client that ends, compared with 100 subscriptions:
        with fewer, the cost of the client itself dominates. The largest takes long to set up."""
        server, program = small
        for number in range(self.rounds):
            for size in sizes[: None if number < 3 else -1]:
                program.ask("clients", 2)
                program.ask("hold", 0, size - 1, 1)
                before = server.cpu_ns()
                program.ask("lose", 0)
                self.add(f"growth loss {size}", f"{size:,} ports: a client's end, per subscription",
                         "µs", "grown", (server.cpu_ns() - before) / size / 2 / 1000)

    def note(self, key, title, unit, value):
        """A figure of the server alone."""
        self.add(key, title, unit, Tesk.name, value)

    def costs(self):
        self.idle_cost()
        self.growing_cost()
        for _ in range(self.rounds):
            self.client_memory()
        server = Tesk(self.launcher, SERVER_CORE)
        server.end()
        cost = BIN / "bench_cost"
        for _ in range(self.rounds):
            for key, command in (("start", [cost, "start", BIN / "tesk-server"]),
                                 ("empty", [cost, "run", cost, "empty"])):
                program = self.launcher.run(command, SERVER_CORE, server.env)
                taken, = program.answer()
                self.launcher.end(program)
                self.add("cost start", "start to first answer", "ms",
                         Tesk.name if key == "start" else "floor", taken / 1e6)

    def details(self):
        program = self.launcher.run(
            [BIN / "bench_details", self.launcher.new_folder(), str(self.rounds)], SERVER_CORE)
        for _ in range(self.rounds):
            told, published, file, read, parsed, burst = program.answer()
            for key, title, system, taken in (
                    ("update", "an update, for the thread that makes it", "details", told),
                    ("update", "", "JSON", file),
                    ("publish", "until it is published", "details", published),
                    ("publish", "", "JSON", file),
                    ("read", "reading all", "details", read), ("read", "", "JSON", parsed)):
                self.add(f"details {key}", title, "µs", system, taken / 1000)
            self.add("falls burst", "recording 64 falls at once", "ms", "details", burst / 1e6)
        self.launcher.end(program)

    def history(self):
        program = self.launcher.run([BIN / "bench_history", self.launcher.new_folder()], SERVER_CORE)
        figures = program.answer()
        a_day = 24 * 60  # minutes
        for key, title, unit, scale in (
                ("size", "the file, full", "MiB", 2**20),
                ("start", "taking the file in after a start: processor time", "s", 1e9),
                ("memory", "the forecast's memory", "MiB", 2**20),
                ("hour", "the forecast in the hour that costs most: processor time", "s", 1e9),
                ("weeks", "answering with the weeks of a port: processor time", "ms", 1e6),
                ("written", "512 idle ports of one lane: bytes written a minute", "KiB", 1024 * a_day),
                ("syncs", "512 idle ports of one lane: syncs a minute", "", a_day)):
            self.add(f"history {key}", title, unit, "history", figures.pop(0) / scale)
        self.launcher.end(program)

    def idle_cost(self):
        server = Tesk(self.launcher, SERVER_CORE)
        held = {}
        for what in ("nothing", "board"):
            # The board has a socket of its own.
            env = {**server.env, "DOLM_RIC_SOCKET": str(server.folder / f"idle-{what}")}
            program = self.launcher.run([BIN / "bench_cost", what], SERVER_CORE, env)
            program.answer()
            held[what] = anonymous_bytes(program.pid)
            self.launcher.end(program)
        total = anonymous_bytes(server.processes[0].pid)
        board = held["board"] - held["nothing"]
        self.note("cost idle", "idle memory, anonymous, without the board", "KiB",
                  (total - board) / 1024)
        self.note("cost board", "idle memory of the simulated board", "KiB", board / 1024)
        self.note("cost threads", "threads, including the board's", "",
                  len(tasks(server.processes[0].pid)))
        server.end()

    def growing_cost(self):
        clients, ports = 1000, 10000 if self.quick else 65535
        server, program = self.launcher.start_growth({"ports": ports})
        pid = server.processes[0].pid

        def now():
            return anonymous_bytes(pid), len(os.listdir(f"/proc/{pid}/fd"))

        program.ask("clients", 1)
        memory, _ = now()
        program.ask("clients", clients // 2)
        _, files = now()
        program.ask("clients", clients)
        more_memory, more_files = now()
        program.ask("hold", 0, ports - 1, clients)
        self.note("cost client", "server's own memory per client", "B",
                  (more_memory - memory) / (clients - 1))
        self.note("cost files", "server's descriptors per client", "",
                  (more_files - files) / (clients - clients // 2))
        self.note("cost subscription", "server's own memory per subscription", "B",
                  (now()[0] - more_memory) / ports / 2)
        self.launcher.end_growth((server, program))

    def client_memory(self):
        """Memory per client, of server, client and kernel together. The clients are threads, which
        exist before they connect: a client of one thread only pays for its connection. Once a round,
        because other work of the machine makes the kernel keep objects, too."""
        server, program = self.launcher.start_growth({"ports": 16})
        pids = (server.processes[0].pid, program.pid)
        program.ask("clients", 1)
        program.ask("threads", CLIENTS_IN_MEMORY)
        before = memory_of(*pids)
        program.ask("locate", CLIENTS_IN_MEMORY)
        connected = memory_of(*pids) - before
        program.ask("clients", CLIENTS_IN_MEMORY)
        program.ask("exchange", 4)
        exchanged = memory_of(*pids) - before
        for key, title, held in (("connected", "mailboxes connected", connected),
                                 ("exchanged", "after requests and answers", exchanged)):
            self.note(f"cost memory {key}", f"memory per client, both sides and kernel: {title}",
                      "KiB", held / (CLIENTS_IN_MEMORY - 1) / 1024)
        self.launcher.end_growth((server, program))

    def instructions(self):
        for name, count in count_instructions("bench_mbx_instructions").items():
            self.note(f"mbx instructions {name}", name, "", count)
        counted = count_instructions("bench_instructions")
        untraced = count_instructions("bench_untraced")
        cases = run_cases("bench_instructions", "traces")
        instructions, loads = trace_test()
        self.note("trace test", "test of a trace that is off, in the executable",
                  "instructions", instructions)
        self.note("trace loads", "loads in it: the mask, and a share of the address of procInfo",
                  "", loads)
        for name, count in counted.items():
            self.note(f"instructions {name}", name, "", count)
            self.note(f"trace {name}", name, "",
                      (count - untraced[name]) * cases[name]["times"] / cases[name]["traces"])

    def traces_on(self):
        """The cost of a request with all groups traced to LTTng, and without traces."""
        with TraceSession(self.launcher) as session:
            if not session.works:
                print("bench: LTTng cannot be used here, so its cost is not measured",
                      file=sys.stderr)
                return
            servers = {"off": Tesk(self.launcher, SERVER_CORE), "LTTng": Tesk(
                self.launcher, SERVER_CORE, env={"ZEL_SINK": "lttng", "ZEL_GROUPS": "all"})}
            clients = {name: server.client(SERVER_CORE) for name, server in servers.items()}
            for _ in range(self.rounds):
                for name, server in servers.items():
                    before = server.cpu_ns()
                    clients[name].ask("calls", CAPABILITIES, self.calls)
                    self.add("traced", "server CPU per request, all groups", "µs", name,
                             (server.cpu_ns() - before) / self.calls / 1000)
            self.launcher.end_all()
