# SPDX-License-Identifier: Apache-2.0
"""report - the tables of a run, the goals, and docs/performance.md."""
import datetime
import os
import platform
import subprocess

import exporter
from launcher import FAN_OUT_SYSTEMS, ROOT, SYSTEMS, FloorInEpoll, Tesk, TeskWithoutUring
from pictures import draw_latencies

LABELS = {system.name: system.label for system in SYSTEMS}
PEERS = [system.name for system in SYSTEMS if system.name not in ("floor", "tesk")]
WAIT_TITLES = {"epoll": "clients wait in epoll_wait", "read": "clients block in a receive"}


def number(value):
    return f"{value:,.0f}" if abs(value) >= 1000 else f"{value:.3g}"


def with_unit(value, unit):
    return f"{number(value)} {unit}".rstrip()


class Goal:
    def __init__(self, title, reached, wanted, met):
        self.title, self.reached, self.wanted = title, reached, wanted
        self.mark = "PASS" if met else "OVER"


def at_most(title, value, limit, unit="times the floor"):
    return Goal(title, with_unit(value, unit), f"at most {limit:,} {unit}".rstrip(), value <= limit)


def below(title, series, peers):
    ratios = {peer: series.ratio(Tesk.name, peer) for peer in peers}
    closest = max(ratios, key=ratios.get)
    return Goal(title, f"{ratios[closest]:.2f} times {LABELS[closest]}",
                "below " + ("every peer" if peers == PEERS else
                            ", ".join(LABELS[peer] for peer in peers)), ratios[closest] < 1)


# The goals against the floor, whose clients wait in epoll_wait. Those of fan-outs are compared with
# subscribers of ours that do the same, and with ones that block in a receive.
FLOOR_GOALS = {
    "trip capabilities, 1 core": 0.80, "cpu capabilities, 1 core": 0.80,
    "trip PM counters, 1 core": 0.80, "cpu PM counters, 1 core": 0.80, "cpu flight 1 core": 0.30,
    "fan time 1": 1.0, "fan time 10": 0.95, "fan cpu 100": 0.66, "fan time 100": 0.71,
    "fan cpu 1000": 0.71, "fan time 1000": 0.76}
# The same without io_uring.
PLAIN_GOALS = {"fan cpu 100": 0.95, "fan time 100": 0.83, "fan cpu 1000": 0.87,
               "fan time 1000": 0.81}
# Below every other system, whichever way the clients wait.
PEER_GOALS = ("fan cpu 100", "fan cpu 1000", "fan time 10", "fan time 100", "fan time 1000")


def floor_goals(series):
    for name, suffix, goals in ((Tesk.name, "", FLOOR_GOALS),
                                (TeskWithoutUring.name, ", without io_uring", PLAIN_GOALS)):
        for key, limit in goals.items():
            if each := series.get(f"{key} epoll"):
                yield at_most(each.title + suffix, each.ratio(name), limit)
            if key.startswith("fan") and (each := series.get(f"{key} read")):
                yield at_most(f"{each.title}{suffix}; blocked in a receive",
                              each.ratio(name, FloorInEpoll.name), limit)


def peer_goals(series):
    for key in PEER_GOALS:
        for waits, title in WAIT_TITLES.items():
            if each := series.get(f"{key} {waits}"):
                yield below(f"{each.title}; {title}", each, PEERS)


def redis_goals(series):
    if rate := series.get("rate 2 cores epoll"):
        ratio = rate.ratio(Tesk.name, "redis")
        yield Goal(rate.title, with_unit(ratio, "times Redis"), "at least 1.5 times Redis",
                   ratio >= 1.5)
    if connecting := series.get("connect epoll"):
        yield at_most(connecting.title, connecting.ratio(Tesk.name, "redis"), 1.2, "times Redis")


def growth_goals(series):
    if "growth loss 100" not in series:
        return
    for each in series.values():
        if each.key.startswith("growth loss"):
            smallest = series["growth loss 100"]
            if each is not smallest:
                yield at_most(each.title, each.value("grown") / smallest.value("grown"), 1.3,
                              "times that with 100")
        elif each.key.startswith("growth"):
            yield at_most(each.title, each.ratio("grown", "small"), 1.3, "times the smallest")


def cost_goals(series):
    if "cost idle" not in series:
        return
    for key, limit, unit in (("cost idle", 1024, "KiB"), ("cost client", 2048, "B"),
                             ("cost subscription", 256, "B"), ("cost files", 4, ""),
                             ("cost memory connected", 18, "KiB"),
                             ("cost memory exchanged", 26, "KiB")):
        yield at_most(series[key].title, series[key].value(Tesk.name), limit, unit)
    start = series["cost start"]
    yield at_most(start.title + ", beyond an empty program",
                  start.value(Tesk.name) - start.value("floor"), 10, "ms")


def exporter_goals(series):
    if "exporter cpu" not in series:
        return
    for key, limit, unit in (("exporter cpu", 10, "ms"), ("exporter lanes cpu", 20, "ms"),
                             ("exporter memory", 13312, "KiB"),
                             ("exporter idle", 0.5, "%"), ("exporter event", 50, "ms")):
        yield at_most("exporter with 512 ports: " + series[key].title,
                      series[key].value("exporter"), limit, unit)


def details_goals(series):
    if "details update" not in series:
        return
    for key, limit in (("details update", 2), ("details read", 3000)):
        yield at_most(series[key].title, series[key].value("details"), limit, "µs")
    yield at_most(series["falls burst"].title, series["falls burst"].value("details"), 20, "ms")


def history_goals(series):
    if "history size" not in series:
        return
    for key, limit in (("size", 256), ("memory", 32), ("hour", 1), ("weeks", 20), ("written", 40),
                       ("syncs", 1)):
        each = series[f"history {key}"]
        yield at_most(f"history: {each.title}", each.value("history"), limit, each.unit)


def linux_goals(series):
    if "linux event" not in series:
        return
    for key, limit in (("event", 1.2), ("flaps", 1.2), ("pm", 1.2), ("status", 1.2)):
        each = series[f"linux {key}"]
        yield at_most(each.title, each.ratio("linux"), limit, "times the reference")
    for key, limit in (("cpu", 1), ("memory", 4096)):
        each = series[f"linux idle {key}"]
        yield at_most(each.title, each.value("linux"), limit, each.unit)
    yield at_most(series["linux storm"].title, series["linux storm"].value("linux"), 20, "ms")


def all_goals(series):
    for goals in (floor_goals, redis_goals, peer_goals, growth_goals, cost_goals, exporter_goals,
                  details_goals, history_goals, linux_goals):
        yield from goals(series)
    if test := series.get("trace test"):
        yield at_most(test.title, test.value(Tesk.name), 3, "instructions")


# The figures that docs/performance.md begins with.
SUMMARY = ("trip capabilities, 1 core epoll", "cpu capabilities, 1 core epoll",
           "rate 2 cores epoll", "connect epoll", "fan cpu 100 epoll", "fan time 100 epoll",
           "fan time 1000 epoll", "cost memory exchanged", "cost idle", "cost start")


def table_of_summary(series):
    """A row for each figure: of the server, and how many times the floor it and Redis are."""
    rows = [["", "tesk-server", "times the bare socket", "Redis, times the bare socket"]]
    for each in filter(None, map(series.get, SUMMARY)):
        ratios = ([f"{each.ratio(name):.2f}" for name in (Tesk.name, "redis")]
                  if "redis" in each.rounds else ["", ""])
        rows.append([each.title, with_unit(each.value(Tesk.name), each.unit), *ratios])
    return rows


def table_of_systems(series, waits, systems, *prefixes):
    """A row for each measure, a column for each system: the median, and its ratio to the floor."""
    rows = [["", *(system.label for system in systems)]]
    for each in series.values():
        if not (each.key.startswith(prefixes) and each.key.endswith(f" {waits}")):
            continue
        title = f"{each.title}, {each.unit}" if each.unit else each.title
        rows.append([title, *(f"{number(each.value(system.name))} ({each.ratio(system.name):.2f})"
                              for system in systems)])
    return rows


def table_of_python(series):
    """A row for each client: its medians, and their ratio to those of the C library."""
    measures = [series[key] for key in ("python trip", "python p99") if key in series]
    rows = [["", *(f"{each.title}, {each.unit}" for each in measures)]]
    for name in measures[0].rounds if measures else ():
        rows.append([name, *(f"{number(each.value(name))} ({each.ratio(name, 'libtesk_client'):.2f})"
                             for each in measures)])
    return rows


def compared(each, name, reference):
    """A row with a figure beside its reference, where it has one."""
    has_reference = reference in each.rounds
    return [each.title, with_unit(each.value(reference), each.unit) if has_reference else "",
            with_unit(each.value(name), each.unit),
            f"{each.ratio(name, reference):.2f}" if has_reference else ""]


def table_of_growth(series):
    return [["", "smallest case", "this case", "ratio"],
            *(compared(each, "grown", "small")
              for each in series.values() if each.key.startswith("growth"))]


def table_of_costs(series):
    rows = [["", "tesk-server"]]
    rows += [[each.title, with_unit(each.value(Tesk.name), each.unit)]
             for each in series.values() if each.key.startswith("cost")]
    if start := series.get("cost start"):
        rows.append(["an empty program, start to end", with_unit(start.value("floor"), "ms")])
    return rows


def table_of_instructions(series):
    rows = [["", "instructions", "more than without traces, for each that is off"]]
    for each in series.values():
        if each.key.startswith("instructions"):
            traced = series[f"trace {each.title}"].value(Tesk.name)
            # In a long loop the compiler's choices outweigh the traces.
            rows.append([each.title, number(each.value(Tesk.name)),
                         "" if "1000" in each.title else number(traced)])
    return rows


def table_of_mbx_instructions(series):
    return [["", "instructions"], *([each.title, number(each.value(Tesk.name))]
                                    for each in series.values()
                                    if each.key.startswith("mbx instructions"))]


def table_of_traces(series):
    rows = [["", "tesk-server"]]
    for key in ("trace test", "trace loads"):
        if test := series.get(key):
            rows.append([test.title, with_unit(test.value(Tesk.name), test.unit)])
    if traced := series.get("traced"):
        rows += [[f"{traced.title}: {name}", with_unit(traced.value(name), traced.unit)]
                 for name in traced.rounds]
    return rows


def table_of_exporter(series):
    rows = [["", *exporter.SYSTEMS.values()]]
    for each in series.values():
        if each.key.startswith("exporter"):
            rows.append([each.title, *(with_unit(each.value(name), each.unit)
                                       if name in each.rounds else "" for name in exporter.SYSTEMS)])
    return rows


def table_of_details(series):
    return [["", "a JSON file for each port", "details", "ratio"],
            *(compared(each, "details", "JSON")
              for each in series.values() if each.key.startswith("details"))]


def table_of_history(series):
    return [["", "history"],
            *([each.title, with_unit(each.value("history"), each.unit)]
              for each in series.values() if each.key.startswith("history"))]


def table_of_linux(series):
    """The reference is a bare listener, few flaps, or the simulated board."""
    return [["", "reference", "Linux board", "ratio"],
            *(compared(each, "linux", "floor")
              for each in series.values() if each.key.startswith("linux"))]


def table_of_goals(goals):
    return [["", "measure", "reached", "goal"],
            *([goal.mark, goal.title, goal.reached, goal.wanted] for goal in goals)]


def sections(bench):
    """Headings and tables of the report, in its order."""
    series = bench.series
    yield "In short", table_of_summary(series)
    for waits, title in WAIT_TITLES.items():
        yield (f"Requests; {title}",
               table_of_systems(series, waits, SYSTEMS, "trip", "p99", "cpu", "rate", "calls",
                                "connect"))
    for waits, title in WAIT_TITLES.items():
        yield f"Fan-out; {title}", table_of_systems(series, waits, FAN_OUT_SYSTEMS[waits], "fan")
    yield "Growth: whole operations", table_of_growth(series)
    yield ("Python: PM counters, median of the rounds, and its ratio to the C library",
           table_of_python(series))
    yield "Cost", table_of_costs(series)
    yield "Instructions of the server's own modules", table_of_instructions(series)
    yield "Instructions of the mailbox library, in user space", table_of_mbx_instructions(series)
    yield "Traces", table_of_traces(series)
    yield f"The exporter with {exporter.PORTS} ports", table_of_exporter(series)
    yield "The details of 512 ports, 8 lanes each", table_of_details(series)
    yield "The history of 512 ports, 8 lanes each", table_of_history(series)
    yield "The board library for Linux", table_of_linux(series)
    yield "Goals", table_of_goals(all_goals(series))


def print_table(rows):
    widths = [max(len(row[column]) for row in rows) for column in range(len(rows[0]))]
    for row in rows:
        print("  ".join(cell.ljust(width) for cell, width in zip(row, widths)).rstrip())


def print_report(bench):
    for heading, rows in sections(bench):
        if len(rows) > 1:
            print(f"\n{heading}\n{'=' * len(heading)}")
            print_table(rows)
    print(f"\n{describe_goals(bench.series)}")


def output_of(*command):
    return subprocess.run(command, capture_output=True, text=True).stdout.strip()


def describe_machine():
    with open("/proc/cpuinfo", encoding="ascii") as lines:
        model = next((line.split(":")[1].strip() for line in lines
                      if line.startswith("model name")), platform.machine())
    memory = os.sysconf("SC_PAGE_SIZE") * os.sysconf("SC_PHYS_PAGES") / 2**30
    packages = output_of("dpkg-query", "-W", "-f", "${Package} ${Version}, ", "dbus", "libsystemd0",
                         "redis-server", "libhiredis-dev")
    return (f"{model}, {os.cpu_count()} cores, {memory:.0f} GiB, Linux {platform.release()}, "
            f"{output_of('g++', '--version').splitlines()[0]}; {packages.rstrip(', ')}")


TITLE = """# Performance

Written by `./bench --write` on {date}, {rounds} rounds. {met}

Machine: {machine}.
"""

METHOD = """
## Method

All systems run at once and take turns round by round, each as its own documentation advises, with
signals of the same sizes. A server receives an event through a second thread. The bare socket is a
SOCK_SEQPACKET program with an epoll loop in the server and signals without content. A ratio is taken
within a round; the tables have the median of the rounds, and in parentheses its ratio to the bare
socket whose clients wait in the same way.

Clients and subscribers wait in one of two ways, the same for all systems of a table: in epoll_wait
followed by a receive, as a program with an event loop does, or blocked in one receive call, which saves
a system call. sd-bus blocks in ppoll instead of a receive. On one core a client that blocks in a receive
has less to do than the server, and so preempts it at each answer: with 64 in flight it takes them one by
one, at half the rate, where the other takes many in a row.

With "1 core" client and server share a core, as in all fan-outs and when connecting. Round trips
across two cores do not repeat on virtual machines and are no goal. Server CPU is that of all processes
that serve: the daemon and the service of D-Bus, the server and the publisher of Redis. The board's
thread is left out everywhere. Connecting lasts until the server's first answer: with tesk-server the
confirmation of the connection, else the answer to a first request.

Connecting misses its goal of 1.2 times Redis. Of 115 µs, measured once step by step on one core, 55 are
what a plain connection takes here, too: a socket, an epoll, connect, accept, a message each way and the
switches between the processes. Of the rest the client's mailbox, the answer with what is shared, and
the checks of it take 18, mapping the shared memory 15, and watching the control connection, the bell
and the server's process 12. 15 go to the first signal's way over the server's helper thread, since a
client must not be able to wake a server before it has sent anything. None of these can go without a
promise of [security.md](security.md).

In a fan-out libmbx leaves most wake-ups to a second thread of the sender, which makes them all by one
system call through io_uring when the sender has sent to all. Without io_uring (before Linux 5.18, in a
sandbox that refuses it, with `MBX_IO_URING=0`) the sender makes them one by one: the fan-outs have a
column for that. Up to twelve receivers are woken one by one.

The goals of fan-outs were set with subscribers that block in a receive, beside a bare socket whose
subscribers wait in epoll_wait. Each is listed for both ways of waiting of ours; the second table has the
bare socket in both. Where both wait in epoll_wait, each of 100 subscribers takes 6.6 µs: 0.5 the board
and its threads, 0.4 the server's sending, 1.6 the wake-up, and 4 the subscriber itself. It switches
processes once and calls epoll_wait twice, as the mailbox's descriptor is an epoll, too, which a receive
has to empty. An eventfd in its place would be emptied by a shorter call, but peers that ring it could
take a wake-up back. With 1,000 subscribers the wake-up takes 2.9 µs, as the kernel's records of each
have left the caches; that ratio moves with what else uses them (0.76 to 0.88 in runs minutes apart).

A round trip takes three system calls on each side, as with the bare socket: 0.82 times its time for
capabilities and 0.84 for PM counters. What keeps it above 0.80 is what the bare server doesn't do: the
answer's content (0.2 µs more for PM counters than for capabilities) and the instructions of the library
that are listed below. A client's ring by a read that the server can't block costs 0.05 µs.

Memory per client is the private and shared memory of both sides, their page tables, and the growth of
the kernel's slabs. Other work of the machine changes these, too: a round may be 10 KiB off, so the table
has the median of the rounds. Half of it are the kernel's objects: the control connection, and each
side's watches of it, of its bell and of the other's process. The rest is one page that the rings of
both directions share, and the records of the two libraries. The server's descriptors are those that
the second half of 1,000 clients takes, since a few belong to the server as a whole: the parts of the
next connection, and after the first fan-out, that of io_uring.

Growth compares lower quartiles. A subscription is answered by two signals. The scheduler decides
whether the client runs between them, which costs some 4 µs for the switches, with one client as with
1,000.

On the Linux board the listener and the subscriber print the same line. The listener has the kernel's
message at once. The subscriber's indication passes the library's thread, the server's two threads and
another process, all on one core here, and the server reads the link afresh for it: that promise alone
costs two questions to the kernel and two switches of threads. In a trace of one rise the 189 µs from
the kernel's wake-up to the line, of which the listener needs 36, were: message decoded 43, event
handed to the server's main thread 50, fresh read 50 (the two questions 34), indication 16, subscriber
30. So 1.2 times the listener can't be reached while a read asks the kernel; without that read it would
still be missed.

The flaps are made with one subscriber. The few of the reference give the server the capped pairs, and
a read for each event. While a link flaps on, each read makes the kernel settle the carrier and send a
message of its own, and each 200 ms one more pair follows: that is what remains above the reference.
"""


def markdown(rows):
    lines = ["| " + " | ".join(row) + " |" for row in rows]
    lines.insert(1, "|---" * len(rows[0]) + "|")
    return "\n".join(lines)


def describe_goals(series):
    goals = list(all_goals(series))
    over = sum(goal.mark == "OVER" for goal in goals)
    return f"{len(goals) - over} goals met, {over} over"


def write_report(bench):
    docs = ROOT / "docs"
    docs.mkdir(exist_ok=True)
    text = TITLE.format(date=datetime.date.today().isoformat(), rounds=bench.rounds,
                        machine=describe_machine(),
                        met=f"{describe_goals(bench.series)}: see the end of the page.")
    pictures = {"Requests": ("performance-latency.svg", draw_latencies(bench.latencies, LABELS),
                             "Distribution of the times")}
    for heading, rows in sections(bench):
        if len(rows) == 1:
            continue
        text += f"\n## {heading}\n\n"
        if start := next(filter(heading.startswith, pictures), None):
            file, picture, title = pictures.pop(start)
            (docs / file).write_text(picture)
            text += f"![{title}]({file})\n\n"
        text += markdown(rows) + "\n"
        if heading == "In short":
            text += METHOD
    (docs / "performance.md").write_text(text)
