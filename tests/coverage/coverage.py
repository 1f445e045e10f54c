#!/usr/bin/env python3
# SPDX-License-Identifier: Apache-2.0
"""Line and branch coverage of ntp/ and transport/ from a build whose tests have run: coverage.py BUILD_FOLDER

Fails when a line, or a branch of a line, was never taken and reasons.txt does not say why.
"""

import collections
import json
import pathlib
import subprocess
import sys
import tempfile

ROOT = pathlib.Path(__file__).resolve().parents[2]
REASONS = pathlib.Path(__file__).with_name("reasons.txt")
# A reason that begins so also holds for a run that took the line.
BY_CHANCE = "By chance: "


def read_reasons():
    """Lines of "file: text of the source line", each group followed by its indented reason."""
    known, group = {}, []
    for line in REASONS.read_text().splitlines():
        if not line.strip() or line.startswith("#"):
            continue
        if line.startswith(" "):
            for key in group:
                known[key] += line.strip()
        else:
            group = group + [line] if group and not known[group[-1]] else [line]
            known[line] = ""
    unexplained = [key for key, reason in known.items() if not reason]
    if unexplained:
        sys.exit(f"coverage: no reason given for: {unexplained[0]}")
    return known


def measure(build):
    with tempfile.TemporaryDirectory() as scratch:
        output = pathlib.Path(scratch, "coverage.json")
        # Branches that only an exception takes are the compiler's: ntp/ has none, and nothing throws across it.
        subprocess.run(["gcovr", "--root", ROOT, "--object-directory", build, "--filter", "ntp/", "--filter",
                        "transport/", "--exclude-throw-branches", "--exclude-unreachable-branches", "--json",
                        output, build], check=True, cwd=ROOT)
        return json.loads(output.read_text())["files"]


def main():
    files = measure(pathlib.Path(sys.argv[1]).resolve())
    reasons = read_reasons()
    used, problems = set(), []
    totals = collections.Counter()
    print(f"{'file':40}{'lines':>14}{'branches':>14}{'explained':>12}")
    for file in sorted(files, key=lambda f: f["file"]):
        counts = collections.Counter()
        source = (ROOT / file["file"]).read_text().splitlines()
        for line in file["lines"]:
            if line.get("gcovr/noncode"):
                continue
            number = line["line_number"]
            key = f"{file['file']}: {source[number - 1].strip()}"
            missed = sum(branch["count"] == 0 for branch in line["branches"])
            counts["lines"] += 1
            counts["lines taken"] += line["count"] > 0
            counts["branches"] += len(line["branches"])
            counts["branches taken"] += len(line["branches"]) - missed
            gaps = missed + (line["count"] == 0)
            if not gaps:
                continue
            if key in reasons:
                used.add(key)
                counts["explained"] += gaps
            else:
                what = "line never ran" if line["count"] == 0 else f"{missed} of {len(line['branches'])} branches"
                problems.append(f"{file['file']}:{number}: {what}: {source[number - 1].strip()}")
        print_row(file["file"], counts)
        totals += counts
    print_row("all", totals)
    problems += [f"explained, but covered or gone: {key}" for key, reason in reasons.items()
                 if key not in used and not reason.startswith(BY_CHANCE)]
    for problem in problems:
        print(problem)
    return 1 if problems else 0


def print_row(name, counts):
    lines = f"{counts['lines taken']}/{counts['lines']}"
    branches = f"{counts['branches taken']}/{counts['branches']}"
    print(f"{name:40}{lines:>14}{branches:>14}{counts['explained']:>12}")


if __name__ == "__main__":
    sys.exit(main())
