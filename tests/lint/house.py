#!/usr/bin/env python3
# SPDX-License-Identifier: Apache-2.0
"""Holds the tree against the rules of the house and prints every place that breaks one: house.py [CHECK...]

Without arguments all checks run. `house.py --list` names them. Exit status 1 when something was found.
"""

import json
import pathlib
import re
import shlex
import subprocess
import sys
import tempfile
from concurrent.futures import ThreadPoolExecutor

ROOT = pathlib.Path(__file__).resolve().parents[2]
JOBS = 2
MAX_FILE_LINES = 800
MAX_FUNCTION_LINES = 70
MAX_COLUMNS = 120

# What a system header's path begins with, and the library that it belongs to. Others with a dot are POSIX's.
LIBRARIES = {"asio": "Asio", "ares": "c-ares", "spdlog/": "spdlog", "fmt/": "spdlog", "toml++/": "toml++",
             "CLI/": "CLI11", "nlohmann/": "nlohmann-json", "gtest/": "GoogleTest", "gmock/": "GoogleTest",
             "rapidcheck": "RapidCheck", "benchmark/": "Google Benchmark"}

PRODUCT = ("c/", "clock/", "ntp/", "transport/", "platform/", "netmodel/", "sim/", "apps/")

# What product code does not call, where it may all the same, and what to use instead.
BANNED = [
    (r"std::chrono::(steady|system|high_resolution)_clock|using std::chrono::\w+_clock",
     ("clock/ntp_clock.h",),  # the type alone, for to_sys and from_sys
     "read the clocks of platform/base/clock.h"),
    (r"\b(getenv|secure_getenv)\s*\(", ("platform/linux/environment.cc",), "read the configuration (platform/config)"),
    (r"\bif_nametoindex\s*\(", ("platform/linux/",), "use the seam in platform/net"),
    (r"\b(usleep|nanosleep|clock_nanosleep|sleep)\s*\(|std::this_thread::sleep_", ("platform/base/fork.cc",),
     "post a delayed task"),
    (r"\bs?rand\s*\(|std::(mt19937|random_device)", (), "use platform/base/random.h"),
    (r"\bclock_gettime\s*\(|\bgettimeofday\s*\(|\btime\s*\((nullptr|NULL|0|&)",
     ("platform/linux/", "platform/base/fork.cc", "platform/base/event.h"),
     "read the clocks of platform/base/clock.h"),
    (r"\btry_acquire_(for|until)\s*\(", (), "wait with platform/base/event.h: libstdc++ 12 does it wrong on 32 bits"),
]

# Names of steady time that do not say so.
TICKS = [
    (r"(\w+)\s*(?:=|\{|\()\s*base::GetSteadyTimeTicks\(\)\s*[;}),]", lambda name: not re.search(r"_ticks_us_?$", name),
     "holds steady ticks, so its name ends in _ticks_us"),
    (r"\b(\w*steady_us_?)\b", lambda name: not re.search(r"(offset_from|minus)_steady_us_?$", name),
     "name steady time ..._ticks_us"),
    (r"\b(\w*_ticks_?)\b(?!\s*\()", lambda name: True, "give ticks their unit: ..._ticks_us"),
    (r"\b(\w*(?:wall|local_time|from_1970|since_1601)\w*_us_?)\s*(?:-|\+|<=?|>=?|==)\s*\w*ticks_us",
     lambda name: True, "wall time and steady ticks do not mix"),
    (r"\b\w*ticks_us_?\s*(?:-|\+|<=?|>=?|==)\s*(\w*(?:wall|local_time)\w*_us_?)\b(?!\()",
     lambda name: not re.search(r"offset|minus", name), "wall time and steady ticks do not mix"),
]

# Words that read oddly in any case of their letters, and better ones.
WORDS = [(r"\banew\b", "again"), (r"\bfor ever\b", "forever"), (r"\bforever[a-z]", "what was replaced here?"),
         (r"\blook(ed)?-ups?\b", "lookup"), (r"\bwhoever\b", "name the actor"),
         (r"\bis willing\b", "name what happens"), (r"\brefuses (a|the) thread\b", "cannot start")]


def tracked(*patterns):
    """The files of the tree that match, those not yet added included, as paths from its root."""
    out = subprocess.run(["git", "ls-files", "-z", "--cached", "--others", "--exclude-standard", *patterns], cwd=ROOT,
                         check=True, capture_output=True, text=True).stdout
    return sorted(p for p in set(out.split("\0")) if p and (ROOT / p).is_file())


def sources():
    return tracked("*.cc", "*.c", "*.h")


def read(path):
    return (ROOT / path).read_text(encoding="utf-8")


def without_texts(line):
    """The code of one line: no comment, no literal."""
    line = re.sub(r'"(\\.|[^"\\])*"', '""', line)
    return re.sub(r"//.*", "", line)


# --- Arrows.


def read_rooms():
    """The table of rooms in docs/architecture.md: folder -> (allows everything, prefixes, text of the row)."""
    rooms, is_inside = {}, False
    for line in read("docs/architecture.md").splitlines():
        if line.startswith("## "):
            is_inside = line == "## Rooms"
        if not is_inside or not line.startswith("| `"):
            continue
        folders, _, may_include, libraries = [cell.strip() for cell in line.strip("|").split(" | ")]
        everything = may_include.startswith("everything")
        for folder in re.findall(r"`([^`]+/)`", folders):
            rooms[folder] = (everything, re.findall(r"`([^`]+)`", may_include), libraries)
    return rooms


def room_of(path, rooms):
    return max((room for room in rooms if path.startswith(room)), key=len, default=None)


def may_include(rooms, room, target):
    everything, named, _ = rooms[room]
    home = room_of(target, rooms)
    hit = home == room or home in named or target in named
    return (home == room or target not in named and home not in named) if everything else hit


def check_arrows():
    """every #include against the table of rooms in docs/architecture.md"""
    rooms = read_rooms()
    if len(rooms) < 10:
        yield "docs/architecture.md: the table of rooms is missing or cannot be read"
        return
    for path in sources():
        room = room_of(path, rooms)
        if room is None:
            yield f"{path}: its folder is not in the table of rooms (docs/architecture.md)"
            continue
        for number, line in enumerate(read(path).splitlines(), 1):
            found = re.match(r'#include ([<"])([^>"]+)[>"]', line)
            if not found:
                continue
            target = found[2]
            library = next((name for start, name in LIBRARIES.items() if target.startswith(start)), None)
            if found[1] == '"' and not library:
                if target.startswith("."):
                    target = str((ROOT / path).parent.joinpath(target).resolve().relative_to(ROOT))
                if room_of(target, rooms) is None:
                    yield f"{path}:{number}: {target} is no file of a room"
                elif not may_include(rooms, room, target):
                    yield f"{path}:{number}: {room} may not include {target}"
                continue
            library = library or ("POSIX" if "." in target else None)
            if library and library not in rooms[room][2] and "any" != rooms[room][2]:
                yield f"{path}:{number}: {room} may not use {library} (<{target}>)"


# --- Sizes.


def check_sizes():
    """files and functions that are too long to read in one sitting"""
    for path in sources() + tracked("*.py", "*.sh", "dev", "*.cmake", "*CMakeLists.txt"):
        lines = read(path).splitlines()
        if len(lines) > MAX_FILE_LINES:
            yield f"{path}: {len(lines)} lines, {MAX_FILE_LINES} at most"
        if path.endswith((".cc", ".c", ".h")):
            for begin, end in functions(lines):
                if end - begin - 1 > MAX_FUNCTION_LINES:
                    yield f"{path}:{begin + 1}: a function of {end - begin - 1} lines, {MAX_FUNCTION_LINES} at most"


def functions(lines):
    """(first, last) line indices of function bodies: the format puts a body's end under its beginning."""
    for begin, line in enumerate(lines):
        code = without_texts(line).rstrip()
        if not code.endswith("{") or not re.search(r"\)[^()]*\{$", code):
            continue
        # The line on which the statement begins has the indentation of the closing brace.
        start = begin
        while start > 0 and code.count(")") > code.count("("):
            start -= 1
            code = without_texts(lines[start]) + code
        indent = len(lines[start]) - len(lines[start].lstrip())
        if indent > 4 or re.match(r"\s*(if|for|while|switch|else|do|catch|try|return|\}|namespace)\b", lines[start]):
            continue
        closing = " " * indent + "}"
        for end in range(begin + 1, len(lines)):
            if lines[end].startswith(closing):
                yield begin, end
                break


def check_width():
    """prose of documents and lines of CMake files that are too wide"""
    for path in tracked("*.md", "*CMakeLists.txt", "*.cmake"):
        is_code = False
        for number, line in enumerate(read(path).splitlines(), 1):
            if path.endswith(".md"):
                is_code ^= line.startswith("```")
                if is_code or line.startswith("|"):
                    continue  # a row of a table is one line
            if len(line) > MAX_COLUMNS:
                yield f"{path}:{number}: {len(line)} columns, {MAX_COLUMNS} at most"


# --- Calls and names.


def check_calls():
    """calls that product code leaves to the seams"""
    for path in sources():
        if not path.startswith(PRODUCT):
            continue
        for number, line in enumerate(read(path).splitlines(), 1):
            code = without_texts(line)
            for pattern, allowed, remedy in BANNED:
                if re.search(pattern, code) and not path.startswith(allowed or "\0"):
                    yield f"{path}:{number}: {code.strip()}: {remedy}"


def check_ticks():
    """steady time that its name does not tell from wall time"""
    for path in sources():
        for number, line in enumerate(read(path).splitlines(), 1):
            for pattern, is_wrong, remedy in TICKS:
                for found in re.finditer(pattern, without_texts(line)):
                    if is_wrong(found[1]):
                        yield f"{path}:{number}: '{found[1]}': {remedy}"


def check_words():
    """words in comments, texts and documents that make a reader stop"""
    for path in sources() + tracked("*.md", "*.py", "*.sh", "dev", "*CMakeLists.txt", "*.cmake"):
        if path.startswith("tests/lint/"):
            continue  # the words themselves
        for number, line in enumerate(read(path).splitlines(), 1):
            for pattern, better in WORDS:
                if found := re.search(pattern, line, re.I):
                    yield f"{path}:{number}: '{found[0]}': {better}"


# --- Licence.


def check_licence():
    """an SPDX line in every source file, and the text of the licence"""
    if "Apache License" not in (read("LICENSE") if (ROOT / "LICENSE").exists() else ""):
        yield "LICENSE: the text of the Apache License 2.0 is missing"
    for path in sources() + tracked("*.py", "*.sh", "dev", ".ci/run", "*.cmake", "*CMakeLists.txt", "*.map"):
        head = "\n".join(read(path).splitlines()[:3])
        if not re.search(r"^(//|#|/\*) SPDX-License-Identifier: Apache-2\.0( \*/)?$", head, re.M):
            yield f"{path}: its first lines lack 'SPDX-License-Identifier: Apache-2.0'"


# --- Documents.


def check_links():
    """links, paths and tests that documents name and that do not exist"""
    tree = tracked()
    known = set(tree) | {f"{parent}/" for path in tree for parent in pathlib.PurePath(path).parents}
    tops = {path.split("/")[0] + "/" for path in tree if "/" in path}
    tests = test_names()
    for path in tracked("*.md"):
        for number, line in enumerate(read(path).splitlines(), 1):
            for target in re.findall(r"\]\(([^)#\s]+)\)", line):
                if not re.match(r"\w+:", target) and not (ROOT / path).parent.joinpath(target).exists():
                    yield f"{path}:{number}: the link {target} leads nowhere"
            for name in re.findall(r"`([\w.+-]+/[\w./+-]*)`", line):
                if name.split("/")[0] + "/" in tops and not {name, name + "/"} & known and "TARGET" not in name:
                    yield f"{path}:{number}: there is no {name}"
            if path == "docs/security.md":
                for name in re.findall(r"`([A-Z]\w{9,}(?:\.\w+)?)`", line):
                    if not all(part in tests for part in name.split(".")):
                        yield f"{path}:{number}: there is no test {name}"


def test_names():
    """Suites, tests and the named rows of tables."""
    text = "\n".join(read(path) for path in sources() if path.startswith(("tests/", "testing/")))
    names = set(re.findall(r"\w+", " ".join(re.findall(r"\bTEST(?:_F|_P)?\(([^)]*)\)", text))))
    names |= set(re.findall(r"\w+", " ".join(re.findall(r"\bINSTANTIATE_TEST_SUITE_P\(([^;]*?\))", text))))
    names |= set(re.findall(r'"([A-Z]\w+)"', text))
    return names | set(re.findall(r"\b[A-Z]\w+Test\b", text))


# --- Headers.


def check_headers():
    """headers that do not compile alone"""
    database = ROOT / "build/dev/compile_commands.json"
    if not database.exists():
        yield "build/dev has no compilation database: run ./dev build dev"
        return
    flags = {}
    for entry in json.loads(database.read_text()):
        words = shlex.split(entry["command"])
        folder = str(pathlib.Path(entry["file"]).parent)
        flags[folder] = [word for i, word in enumerate(words)
                         if word not in ("-c", "-o", entry["file"]) and words[i - 1] != "-o"]
    headers = [h for h in tracked("*.h") if not h.startswith("examples/")]

    def compile_one(header):
        folder = str((ROOT / header).parent)
        while folder not in flags and folder != str(ROOT):
            folder = str(pathlib.Path(folder).parent)
        command = flags.get(folder) or flags[str(ROOT / "tests/system")]
        with tempfile.NamedTemporaryFile("w", suffix=".cc") as unit:
            unit.write(f'#include "{header}"\n')
            unit.flush()
            # Alone, a header's inline functions and constants have no user.
            made = subprocess.run(command + ["-fsyntax-only", "-Wno-unused", unit.name], cwd=ROOT / "build/dev",
                                  capture_output=True, text=True)
        return f"{header}: does not compile alone:\n{made.stderr.strip()[:2000]}" if made.returncode else None

    with ThreadPoolExecutor(JOBS) as pool:
        yield from filter(None, pool.map(compile_one, headers))


CHECKS = {name[len("check_"):]: function for name, function in list(globals().items()) if name.startswith("check_")}


def main():
    wanted = sys.argv[1:] or list(CHECKS)
    if wanted == ["--list"]:
        for name, function in CHECKS.items():
            print(f"{name:10}{function.__doc__}")
        return 0
    if unknown := [name for name in wanted if name not in CHECKS]:
        print(f"house: there is no check '{unknown[0]}'; there are: {', '.join(CHECKS)}", file=sys.stderr)
        return 64
    count = 0
    for name in wanted:
        for problem in CHECKS[name]():
            print(f"{name}: {problem}", flush=True)
            count += 1
    print(f"house: {count} places" if count else "house: nothing found", file=sys.stderr)
    return 1 if count else 0


if __name__ == "__main__":
    sys.exit(main())
