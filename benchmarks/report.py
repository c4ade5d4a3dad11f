# SPDX-License-Identifier: Apache-2.0
"""report - the tables of a run, what of the goals is met, and docs/performance.md."""
import datetime
import os
import platform
import subprocess

from lab import ROOT, SYSTEMS, Tesk
from pictures import draw_growth, draw_latencies

LABELS = {system.name: system.label for system in SYSTEMS}
PEERS = [system.name for system in SYSTEMS if system.name not in ("floor", "tesk")]


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


def request_goals(series):
    for what in ("capabilities, 1 core", "PM counters, 1 core"):
        for key in (f"trip {what}", f"cpu {what}"):
            yield at_most(series[key].title, series[key].ratio(Tesk.name), 1.25)
    cpu, rate = series["cpu flight 1 core"], series["rate 1 core"]
    yield at_most(cpu.title, cpu.ratio(Tesk.name), 1.2)
    yield Goal(rate.title, with_unit(rate.ratio(Tesk.name), "times the floor"), "at least 0.85",
               rate.ratio(Tesk.name) >= 0.85)


def fan_out_goals(series):
    for subscribers, limit, peers in ((100, 1.25, PEERS), (1000, 1.45, ["dbus", "sdbus", "grpc"]),
                                      (1000, None, ["redis"])):
        cpu = series.get(f"fan cpu {subscribers}")
        if cpu is None:
            continue
        if limit is not None:
            yield at_most(cpu.title, cpu.ratio(Tesk.name), limit)
        yield below(cpu.title + ("" if limit else ", the prize"), cpu, peers)
    for subscribers in (10, 100, 1000):
        if time := series.get(f"fan time {subscribers}"):
            yield below(time.title, time, PEERS)


def growth_goals(series):
    for each in series.values():
        if each.key.startswith("growth loss"):
            smallest = series["growth loss 100"]
            if each is not smallest:
                yield at_most(each.title, each.value("grown") / smallest.value("grown"), 1.3,
                              "times that with 100")
        elif each.key.startswith("growth"):
            yield at_most(each.title, each.ratio("grown", "small"), 1.3, "times the smallest")


def cost_goals(series):
    for key, limit, unit in (("cost idle", 1024, "KiB"), ("cost client", 2048, "B"),
                             ("cost subscription", 256, "B")):
        yield at_most(series[key].title, series[key].value(Tesk.name), limit, unit)
    start = series["cost start"]
    yield at_most(start.title + ", beyond an empty program",
                  start.value(Tesk.name) - start.value("floor"), 10, "ms")


def all_goals(series):
    parts = (("trip capabilities, 1 core", request_goals), ("fan cpu 100", fan_out_goals),
             ("growth loss 100", growth_goals), ("cost idle", cost_goals))
    for key, goals in parts:
        if key in series:
            yield from goals(series)
    if test := series.get("trace test"):
        yield at_most(test.title, test.value(Tesk.name), 3, "instructions")


def table_of_systems(series, *prefixes):
    """A row for each measure, a column for each system: the median, and its ratio to the floor."""
    rows = [["", *(LABELS[system.name] for system in SYSTEMS)]]
    for each in series.values():
        if not each.key.startswith(prefixes):
            continue
        title = f"{each.title}, {each.unit}" if each.unit else each.title
        rows.append([title, *(f"{number(each.value(system.name))} ({each.ratio(system.name):.2f})"
                              for system in SYSTEMS)])
    return rows


def table_of_python(series):
    """A row for each client: its medians, and their ratio to the C library's."""
    measures = [series[key] for key in ("python trip", "python p99") if key in series]
    rows = [["", *(f"{each.title}, {each.unit}" for each in measures)]]
    for name in measures[0].rounds if measures else ():
        rows.append([name, *(f"{number(each.value(name))} ({each.ratio(name, 'libtesk_client'):.2f})"
                             for each in measures)])
    return rows


def table_of_growth(series):
    rows = [["", "smallest case", "this case", "ratio"]]
    for each in series.values():
        if not each.key.startswith("growth"):
            continue
        smallest = "small" in each.rounds
        rows.append([each.title, with_unit(each.value("small"), each.unit) if smallest else "",
                     with_unit(each.value("grown"), each.unit),
                     f"{each.ratio('grown', 'small'):.2f}" if smallest else ""])
    return rows


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
            # Where it walks, the compiler's choices about the loop outweigh the traces.
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


def table_of_goals(goals):
    return [["", "measure", "reached", "goal"],
            *([goal.mark, goal.title, goal.reached, goal.wanted] for goal in goals)]


def sections(bench):
    series = bench.series
    yield "Goals", table_of_goals(all_goals(series))
    yield ("Requests: median of the rounds, and its ratio to the bare socket",
           table_of_systems(series, "trip", "p99", "cpu", "rate", "calls"))
    yield ("Fan-out: median of the rounds, and its ratio to the bare socket",
           table_of_systems(series, "fan"))
    yield "Growth: whole operations", table_of_growth(series)
    yield ("Python: PM counters, median of the rounds, and its ratio to the C library",
           table_of_python(series))
    yield "Cost", table_of_costs(series)
    yield "Instructions of the server's own modules", table_of_instructions(series)
    yield "Instructions of the mailbox library, in user space", table_of_mbx_instructions(series)
    yield "Traces", table_of_traces(series)


def print_table(rows):
    widths = [max(len(row[column]) for row in rows) for column in range(len(rows[0]))]
    for row in rows:
        print("  ".join(cell.ljust(width) for cell, width in zip(row, widths)).rstrip())


def print_report(bench):
    for heading, rows in sections(bench):
        if len(rows) > 1:
            print(f"\n{heading}\n{'=' * len(heading)}")
            print_table(rows)
    goals = list(all_goals(bench.series))
    over = sum(goal.mark == "OVER" for goal in goals)
    print(f"\n{len(goals) - over} goals met, {over} over")


def output_of(*command):
    return subprocess.run(command, capture_output=True, text=True).stdout.strip()


def describe_machine():
    with open("/proc/cpuinfo", encoding="ascii") as lines:
        model = next((line.split(":")[1].strip() for line in lines
                      if line.startswith("model name")), platform.machine())
    memory = os.sysconf("SC_PAGE_SIZE") * os.sysconf("SC_PHYS_PAGES") / 2**30
    packages = output_of("dpkg-query", "-W", "-f", "${Package} ${Version}, ", "dbus", "libsystemd0",
                         "redis-server", "libhiredis-dev", "libgrpc++-dev")
    return (f"{model}, {os.cpu_count()} cores, {memory:.0f} GiB, Linux {platform.release()}, "
            f"{output_of('g++', '--version').splitlines()[0]}; {packages.rstrip(', ')}")


PREFACE = """# Performance

Written by `./bench --write` on {date}, {rounds} rounds.

Machine: {machine}.

All systems run at once and take turns round by round, each as its own documentation advises, with
signals of the same sizes; a server hears of its event through a second thread. The bare socket is a
SOCK_SEQPACKET program with one epoll loop on both sides and nothing in its signals. Our client waits
on epoll for its answers, and a subscriber, which only listens, in mbx_receive. A ratio is taken within
a round; the median of the rounds stands here. "One core" has client and server on the same
core, and so have all fan-outs; what is timed across two cores doesn't repeat on such machines, and is
no goal. Server CPU is that of all processes that serve: with D-Bus the daemon and the service, with
Redis its server and the publisher; the thread that plays the board is left out everywhere.

Growth compares lower quartiles. A subscription is answered by two signals, and whether the client
runs between them, which costs some 4 µs for the switches, is the scheduler's choice: it falls one way
in most cycles of one round and the other way in the next, with one client as with 1,000.
"""


def markdown(rows):
    lines = ["| " + " | ".join(row) + " |" for row in rows]
    lines.insert(1, "|---" * len(rows[0]) + "|")
    return "\n".join(lines)


def write_report(bench):
    docs = ROOT / "docs"
    docs.mkdir(exist_ok=True)
    text = PREFACE.format(date=datetime.date.today().isoformat(), rounds=bench.rounds,
                          machine=describe_machine())
    pictures = {"Requests": ("performance-latency.svg", draw_latencies(bench.latencies, LABELS),
                             "Distribution of the times"),
                "Growth": ("performance-growth.svg", draw_growth(bench.series),
                           "Time of whole operations against the smallest case")}
    for heading, rows in sections(bench):
        text += f"\n## {heading}\n\n"
        for start, (file, picture, title) in pictures.items():
            if heading.startswith(start):
                (docs / file).write_text(picture)
                text += f"![{title}]({file})\n\n"
        text += markdown(rows) + "\n"
    (docs / "performance.md").write_text(text)
