#!/usr/bin/env python3
# SPDX-License-Identifier: Apache-2.0
"""Draws docs/rooms.svg from the table of rooms in docs/architecture.md, and docs/attempt.svg: draw.py [--check]

With --check nothing is written; the exit status is 1 when a drawing is out of date.
"""

import html
import pathlib
import re
import sys

DOCS = pathlib.Path(__file__).resolve().parent

# The colours follow the reader's light or dark page.
STYLE = """
  :root { --ink: #1f2328; --faint: #59636e; --room: #f6f8fa; --line: #8b949e; --mark: #0969da; --page: #ffffff; }
  @media (prefers-color-scheme: dark) {
    :root { --ink: #e6edf3; --faint: #9198a1; --room: #161b22; --line: #6e7681; --mark: #58a6ff; --page: #0d1117; }
  }
  text { fill: var(--ink); font: 13px system-ui, "DejaVu Sans", sans-serif; }
  .name { font: bold 14px ui-monospace, "DejaVu Sans Mono", monospace; }
  .faint { fill: var(--faint); font-size: 12px; }
  .page { fill: var(--page); }
  .room { fill: var(--room); stroke: var(--line); }
  .arrow { stroke: var(--line); fill: none; stroke-width: 1.3; marker-end: url(#head); }
  .mark { stroke: var(--mark); }
  .lane { stroke: var(--line); stroke-dasharray: 3 4; }
"""


class Drawing:
    def __init__(self, width, title):
        self.width, self.height, self.title, self.parts = width, 0, title, []

    def reach(self, y):
        self.height = max(self.height, y)

    def text(self, x, y, words, style="", anchor="middle"):
        self.parts.append(f'<text x="{x}" y="{y}" text-anchor="{anchor}" class="{style}">{html.escape(words)}</text>')
        self.reach(y + 14)

    def label(self, x, y, words, style="faint"):
        """A text that covers what lies under it."""
        width = 6.6 * len(words) + 8
        self.parts.append(f'<rect class="page" x="{x - width / 2}" y="{y - 13}" width="{width}" height="18"/>')
        self.text(x, y, words, style)

    def box(self, x, y, width, height):
        self.parts.append(f'<rect class="room" x="{x}" y="{y}" width="{width}" height="{height}" rx="6"/>')
        self.reach(y + height + 14)

    def arrow(self, points, style=""):
        path = "M" + " L".join(f"{x} {y}" for x, y in points)
        self.parts.append(f'<path class="arrow {style}" d="{path}"/>')

    def line(self, x, top, bottom):
        self.parts.append(f'<path class="lane" d="M{x} {top} V{bottom}"/>')

    def write(self):
        return f"""<svg xmlns="http://www.w3.org/2000/svg" viewBox="0 0 {self.width} {self.height}" role="img">
<title>{self.title}</title>
<style>{STYLE}</style>
<defs><marker id="head" viewBox="0 0 8 8" refX="7" refY="4" markerWidth="8" markerHeight="8" orient="auto">
<path d="M0 0 L8 4 L0 8 z" style="fill: var(--line)"/></marker></defs>
<rect class="page" width="{self.width}" height="{self.height}"/>
""" + "\n".join(self.parts) + "\n</svg>\n"


def read_rooms():
    """Folder -> (what it holds, what it may include), in the order of the table."""
    rooms = {}
    table = (DOCS / "architecture.md").read_text().split("## Rooms")[1].split("\n## ")[0]
    for row in re.findall(r"^\| `.*$", table, re.M):
        folder, holds, includes, _ = [cell.strip() for cell in row.strip("|").split(" | ")]
        rooms[folder.replace("`", "")] = (holds, includes.replace("`", ""))
    return rooms


# Centre and level of each room; the arrows come from the table.
PLACES = {"c/": (620, 0), "clock/": (250, 0), "ntp/": (250, 1), "transport/": (250, 2), "sim/": (620, 1),
          "netmodel/": (620, 2), "platform/": (435, 3), "platform/linux/": (250, 4), "platform/files/": (620, 4)}
ROOM_WIDTH, ROOM_HEIGHT, LEVEL = 230, 52, 96
SHORT = {"c/": "the interface for C", "clock/": "the keeper, and the bound", "ntp/": "when to ask, whom to believe",
         "transport/": "packets, addresses, what may leave", "sim/": "the seams in virtual time",
         "netmodel/": "links and servers, pure functions", "platform/": "facilities and seams: headers",
         "platform/linux/": "the seams on a real machine", "platform/files/": "configuration and log file"}


def draw_rooms():
    rooms = read_rooms()
    drawing = Drawing(870, "The rooms of the house: each arrow is an include that is allowed")
    above = [name for name, (_, includes) in rooms.items() if includes.startswith("everything")]
    if missing := set(rooms) - set(PLACES) - set(above):
        sys.exit(f"draw: PLACES has no place for {missing}")
    for i, name in enumerate(above):
        drawing.text(435, 24 + 18 * i, f"{name}  may include {rooms[name][1]}", "faint")
    top = 24 + 18 * len(above) + 12

    def centre(name):
        x, level = PLACES[name]
        return x, top + LEVEL * level + ROOM_HEIGHT / 2

    for name, (x, level) in PLACES.items():
        y = top + LEVEL * level
        drawing.box(x - ROOM_WIDTH / 2, y, ROOM_WIDTH, ROOM_HEIGHT)
        drawing.text(x, y + 21, name, "name")
        drawing.text(x, y + 40, SHORT[name], "faint")
        for target, headers in includes_of(rooms[name][1]):
            draw_include(drawing, centre(name), centre(target), headers)
    return drawing.write()


def includes_of(cell):
    """Room -> the headers of it that may be included, none when all of them may."""
    headers = {}
    for target in re.findall(r"[\w/.]+[/h](?=,|$)", cell):
        room = target if target in PLACES else target.split("/")[0] + "/"
        headers.setdefault(room, []).extend([] if target == room else [target.split("/")[-1]])
    return headers.items()


def draw_include(drawing, begin, end, headers):
    (x1, y1), (x2, y2) = begin, end
    half = ROOM_HEIGHT / 2
    label = ((x1 + x2) / 2, (y1 + y2) / 2 + (4 if y1 == y2 or x1 == x2 else -1))
    if y1 == y2:
        side = 1 if x2 > x1 else -1
        drawing.arrow([(x1 + side * ROOM_WIDTH / 2, y1), (x2 - side * ROOM_WIDTH / 2, y2)])
    elif x1 == x2 and y2 - y1 > LEVEL:
        edge = x1 - ROOM_WIDTH / 2
        drawing.arrow([(edge, y1), (edge - 10, y1), (edge - 10, y2), (edge, y2)])
    elif x1 == x2:
        drawing.arrow([(x1, y1 + half), (x2, y2 - half)])
    elif y2 > y1 and y2 - y1 > LEVEL:
        # Past the room in between, outside it.
        outside = x1 + (ROOM_WIDTH / 2 + 22) * (1 if x1 > x2 else -1)
        edge = x1 + (ROOM_WIDTH / 2) * (1 if x1 > x2 else -1)
        entry = x2 + (ROOM_WIDTH / 2) * (1 if x1 > x2 else -1)
        drawing.arrow([(edge, y1), (outside, y1), (outside, y2), (entry, y2)])
        label = (outside, y1 + LEVEL / 2 + 4)
    else:
        down = 1 if y2 > y1 else -1
        shift = 50 if x1 > x2 else -50
        drawing.arrow([(x1 - shift / 2, y1 + down * half), (x2 + shift, y2 - down * half)])
    if headers:
        words = f"only {headers[0]}" if len(headers) == 1 else f"only {len(headers)} headers"
        drawing.label(*label, words)


LANES = [("any thread", 80), ("manager", 270), ("packet handler", 480), ("ledger", 670), ("server", 800)]
# (from, to, text), or a note over a lane; None leaves a gap.
STEPS = [
    (0, 1, "Start: a task"),
    ("note", 1, "each domain that is not being asked:"),
    (1, 2, "20 sends, 10 ms apart"),
    (2, 3, "Admit: may it leave?"),
    (2, 4, "request with a random nonce"),
    (4, 2, "reply"),
    ("note", 2, "every check passes, or a counted rejection"),
    (2, 1, "one sample: offset, round trip"),
    ("note", 1, "check every 200 ms: 6 samples, or 3 s?"),
    ("note", 1, "sort by offset, drop a quarter at each end,"),
    ("note", 1, "average the rest, grade it: 0, 1 or -1"),
    (1, 2, "-1: ask the next address"),
    ("note", 1, "0, or no domain left: keep the better of"),
    ("note", 1, "the new and the kept result, count, log"),
    ("note", 1, "observers hear the outcome, on this queue"),
    ("note", 1, "30 s later: close the sockets"),
    (0, 1, "a read: atomics only"),
]


def draw_attempt():
    drawing = Drawing(870, "One sync attempt")
    top, step = 52, 32
    bottom = top + step * len(STEPS) + 6
    for name, x in LANES:
        drawing.box(x - 62, 12, 124, 28)
        drawing.text(x, 31, name)
        drawing.line(x, 40, bottom)
    drawing.text(435, bottom + 18,
                 "Everything but the operations called from any thread runs on the queue of business 701.", "faint")
    for i, (begin, end, words) in enumerate(STEPS):
        y = top + step * i + 16
        if begin == "note":
            x = LANES[end][1]
            drawing.label(max(x, 100), y, words)
            continue
        x1, x2 = LANES[begin][1], LANES[end][1]
        drawing.arrow([(x1, y + 4), (x2, y + 4)], "mark")
        drawing.label((x1 + x2) / 2, y - 3, words, "")
    drawing.reach(bottom + 32)
    return drawing.write()


def update(script, drawings):
    """Writes each drawing that is out of date; with --check, only names the first. Returns the exit status."""
    stale = []
    for name, draw in drawings.items():
        path, content = DOCS / name, draw()
        if not path.exists() or path.read_text(encoding="utf-8") != content:
            stale.append(name)
            if "--check" not in sys.argv:
                path.write_text(content, encoding="utf-8")
    if stale and "--check" in sys.argv:
        print(f"docs/{stale[0]} is out of date: run {script}", file=sys.stderr)
        return 1
    return 0


if __name__ == "__main__":
    sys.exit(update("docs/draw.py", {"rooms.svg": draw_rooms, "attempt.svg": draw_attempt}))
