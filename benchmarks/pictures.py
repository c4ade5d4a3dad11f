# SPDX-License-Identifier: Apache-2.0
"""pictures - the SVG pictures of docs/performance.md: lines over logarithmic axes."""
import math

COLOURS = ["#777777", "#d62728", "#1f77b4", "#2ca02c", "#9467bd", "#ff7f0e", "#17becf"]
PANEL_WIDTH, PANEL_HEIGHT = 380, 280
LEFT, TOP, GAP, LEGEND_ROW, LEGEND_COLUMNS = 60, 40, 70, 20, 3


class Axis:
    """A logarithmic axis from the lowest to the highest value, with a label at each step."""

    def __init__(self, values, length, steps=(1, 2, 5)):
        low, high = min(values), max(values)
        decades = range(math.floor(math.log10(low)), math.ceil(math.log10(high)) + 1)
        marks = [step * 10.0**decade for decade in decades for step in steps]
        self.low = max((mark for mark in marks if mark <= low * 1.001), default=low)
        self.high = min((mark for mark in marks if mark >= high and mark > self.low), default=high)
        self.marks = [mark for mark in marks if self.low <= mark <= self.high]
        self.length = length

    def place(self, value):
        share = math.log10(value / self.low) / (math.log10(self.high / self.low) or 1)
        return share * self.length


def text(x, y, content, anchor="middle", more=""):
    return f'<text x="{x:.1f}" y="{y:.1f}" text-anchor="{anchor}" {more}>{content}</text>'


def label(value):
    return f"{value:,.0f}" if value >= 1 else f"{value:g}"


def draw_panel(title, x_axis, y_axis, x_labels, lines):
    """`lines` are lists of points; `x_labels` are pairs of a place and its text."""
    parts = [text(x_axis / 2, -14, title, more='font-weight="bold"')]
    for mark in y_axis.marks:
        y = PANEL_HEIGHT - y_axis.place(mark)
        parts.append(f'<path d="M0 {y:.1f}H{x_axis}" stroke="#dddddd"/>')
        parts.append(text(-6, y + 4, label(mark), "end"))
    for place, content in x_labels:
        parts.append(f'<path d="M{place:.1f} {PANEL_HEIGHT}v5" stroke="#333333"/>')
        parts.append(text(place, PANEL_HEIGHT + 19, content))
    for colour, points in lines:
        path = " ".join(f"{x:.1f},{PANEL_HEIGHT - y_axis.place(y):.1f}" for x, y in points)
        parts.append(f'<polyline points="{path}" fill="none" stroke="{colour}" stroke-width="2"/>')
    parts.append(f'<rect width="{x_axis}" height="{PANEL_HEIGHT}" fill="none" stroke="#333333"/>')
    return "".join(parts)


def draw(panels, legend):
    columns = 2
    rows = math.ceil(len(panels) / columns)
    row_height = PANEL_HEIGHT + GAP
    width = columns * (PANEL_WIDTH + GAP) + LEFT - GAP + 30
    legend_top = TOP + rows * row_height
    height = legend_top + math.ceil(len(legend) / LEGEND_COLUMNS) * LEGEND_ROW + 10
    parts = [f'<svg xmlns="http://www.w3.org/2000/svg" viewBox="0 0 {width} {height}" '
             'font-family="sans-serif" font-size="12">'
             f'<rect width="{width}" height="{height}" fill="white"/>']
    for index, panel in enumerate(panels):
        x = LEFT + index % columns * (PANEL_WIDTH + GAP)
        y = TOP + index // columns * row_height
        parts.append(f'<g transform="translate({x},{y})">{panel}</g>')
    for index, (colour, name) in enumerate(legend):
        x = LEFT + index % LEGEND_COLUMNS * (width - LEFT) / LEGEND_COLUMNS
        y = legend_top + index // LEGEND_COLUMNS * LEGEND_ROW
        parts.append(f'<rect x="{x:.1f}" y="{y - 9}" width="14" height="10" fill="{colour}"/>')
        parts.append(text(x + 19, y, name, "start"))
    return "\n".join(parts) + "</svg>\n"


def draw_latencies(latencies, labels):
    """For each measure, the share of the times below each time."""
    percents = [0, 10, 25, 50, 75, 90, 95, 99]
    wanted = ["round trip, capabilities, 1 core", "round trip, capabilities, 2 cores",
              "event to last receipt, 10 subscribers", "event to last receipt, 100 subscribers",
              "event to last receipt, 1,000 subscribers"]
    panels = []
    for title in filter(latencies.get, wanted):
        lines = []
        for colour, name in zip(COLOURS, labels):
            times = sorted(latencies[title][name])
            points = [(percent / 99 * PANEL_WIDTH,
                       times[min(len(times) - 1, len(times) * percent // 100)] / 1000)
                      for percent in range(100)]
            lines.append((colour, points))
        axis = Axis([y for _, points in lines for _, y in points], PANEL_HEIGHT)
        places = [(percent / 99 * PANEL_WIDTH, f"{percent} %") for percent in percents
                  if percent not in (0, 95)]
        panels.append(draw_panel(f"{title}, µs", PANEL_WIDTH, axis, places, lines))
    return draw(panels, list(zip(COLOURS, labels.values())))
