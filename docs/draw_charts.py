#!/usr/bin/env python3
# SPDX-License-Identifier: Apache-2.0
"""Draws docs/scale.svg from docs/scale.json (./dev bench --scale --json FILE) and docs/fleet.svg from docs/fleet.json
(./dev sim --fleet 10000 --json FILE): draw_charts.py [--check]

With --check nothing is written; the exit status is 1 when a drawing is out of date.
"""

import json
import math
import sys

from draw import DOCS, Drawing, update

LEFT, TOP, PLOT_WIDTH, PLOT_HEIGHT, RIGHT = 70, 44, 360, 250, 20
UNITS = {"samples": "one evaluation", "observers": "one outcome", "threads": "20,000 reads by each thread",
         "domains": "one attempt"}


def text_of_us(value):
    for limit, divisor, unit in ((1e3, 1, "us"), (1e6, 1e3, "ms")):
        if value < limit:
            return f"{value / divisor:g} {unit}"
    return f"{value / 1e6:g} s"


class Plot:
    """One plot with logarithmic axes, its upper left corner at (x, y)."""

    def __init__(self, drawing, x, y, x_range, y_range):
        self.drawing, self.x, self.y = drawing, x, y
        self.x_logs, self.y_logs = [[math.log10(end) for end in ends] for ends in (x_range, y_range)]

    def place(self, x_value, y_value):
        (x_low, x_high), (y_low, y_high) = self.x_logs, self.y_logs
        return (round(self.x + PLOT_WIDTH * (math.log10(x_value) - x_low) / (x_high - x_low), 1),
                round(self.y + PLOT_HEIGHT * (y_high - math.log10(y_value)) / (y_high - y_low), 1))

    def frame(self, x_text, y_text):
        self.drawing.parts.append(f'<rect class="room" x="{self.x}" y="{self.y}" width="{PLOT_WIDTH}" '
                                  f'height="{PLOT_HEIGHT}"/>')
        for power in range(math.ceil(self.x_logs[0]), math.floor(self.x_logs[1]) + 1):
            x, _ = self.place(10 ** power, 10 ** self.y_logs[0])
            self.drawing.text(x, self.y + PLOT_HEIGHT + 18, x_text(10 ** power), "faint")
        for power in range(math.ceil(self.y_logs[0]), math.floor(self.y_logs[1]) + 1):
            _, y = self.place(10 ** self.x_logs[0], 10 ** power)
            self.drawing.text(self.x - 6, y + 4, y_text(10 ** power), "faint", "end")
            self.drawing.parts.append(f'<path class="lane" d="M{self.x} {y} H{self.x + PLOT_WIDTH}"/>')

    def curve(self, points, style):
        path = " L".join("{} {}".format(*self.place(*point)) for point in points)
        self.drawing.parts.append(f'<path class="arrow {style}" style="marker-end: none" d="M{path}"/>')

    def dots(self, points):
        for point in points:
            x, y = self.place(*point)
            self.drawing.parts.append(f'<circle cx="{x}" cy="{y}" r="3" style="fill: var(--mark)"/>')


def draw_scale():
    """A plot for each kind of growth, with the line of n log n through its last measurement."""
    measured = json.loads((DOCS / "scale.json").read_text(encoding="utf-8"))
    drawing = Drawing(2 * (LEFT + PLOT_WIDTH + RIGHT), "Processor time as the work grows, with n log n (grey)")
    for i, (name, rows) in enumerate(measured["cost_us"].items()):
        x, y = LEFT + i % 2 * (LEFT + PLOT_WIDTH + RIGHT), TOP + i // 2 * (PLOT_HEIGHT + 80)
        last_n, last_us = rows[-1]
        line = [(n, last_us * n * math.log(n + 1) / (last_n * math.log(last_n + 1))) for n, _ in rows]
        values = [us for _, us in rows] + [us for _, us in line]
        plot = Plot(drawing, x, y, (rows[0][0] / 1.3, last_n * 1.3), (min(values) / 1.5, max(values) * 1.5))
        drawing.text(x, y - 12, f"{name}: {UNITS[name]}", "name", "start")
        plot.frame(lambda n: f"{n:,}", text_of_us)
        plot.curve(line, "")
        plot.curve(rows, "mark")
        plot.dots(rows)
    return drawing.write()


def draw_fleet():
    """Requests per minute over the day; one row of bars for each kind."""
    measured = json.loads((DOCS / "fleet.json").read_text(encoding="utf-8"))
    drawing = Drawing(LEFT + 720 + RIGHT, f"A day of {measured['processes']:,} processes begun within a minute")
    height, y = 110, TOP
    most = max(max(minutes) for minutes in measured["minutes"].values())
    for name, minutes in measured["minutes"].items():
        drawing.text(LEFT, y - 8, f"{name}: requests per minute, at most {max(minutes):,}", "name", "start")
        drawing.parts.append(f'<rect class="room" x="{LEFT}" y="{y}" width="720" height="{height}"/>')
        scale = height / math.log10(most + 1)
        bars = "".join(f"M{LEFT + minute / 2:g} {y + height}v{-scale * math.log10(count + 1):.1f}"
                       for minute, count in enumerate(minutes) if count)
        drawing.parts.append(f'<path class="arrow mark" style="marker-end: none; stroke-width: 0.5" d="{bars}"/>')
        for power in (1, 1000, 1000000):
            level = y + height - scale * math.log10(power + 1)
            if power <= most:
                drawing.text(LEFT - 6, round(level + 4, 1), f"{power:,}", "faint", "end")
        for hour in range(0, 25, 6):
            drawing.text(LEFT + hour * 30, y + height + 16, f"{hour} h", "faint")
        y += height + 58
    return drawing.write()


if __name__ == "__main__":
    sys.exit(update("docs/draw_charts.py", {"scale.svg": draw_scale, "fleet.svg": draw_fleet}))
