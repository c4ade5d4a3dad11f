# SPDX-License-Identifier: Apache-2.0
"""bench - carries out the measurements of ./bench; its usage() lists them."""
import argparse
import signal
import sys
import time

sys.dont_write_bytecode = True
from exporter import measure_exporter  # noqa: E402
from launcher import Failed, Launcher  # noqa: E402
from linux import measure_linux  # noqa: E402
from measure import WAITS, Bench  # noqa: E402
from report import print_report, write_report  # noqa: E402

ITEMS = {
    "requests": lambda bench: bench.requests(),
    "fan-out": lambda bench: [bench.fan_out(count, waits) for count in (1, 10, 100, 1000)
                              for waits in WAITS],
    "growth": lambda bench: bench.growth(),
    "python": lambda bench: bench.python(),
    "costs": lambda bench: bench.costs(),
    "traces": lambda bench: (bench.instructions(), bench.traces_on()),
    "exporter": measure_exporter,
    "details": lambda bench: bench.details(),
    "history": lambda bench: bench.history(),
    "linux": measure_linux,  # the last, as it leaves the network
}


LONGEST = 1190  # seconds; past it something is broken


def end(number, _):
    if number == signal.SIGALRM:
        raise Failed(f"not done after {LONGEST} s")
    sys.exit(128 + number)


def main():
    parser = argparse.ArgumentParser(prog="bench", add_help=False)
    parser.add_argument("--quick", action="store_true")
    parser.add_argument("--write", action="store_true")
    parser.add_argument("--only", action="append", choices=ITEMS, default=[])
    options = parser.parse_args()
    signal.signal(signal.SIGTERM, end)
    signal.signal(signal.SIGALRM, end)
    signal.alarm(LONGEST)
    start = time.monotonic()
    with Launcher() as launcher:
        bench = Bench(launcher, rounds=3 if options.quick else 8, calls=500 if options.quick else 2000,
                      quick=options.quick)
        for name, measure in ITEMS.items():
            if not options.only or name in options.only:
                measure(bench)
                print(f"{time.monotonic() - start:6.1f} s  {name}", file=sys.stderr)
    print_report(bench)
    if options.write:
        write_report(bench)


try:
    main()
except Failed as failure:
    sys.exit(f"bench: {failure}")
except KeyboardInterrupt:
    sys.exit(130)
