#!/usr/bin/env python3
# SPDX-License-Identifier: Apache-2.0
"""Draws docs/scale.svg from docs/scale.json (./dev bench --scale --json FILE), docs/fleet.svg from docs/fleet.json
(./dev sim --fleet 10000 --json FILE) and docs/clocks.svg from docs/clocks.json (./dev sim --clocks --json FILE):
draw_charts.py [--check]

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


CLOCKS_STYLE = """<style>
  :root { --manager: #bc4c00; }
  @media (prefers-color-scheme: dark) { :root { --manager: #f0883e; } }
  .bound { fill: var(--line); fill-opacity: 0.3; }
  .manager { stroke: var(--manager); fill: none; }
  .clock { stroke: var(--mark); fill: none; stroke-width: 2; }
  polygon.manager { fill: var(--manager); fill-opacity: 0.4; }
</style>"""
CLOCKS_WIDTH, CLOCKS_HEIGHT = 800, 160


class ClocksPlot:
    """One plot of errors in milliseconds over a time, its upper left corner at (LEFT, y)."""

    def __init__(self, drawing, y, length, low_ms, high_ms):
        self.drawing, self.y, self.length, self.low_ms, self.high_ms = drawing, y, length, low_ms, high_ms

    def level(self, ms):
        return round(self.y + CLOCKS_HEIGHT * (self.high_ms - ms) / (self.high_ms - self.low_ms), 1)

    def points(self, times, errors_us):
        return [f"{LEFT + CLOCKS_WIDTH * time / self.length:.1f},{self.level(us / 1000):.1f}"
                for time, us in zip(times, errors_us)]

    def frame(self, title, times, unit):
        self.drawing.text(LEFT, self.y - 10, title, "name", "start")
        self.drawing.parts.append(f'<rect class="room" x="{LEFT}" y="{self.y}" width="{CLOCKS_WIDTH}" '
                                  f'height="{CLOCKS_HEIGHT}"/>')
        for ms in range(self.low_ms, self.high_ms + 1, 100):
            self.drawing.text(LEFT - 6, self.level(ms) + 4, f"{ms} ms", "faint", "end")
            self.drawing.parts.append(f'<path class="lane" d="M{LEFT} {self.level(ms)} H{LEFT + CLOCKS_WIDTH}"/>')
        for time in times:
            self.drawing.text(round(LEFT + CLOCKS_WIDTH * time / self.length, 1), self.y + CLOCKS_HEIGHT + 17,
                              f"{time} {unit}", "faint")

    def band(self, style, times, least_us, most_us):
        outline = self.points(times, least_us) + self.points(times, most_us)[::-1]
        self.drawing.parts.append(f'<polygon class="{style}" points="{" ".join(outline)}"/>')

    def line(self, style, times, errors_us):
        self.drawing.parts.append(f'<polyline class="{style}" points="{" ".join(self.points(times, errors_us))}"/>')


def draw_clocks():
    """The manager's reading and the clock with a bound, less the true time: 30 days, and the first of them."""
    measured = json.loads((DOCS / "clocks.json").read_text(encoding="utf-8"))
    month, day = measured["days_30_us"], measured["first_day_us"]
    drawing = Drawing(LEFT + CLOCKS_WIDTH + RIGHT, "The errors of the manager's reading and of the clock with a bound")
    drawing.parts.append(CLOCKS_STYLE)
    x = LEFT
    for style, words in (("manager", "the manager's reading"), ("clock", "the clock's best estimate"),
                         ("bound", "its limits: the truth, 0, lies between them")):
        drawing.parts.append(f'<rect class="{style}" x="{x}" y="14" width="22" height="10"/>' if style == "bound" else
                             f'<path class="{style}" d="M{x} 19 h22"/>')
        drawing.text(x + 28, 24, words, "", "start")
        x += 60 + 7 * len(words)
    low_ms = 100 * (min(month["earliest_least"]) // 100000)
    high_ms = -100 * (-max(month["latest_most"]) // 100000)

    plot = ClocksPlot(drawing, 66, 30, low_ms, high_ms)
    plot.frame("Least and most error in every two hours of 30 days", range(0, 31, 5), "d")
    hours_2 = [measured["span_s"] / 86400 * (i + 0.5) for i in range(len(month["clock_least"]))]
    plot.band("bound", hours_2, month["earliest_least"], month["latest_most"])
    plot.band("manager", hours_2, month["manager_least"], month["manager_most"])
    plot.band("clock", hours_2, month["clock_least"], month["clock_most"])

    plot = ClocksPlot(drawing, 66 + CLOCKS_HEIGHT + 68, 24, low_ms, high_ms)
    plot.frame("The first day, every three minutes", range(0, 25, 4), "h")
    steps = [measured["step_s"] / 3600 * i for i in range(len(day["clock"]))]
    plot.band("bound", steps, day["earliest"], day["latest"])
    plot.line("manager", steps, day["manager"])
    plot.line("clock", steps, day["clock"])
    return drawing.write()


if __name__ == "__main__":
    sys.exit(update("docs/draw_charts.py", {"scale.svg": draw_scale, "fleet.svg": draw_fleet,
                                            "clocks.svg": draw_clocks}))
