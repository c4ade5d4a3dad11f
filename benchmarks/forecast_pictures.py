#!/usr/bin/env python3
# SPDX-License-Identifier: Apache-2.0
"""forecast_pictures - the SVG pictures of docs/forecast.md: a fade with its forecast, a healthy port and
a sudden death, each the first of its class in a folder of generated series, whose truth is beside it.

    forecast_pictures.py DIR        reads DIR/*.csv.gz and DIR-truth.jsonl, runs tesk-exporter --replay
"""
import csv
import gzip
import json
import math
import pathlib
import statistics
import subprocess
import sys

from pictures import text

ROOT = pathlib.Path(__file__).resolve().parent.parent
DAY = 86400
WIDTH, HEIGHT, LEFT, TOP, GAP = 720, 170, 50, 30, 55
PICTURES = {"fade": ("slow_loss", ["rx"]), "healthy": ("room_swing", ["temperature", "rx"]),
            "sudden": ("sudden_death", ["tx"])}
TITLES = {"rx": "received light, dBm", "tx": "transmitted light, dBm",
          "temperature": "temperature, °C"}


def dbm(microwatts):
    return 10 * math.log10(microwatts / 1000)


def read(path, lane):
    """The low alarm limits, the start, and of each value the days and middles of three hours."""
    limits, blocks = {}, {}
    with gzip.open(path, "rt") as file:
        lines = file.read().splitlines()
    for line in lines:
        if line.startswith(("# limit rx_uw ", "# limit tx_uw ")):
            limits[line.split()[2][:2]] = dbm(float(line.split()[3]))
    for row in csv.DictReader(line for line in lines if not line.startswith("#")):
        block = blocks.setdefault(int(row["time"]) // (DAY // 8), {what: [] for what in TITLES})
        for what in limits:
            light = float(row[f"{what}_uw_{lane}"] or 0)
            if light > 0:
                block[what].append(dbm(light))
        if row["temperature_c"]:
            block["temperature"].append(float(row["temperature_c"]))
    first = min(blocks)
    return limits, first * (DAY // 8), {
        what: [((number - first) / 8, statistics.median(block[what]))
               for number, block in sorted(blocks.items()) if block[what]] for what in TITLES}


class Panel:
    def __init__(self, title, points, levels, days):
        values = [value for _, value in points] + levels
        step = 1 if max(values) - min(values) < 8 else 5
        self.low, self.high = (math.floor(min(values) / step) * step,
                               math.ceil(max(values) / step) * step)
        self.days = days
        self.parts = [text(0, -10, title, "start", 'font-weight="bold"')]
        for mark in range(self.low, self.high + 1, step):
            self.parts.append(f'<path d="M0 {self.y(mark):.1f}H{WIDTH}" stroke="#dddddd"/>')
            self.parts.append(text(-6, self.y(mark) + 4, mark, "end"))
        for day in range(0, days + 1, 10):
            self.parts.append(text(self.x(day), HEIGHT + 17, f"day {day}"))
        path = " ".join(f"{self.x(day):.1f},{self.y(value):.1f}" for day, value in points)
        self.parts.append(f'<polyline points="{path}" fill="none" stroke="#1f77b4" stroke-width="1.5"/>')

    def x(self, day):
        return day / self.days * WIDTH

    def y(self, value):
        return HEIGHT - (value - self.low) / (self.high - self.low) * HEIGHT

    def limit(self, value):
        self.parts.append(f'<path d="M0 {self.y(value):.1f}H{WIDTH}" stroke="#d62728" '
                          'stroke-dasharray="6 4"/>')
        self.parts.append(text(4, self.y(value) - 4, "low alarm limit", "start", 'fill="#d62728"'))

    def mark(self, day, content, anchor):
        self.parts.append(f'<path d="M{self.x(day):.1f} 0V{HEIGHT}" stroke="#333333"/>')
        self.parts.append(text(self.x(day) + (4 if anchor == "start" else -4), 12, content, anchor))

    def forecast(self, day, level, told, limit):
        ends = [f"{self.x(min(day + told[end], self.days)):.1f},{self.y(limit):.1f}"
                for end in ("low", "high")]
        self.parts.append(f'<polygon points="{self.x(day):.1f},{self.y(level):.1f} {" ".join(ends)}" '
                          'fill="#ff7f0e" fill-opacity="0.35"/>')
        self.mark(day, f"announced: {told['days_left']:.0f} days left, {told['low']:.0f} to "
                       f"{told['high']:.0f}", "end")

    def svg(self):
        return "".join(self.parts) + (f'<rect width="{WIDTH}" height="{HEIGHT}" fill="none" '
                                      'stroke="#333333"/>')


def draw(panels):
    height = TOP + len(panels) * (HEIGHT + GAP)
    parts = [f'<svg xmlns="http://www.w3.org/2000/svg" viewBox="0 0 {LEFT + WIDTH + 30} {height}" '
             'font-family="sans-serif" font-size="12">'
             f'<rect width="{LEFT + WIDTH + 30}" height="{height}" fill="white"/>']
    for index, panel in enumerate(panels):
        parts.append(f'<g transform="translate({LEFT},{TOP + index * (HEIGHT + GAP)})">'
                     f'{panel.svg()}</g>')
    return "\n".join(parts) + "</svg>\n"


def alarms_of(path):
    lines = subprocess.run([ROOT / "build/release/bin/tesk-exporter", "--replay", path], check=True,
                           stdout=subprocess.PIPE, text=True).stdout.splitlines()
    return [line for line in map(json.loads, lines) if line.get("days_left") is not None]


def picture(path, truth, values):
    lane = truth.get("lane", 1)
    limits, start, series = read(path, lane)
    panels = [Panel(TITLES[what], series[what], [limits[what]] if what in limits else [],
                    round(truth["days"])) for what in values]
    limit = limits[values[-1]]
    panels[-1].limit(limit)
    alarms = alarms_of(path)
    if truth["group"] == "predictable":
        day = (alarms[0]["time"] - start) / DAY
        panels[-1].forecast(day, alarms[0]["level"], alarms[0], limit)
    elif alarms:
        sys.exit(f"forecast_pictures.py: {path} has an alarm: {alarms[0]['reason']}")
    if "alarm" in truth:
        panels[-1].mark((truth["alarm"] - start) / DAY, "the limit is met" if alarms else
                        "it is dead", "start")
    return draw(panels)


def main():
    if len(sys.argv) != 2:
        sys.exit(__doc__)
    folder = pathlib.Path(sys.argv[1])
    with open(f"{folder}-truth.jsonl", encoding="utf-8") as file:
        truths = [json.loads(line) for line in file]
    for name, (wanted, values) in PICTURES.items():  # the first without other troubles
        truth = next(each for each in truths if each["class"] == wanted and each["lanes"] == 1 and not each["with"])
        made = picture(folder / f"{truth['port']}.csv.gz", truth, values)
        (ROOT / "docs" / f"forecast-{name}.svg").write_text(made, encoding="utf-8")


if __name__ == "__main__":
    main()
