# SPDX-License-Identifier: Apache-2.0
"""measure - the measurements of ./bench: each gives a list of rows for the report.

All systems of a measurement run at once and take turns, so that what the machine does meanwhile
hits all of them; a ratio is taken within a round, and the median of the rounds is told."""
import os
import statistics
import sys
import time

from callgrind import count_instructions, run_cases, trace_test
from lab import (BIN, OURS, ROOT, SYSTEMS, THEIRS, Redis, Tesk, TraceSession, anonymous_bytes,
                 count_system_calls, tasks)

CAPABILITIES, PM_COUNTERS = 0, 1
EVENTS_A_BATCH = 16
# The four ports' filters are empty again by then.
FILTER_REST = 0.6


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
    def __init__(self, lab, rounds, calls, quick):
        self.lab, self.rounds, self.calls, self.quick = lab, rounds, calls, quick
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
        """Request to answer, and 64 in flight."""
        servers = [system(self.lab, THEIRS) for system in SYSTEMS]
        clients = {server.name: server.client(THEIRS) for server in servers}
        for server in servers:
            clients[server.name].ask("calls", CAPABILITIES, 200)
        for cores in (1, 2):
            for server in servers:
                server.pin(THEIRS if cores == 1 else OURS)
            for kind, what in ((CAPABILITIES, "capabilities"), (PM_COUNTERS, "PM counters")):
                self.in_turns(servers, lambda server: self.round_trip(
                    server, clients[server.name], kind, f"{what}, {count_of(cores, 'core')}"))
            self.in_turns(servers, lambda server: self.flight(
                server, clients[server.name], count_of(cores, "core")))
        for server in servers:
            client = clients[server.name]
            calls = count_system_calls(server, lambda: client.ask("calls", CAPABILITIES, 500))
            self.add("calls trip", "system calls per request", "", server.name, calls / 500)
            calls = count_system_calls(server,
                                       lambda: client.ask("flight", CAPABILITIES, 2000, 64))
            self.add("calls flight", "64 in flight, system calls per request", "", server.name,
                     calls / 2000)
            self.lab.end(client)
            server.end()

    def round_trip(self, server, client, kind, what):
        before = server.cpu_ns()
        times = client.ask("calls", kind, self.calls)
        cpu = server.cpu_ns() - before
        self.add(f"trip {what}", f"{what}: round trip, median", "µs", server.name,
                 median(times) / 1000)
        self.add(f"p99 {what}", f"{what}: round trip, p99", "µs", server.name,
                 percentile(times, 99) / 1000)
        self.add(f"cpu {what}", f"{what}: server CPU per request", "µs", server.name,
                 cpu / self.calls / 1000)
        self.latencies.setdefault(f"round trip, {what}", {}).setdefault(server.name, []).extend(
            times)

    def flight(self, server, client, what):
        count = 2 * self.calls
        before = server.cpu_ns()
        time_ns, = client.ask("flight", CAPABILITIES, count, 64)
        cpu = server.cpu_ns() - before
        self.add(f"rate {what}", f"64 in flight, {what}: rate", "1/ms", server.name,
                 count / time_ns * 1e6)
        self.add(f"cpu flight {what}", f"64 in flight, {what}: server CPU per request", "µs",
                 server.name, cpu / count / 1000)

    def python(self):
        """A request's round trip in Python, beside the same by the C libraries. All on one core."""
        tesk, redis = Tesk(self.lab, THEIRS), Redis(self.lab, THEIRS)
        script = ["/usr/bin/python3", ROOT / "benchmarks/python_client.py"]
        env = {**tesk.env, "PYTHONPATH": str(ROOT / "python"),
               "LD_LIBRARY_PATH": str(BIN.parent / "lib")}
        clients = [
            ("libtesk_client", self.lab.run([BIN / "bench_library", "client", "-"], THEIRS, env)),
            ("tesk_client in Python", self.lab.run([*script, "tesk"], THEIRS, env)),
            ("the same, asyncio", self.lab.run([*script, "asyncio"], THEIRS, env)),
            ("hiredis", redis.client(THEIRS)),
            ("redis-py", self.lab.run([*script, "redis", redis.address], THEIRS))]
        for _, client in clients:
            client.ask("calls", PM_COUNTERS, 200)
        for number in range(self.rounds):
            turn = number % len(clients)
            for name, client in clients[turn:] + clients[:turn]:
                times = client.ask("calls", PM_COUNTERS, self.calls)
                self.add("python trip", "round trip, median", "µs", name, median(times) / 1000)
                self.add("python p99", "round trip, p99", "µs", name, percentile(times, 99) / 1000)
        self.lab.end_all()

    def fan_out(self, subscribers):
        processes = subscribers if subscribers <= 100 else 4
        each = subscribers // processes
        servers, raisers = [], {}
        for system in SYSTEMS:
            server = system(self.lab, THEIRS)
            told = server.subscribers(processes, each, THEIRS)
            servers.append(server)
            raisers[server.name] = self.lab.run(
                [BIN / "bench_events", server.board, told, subscribers], OURS)
        rested = 0.0

        def rest():
            """Whoever comes first finds the machine cold, so it must not always be the same one."""
            time.sleep(max(0, rested - time.monotonic()))

        def one_batch(server):
            nonlocal rested
            before = server.cpu_ns()
            times = raisers[server.name].ask("events", EVENTS_A_BATCH)
            cpu = server.cpu_ns() - before
            if server.name == Tesk.name:
                rested = time.monotonic() + FILTER_REST
            what = count_of(subscribers, "subscriber")
            self.add(f"fan cpu {subscribers}", f"{what}: server CPU per indication", "µs",
                     server.name, cpu / EVENTS_A_BATCH / subscribers / 1000)
            self.add(f"fan time {subscribers}", f"{what}: event to last receipt", "µs",
                     server.name, median(times) / 1000)
            self.latencies.setdefault(f"event to last receipt, {what}", {}).setdefault(
                server.name, []).extend(times)

        for server in servers:
            raisers[server.name].ask("events", EVENTS_A_BATCH)
        rested = time.monotonic() + FILTER_REST
        self.in_turns(servers, one_batch, rest)
        self.lab.end_all()

    def growth(self):
        """Whole operations of a server that grows, against one with one client and one port."""
        board = {"ports": 65535}
        small = self.lab.start_growth(board)
        small[1].ask("clients", 1)
        for clients in (1, 100, 1000):
            grown = self.lab.start_growth(board)
            grown[1].ask("clients", clients)
            self.compare(small, grown, count_of(clients, "client"), ["request"])
            self.lab.end_growth(grown)
        sizes = (1, 100, 10000) if self.quick else (1, 100, 10000, 65535)
        for clients in (1, 1000):
            grown = self.lab.start_growth(board)
            grown[1].ask("clients", clients)
            held = 1
            for size in sizes:
                grown[1].ask("hold", held, size - 1, clients)
                held = size
                self.compare(small, grown,
                             f"{count_of(size, 'port')}, {count_of(clients, 'client')}",
                             ["request", "cycle"])
            self.lab.end_growth(grown)
        self.losses(small, sizes[1:])

    def compare(self, small, grown, size, operations):
        times = max(20, self.calls // 20)
        for number in range(self.rounds):
            for server, program in [(small, "small"), (grown, "grown")][:: 1 if number % 2 else -1]:
                if "request" in operations:
                    taken = server[1].ask("request", 10 * times)
                    self.add(f"growth request {size}", f"{size}: a request", "µs", program,
                             percentile(taken, 25) / 1000)
                if "cycle" in operations:
                    self.add_cycle(size, program, server[1].ask("cycle", times))

    def add_cycle(self, size, program, taken):
        for operation, places in (("subscribe to SFP info", (0,)),
                                  ("subscribe to port status", (1,)), ("an event", range(2, 6)),
                                  ("unsubscribe from SFP info", (6,)),
                                  ("unsubscribe from port status", (7,))):
            values = [time for place in places for time in taken[place::8]]
            self.add(f"growth {operation} {size}", f"{size}: {operation}", "µs", program,
                     percentile(values, 25) / 1000)

    def losses(self, small, sizes):
        """Server CPU per subscription that a lost client held, against 100 of them: with few, what
        is done once for each client outweighs them. The largest takes long to set up."""
        server, program = small
        for number in range(self.rounds):
            for size in sizes[: None if number < 3 else -1]:
                program.ask("clients", 2)
                program.ask("hold", 0, size - 1, 1)
                before = server.cpu_ns()
                program.ask("lose", 0)
                self.add(f"growth loss {size}", f"{size:,} ports: a client's loss, per subscription",
                         "µs", "grown", (server.cpu_ns() - before) / size / 2 / 1000)

    def note(self, key, title, unit, value):
        """A single figure of the server's own."""
        self.add(key, title, unit, Tesk.name, value)

    def costs(self):
        self.idle_cost()
        self.growing_cost()
        server = Tesk(self.lab, THEIRS)
        server.end()
        cost = BIN / "bench_cost"
        for _ in range(self.rounds):
            for key, command in (("start", [cost, "start", BIN / "tesk-server"]),
                                 ("empty", [cost, "run", cost, "empty"])):
                program = self.lab.run(command, THEIRS, server.env)
                taken, = program.answer()
                self.lab.end(program)
                self.add("cost start", "start to first answer", "ms",
                         Tesk.name if key == "start" else "floor", taken / 1e6)

    def idle_cost(self):
        server = Tesk(self.lab, THEIRS)
        held = {}
        for what in ("nothing", "board"):
            # The board has a socket of its own.
            env = {**server.env, "DOLM_RIC_SOCKET": str(server.folder / f"idle-{what}")}
            program = self.lab.run([BIN / "bench_cost", what], THEIRS, env)
            program.answer()
            held[what] = anonymous_bytes(program.pid)
            self.lab.end(program)
        total = anonymous_bytes(server.processes[0].pid)
        board = held["board"] - held["nothing"]
        self.note("cost idle", "idle memory, anonymous, without the board", "KiB",
                  (total - board) / 1024)
        self.note("cost board", "what the simulated board adds to it", "KiB", board / 1024)
        self.note("cost threads", "threads, with the board's one", "",
                  len(tasks(server.processes[0].pid)))
        server.end()

    def growing_cost(self):
        clients, ports = 1000, 10000 if self.quick else 65535
        server, program = self.lab.start_growth({"ports": ports})
        pid = server.processes[0].pid

        def now():
            return anonymous_bytes(pid), len(os.listdir(f"/proc/{pid}/fd"))

        program.ask("clients", 1)
        memory, files = now()
        program.ask("clients", clients)
        more_memory, more_files = now()
        program.ask("hold", 0, ports - 1, clients)
        self.note("cost client", "memory of a client", "B", (more_memory - memory) / (clients - 1))
        self.note("cost files", "descriptors of a client", "", (more_files - files) / (clients - 1))
        self.note("cost subscription", "memory of a subscription", "B",
                  (now()[0] - more_memory) / ports / 2)
        self.lab.end_growth((server, program))

    def instructions(self):
        for name, count in count_instructions("bench_mbx_instructions").items():
            self.note(f"mbx instructions {name}", name, "", count)
        counted = count_instructions("bench_instructions")
        untraced = count_instructions("bench_untraced")
        cases = run_cases("bench_instructions", "traces")
        instructions, loads = trace_test()
        self.note("trace test", "the test of a trace that is off, in the executable",
                  "instructions", instructions)
        self.note("trace loads", "its loads: the mask, and a share in the block's address",
                  "", loads)
        for name, count in counted.items():
            self.note(f"instructions {name}", name, "", count)
            self.note(f"trace {name}", name, "",
                      (count - untraced[name]) * cases[name]["times"] / cases[name]["traces"])

    def traces_on(self):
        """The cost of a request with all groups traced to LTTng, against none."""
        with TraceSession(self.lab) as session:
            if not session.works:
                print("bench: no LTTng session can be had here, so its cost is not measured",
                      file=sys.stderr)
                return
            servers = {"off": Tesk(self.lab, THEIRS), "LTTng": Tesk(
                self.lab, THEIRS, env={"ZEL_SINK": "lttng", "ZEL_GROUPS": "all"})}
            clients = {name: server.client(THEIRS) for name, server in servers.items()}
            for _ in range(self.rounds):
                for name, server in servers.items():
                    before = server.cpu_ns()
                    clients[name].ask("calls", CAPABILITIES, self.calls)
                    self.add("traced", "server CPU per request, all groups", "µs", name,
                             (server.cpu_ns() - before) / self.calls / 1000)
            self.lab.end_all()
