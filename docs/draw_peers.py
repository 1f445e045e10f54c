#!/usr/bin/env python3
# SPDX-License-Identifier: Apache-2.0
"""Draws docs/peers.svg from docs/peers.json, which ./dev bench --peers --json writes: draw_peers.py [--check]

With --check nothing is written; the exit status is 1 when the drawing is out of date.
"""

import json
import math
import sys

from draw import DOCS, Drawing, update

PANELS = [("loopback", "time_s", "time to the first result", 1e3, "ms"), ("loopback", "cpu_s", "CPU time", 1e3, "ms"),
          ("loopback", "memory_kib", "peak memory", 1 / 1024, "MiB"), ("loopback", "calls", "system calls", 1, ""),
          ("symmetric", "mean_error_s", "mean error, 5 ms of jitter both ways", 1e6, "us"),
          ("one-sided", "mean_error_s", "mean error, 10 ms of jitter one way", 1e6, "us")]
LEFT, BAR, WIDTH = 190, 360, 640


def draw():
    results = json.loads((DOCS / "peers.json").read_text(encoding="utf-8"))
    drawing = Drawing(WIDTH, "One sync of skorra-ntp, chronyd and ntpdig")
    y = 24
    for network, key, title, scale, unit in PANELS:
        rows = {name: row[key] * scale for name, row in results[network].items() if row.get(key)}
        drawing.text(12, y, f"{title} ({network})", "name", "start")
        most, least = max(rows.values()), min(rows.values())
        for name, value in rows.items():
            y += 20
            # Logarithmic; the shortest bar is a twentieth of the longest.
            share = 1.0 if most == least else 0.05 + 0.95 * math.log(value / least) / math.log(most / least)
            drawing.text(LEFT - 8, y, name, "", "end")
            style = "mark" if name.startswith("skorra") else "arrow"
            drawing.parts.append(f'<rect x="{LEFT}" y="{y - 11}" width="{BAR * share:.1f}" height="13" '
                                 f'class="room {style}" style="marker-end: none"/>')
            drawing.text(LEFT + BAR * share + 6, y, f"{value:.3g} {unit}".rstrip() if value < 1000
                         else f"{value:.0f} {unit}".rstrip(), "faint", "start")
        y += 34
    drawing.reach(y)
    return drawing.write()


if __name__ == "__main__":
    sys.exit(update("docs/draw_peers.py", {"peers.svg": draw}))
