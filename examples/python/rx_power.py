#!/usr/bin/python3
# SPDX-License-Identifier: Apache-2.0
"""Records the receive power of ports in a table, by default once a minute for a day, and draws it
where matplotlib is installed (python3-matplotlib). Ctrl-C ends it early and draws the readings so far.

    rx_power.py 0 3 --table rx_power.csv --plot rx_power.svg
"""
from __future__ import annotations

import argparse
import asyncio
import csv
import datetime
import pathlib
import sys

import tesk_client


def say(text: str) -> None:
    print(f"rx_power: {text}", file=sys.stderr)


def port_names(numbers: list[int]) -> list[str]:
    """The names of the port map, else the numbers."""
    try:
        names = tesk_client.ports()
    except tesk_client.NoPortMapError:
        names = {}
    return [names.get(number, f"port {number}") for number in numbers]


async def read(session: tesk_client.AsyncSession, port: int) -> float | None:
    """In dBm; None without light, a module or an answer."""
    try:
        return (await session.pm(port)).rx_power_dbm
    except tesk_client.TeskError as error:
        say(f"port {port}: {error}")
        return None


async def record(ports: list[int], table: pathlib.Path, every_s: float, hours: float) -> None:
    """Writes a line for each reading of all ports. A restart of the server only leaves a gap."""
    loop = asyncio.get_running_loop()
    end = loop.time() + hours * 3600
    with table.open("x", newline="", encoding="ascii") as file:
        lines = csv.writer(file)
        lines.writerow(["time", *port_names(ports)])
        async with tesk_client.AsyncSession() as session:
            while loop.time() < end:
                began = loop.time()
                powers = await asyncio.gather(*(read(session, port) for port in ports))
                now = datetime.datetime.now(datetime.timezone.utc)
                lines.writerow([now.isoformat(timespec="seconds"), *(
                    "" if power is None else f"{power:.2f}" for power in powers)])
                file.flush()
                await asyncio.sleep(began + every_s - loop.time())


def draw(table: pathlib.Path, plot: pathlib.Path) -> None:
    """Draws the table; a gap stays a gap."""
    try:
        import matplotlib  # type: ignore[import]
        matplotlib.use("Agg")
        from matplotlib import pyplot
    except ImportError:
        say(f"python3-matplotlib isn't installed: no plot, but {table}")
        return
    with table.open(newline="", encoding="ascii") as file:
        (_, *names), *lines = csv.reader(file)
    times = [datetime.datetime.fromisoformat(line[0]) for line in lines]
    figure, axes = pyplot.subplots(figsize=(10, 4))
    for column, name in enumerate(names, 1):
        axes.plot(times, [float(line[column] or "nan") for line in lines], label=name)
    axes.set_ylabel("receive power, dBm")
    axes.legend()
    axes.grid(alpha=0.3)
    figure.autofmt_xdate()
    figure.savefig(plot, bbox_inches="tight")
    print(f"{len(lines)} readings in {table}, drawn in {plot}")


def main() -> None:
    parser = argparse.ArgumentParser(description="Records the receive power of ports and draws it.")
    parser.add_argument("ports", metavar="PORT", type=int, nargs="+")
    parser.add_argument("--hours", type=float, default=24.0, help="how long; 24")
    parser.add_argument("--every", type=float, default=60.0, help="seconds between readings; 60")
    parser.add_argument("--table", type=pathlib.Path, default=pathlib.Path("rx_power.csv"))
    parser.add_argument("--plot", type=pathlib.Path, default=pathlib.Path("rx_power.svg"),
                        help="the file; its name gives the format: .svg, .png, .pdf")
    options = parser.parse_args()
    try:
        asyncio.run(record(options.ports, options.table, options.every, options.hours))
    except KeyboardInterrupt:
        pass
    except FileExistsError:
        sys.exit(f"rx_power: {options.table} is there already: give another --table")
    except (tesk_client.TeskError, OSError, ValueError) as error:
        sys.exit(f"rx_power: {error}")
    draw(options.table, options.plot)


if __name__ == "__main__":
    main()
