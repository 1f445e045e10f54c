#!/usr/bin/env python3
"""Proof that the manager's tests hold: applies one small wrong change at a time to a copy of the manager's
source, links it with the tests as they are, and expects a test to fail.

A change that no test notices is a missing test, unless equivalent.txt lists it with the reason why no test could.
The work tree is never changed.
"""

import argparse
import collections
import concurrent.futures
import pathlib
import queue
import random
import re
import resource
import shlex
import shutil
import subprocess
import sys
import tempfile
import threading

sys.dont_write_bytecode = True  # leave the work tree as it is
from rules import make_mutants  # noqa: E402

ROOT = pathlib.Path(__file__).resolve().parents[2]
FILE = "ntp/ntp_time_manager_impl.cc"
LISTED = pathlib.Path(__file__).with_name("equivalent.txt")
TIME_LIMIT_S = 20  # the tests take a fraction of a second; a change that makes them hang is noticed
MEMORY_LIMIT = 2 << 30
JOBS = 2


def read_listed():
    """The keys of the survivors that are known, each with the reason that follows its group."""
    reasons, keys, group_open = {}, [], False
    for number, line in enumerate(LISTED.read_text().splitlines(), 1):
        if not line.strip() or line.startswith("#"):
            continue
        if not line.startswith(" "):
            keys = keys + [line] if group_open else [line]
            group_open = True
            if line in reasons:
                sys.exit(f"mutants: {LISTED.name}:{number}: listed twice: {line}")
            reasons[line] = ""
            continue
        group_open = False
        for key in keys:
            reasons[key] = f"{reasons[key]} {line.strip()}".strip()
    for key, reason in reasons.items():
        if not reason:
            sys.exit(f"mutants: {LISTED.name}: no reason given for: {key}")
    return reasons


def manager_suites():
    """The suites that test the manager alone: those on its fixture, without whole-system runs."""
    suites = set()
    for path in sorted((ROOT / "tests").rglob("*_test.cc")):
        text = path.read_text()
        if '"testing/manager_fixture.h"' in text and not re.search("scenario|model|walk|stress|seam", path.name):
            suites.update(re.findall(r"^TEST(?:_F|_P)?\((\w+),", text, re.MULTILINE))
    return sorted(suites)


class Runner:
    """Compiles, links and runs one changed file at a time; every thread has a folder of its own."""

    def __init__(self, build):
        self.build = build
        commands = subprocess.run(["ninja", "-t", "commands", "sim_tests"], cwd=build, check=True,
                                  capture_output=True, text=True).stdout.splitlines()
        compile_line = next(c for c in commands if c.endswith(f"-c {ROOT / FILE}"))
        link_line = next(c for c in commands if " -o bin/sim_tests " in c)
        self.compile = self._own_flags(shlex.split(compile_line))
        # The changed object takes the place of the unchanged one.
        self.link = ["OBJECT" if w.endswith(f"{FILE}.o".replace("ntp/", "/", 1)) else w
                     for w in shlex.split(link_line) if w not in (":", "&&")]
        if shutil.which("ld.gold"):
            self.link.append("-fuse-ld=gold")  # half the time of the default one
        self.filter = ":".join(f"{suite}.*:*/{suite}.*" for suite in manager_suites())
        self.folders = queue.Queue()
        self.precompiled = None

    @staticmethod
    def _own_flags(words):
        flags, skip = [], False
        for word in words:
            if skip or word in ("-MD", "-Werror", "-DNDEBUG") or re.match(r"-(W|O|g)", word):
                skip = False
                continue
            if word in ("-MT", "-MF", "-o", "-c"):
                skip = True
                continue
            flags.append(word)
        return flags + ["-O0", "-w"]

    def add_folder(self, path):
        (path / "ntp").mkdir(parents=True)
        self.folders.put(path)

    def precompile(self, folder):
        """The headers cost most of the time; all changes share them."""
        headers = re.findall(r"^#include .*\n", (ROOT / FILE).read_text(), re.MULTILINE)
        header = folder / "headers.h"
        header.write_text("".join(headers))
        subprocess.run(self.compile + ["-x", "c++-header", str(header), "-o", f"{header}.gch"], check=True,
                       cwd=self.build)
        self.precompiled = header

    def run(self, text):
        """killed, survived, or "did not compile", with the output of what decided it."""
        folder = self.folders.get()
        try:
            return self._run_in(folder, text)
        finally:
            (folder / FILE).unlink(missing_ok=True)
            self.folders.put(folder)

    def _run_in(self, folder, text):
        (folder / FILE).write_text(text)
        made = self._call(self.compile + ["-include", str(self.precompiled), "-c", str(folder / FILE), "-o",
                                          str(folder / "changed.o")])
        if made.returncode != 0:
            return "did not compile", made.stdout
        program = folder / "sim_tests"
        words = [str(folder / "changed.o") if w == "OBJECT" else str(program) if w == "bin/sim_tests" else w
                 for w in self.link]
        made = self._call(words)
        if made.returncode != 0:
            return "did not compile", made.stdout
        try:
            ran = self._call([str(program), "--gtest_brief=1", "--gtest_fail_fast", f"--gtest_filter={self.filter}"],
                             timeout=TIME_LIMIT_S, preexec_fn=_limit)
        except subprocess.TimeoutExpired:
            return "killed", "timed out"
        return ("survived" if ran.returncode == 0 else "killed"), ran.stdout

    def _call(self, words, **more):
        return subprocess.run(words, cwd=self.build, stdout=subprocess.PIPE, stderr=subprocess.STDOUT, text=True,
                              errors="replace", **more)


def _limit():
    resource.setrlimit(resource.RLIMIT_AS, (MEMORY_LIMIT, MEMORY_LIMIT))
    resource.setrlimit(resource.RLIMIT_CORE, (0, 0))


def select(mutants, options):
    if options.only:
        mutants = [m for m in mutants if re.search(options.only, m.key)]
    if options.sample:
        seed = options.seed if options.seed is not None else random.SystemRandom().randrange(1 << 32)
        print(f"mutants: {options.sample} of {len(mutants)}, seed {seed}", flush=True)
        mutants = random.Random(seed).sample(mutants, min(options.sample, len(mutants)))
    return mutants


def progress(done, total, counts):
    line = f"mutants: {done}/{total}, killed {counts['killed']}, survived {counts['survived']}"
    if sys.stdout.isatty():
        print(f"\r{line}", end="" if done < total else "\n", flush=True)
    elif done % 50 == 0 or done == total:
        print(line, flush=True)


def run_all(runner, mutants, listed):
    verdicts, counts, lock = {}, collections.Counter(), threading.Lock()

    def one(mutant):
        verdict, output = runner.run(mutant.text)
        with lock:
            verdicts[mutant.key] = verdict
            counts[verdict] += 1
            if verdict == "survived" and mutant.key not in listed:
                print(f"survived (line {mutant.number}): {mutant.key}", flush=True)
            progress(len(verdicts), len(mutants), counts)

    with concurrent.futures.ThreadPoolExecutor(JOBS) as pool:
        list(pool.map(one, mutants))
    return verdicts, counts


def report(everything, mutants, verdicts, counts, listed):
    """Prints the outcome; true when every mutant is killed or listed and the list is up to date."""
    problems = []
    for mutant in mutants:
        verdict = verdicts[mutant.key]
        if verdict != "survived" and mutant.key in listed:
            problems.append(f"listed, but {verdict}: {mutant.key}")
    known = {mutant.key for mutant in everything}
    problems += [f"listed, but there is no such change: {key}" for key in listed if key not in known]
    for problem in problems:
        print(problem)
    survivors = [key for key, verdict in verdicts.items() if verdict == "survived"]
    excused = sum(key in listed for key in survivors)
    print(f"made:                {len(mutants)}")
    print(f"did not compile:     {counts['did not compile']}")
    print(f"killed:              {counts['killed']}")
    print(f"survived and listed: {excused}")
    print(f"survived:            {len(survivors) - excused}")
    return not problems and excused == len(survivors)


def main():
    parser = argparse.ArgumentParser(description=__doc__.split("\n\n")[0])
    parser.add_argument("--list", action="store_true", help="print the changes and stop")
    parser.add_argument("--only", metavar="PATTERN", help="only changes whose line in --list matches")
    parser.add_argument("--sample", metavar="N", type=int, help="only N changes, drawn at random")
    parser.add_argument("--seed", metavar="S", type=int, help="with --sample: draw the same ones again")
    parser.add_argument("--build", metavar="DIR", type=pathlib.Path, default=ROOT / "build/mutants",
                        help="the build folder that holds the tests' objects (default: build/mutants)")
    options = parser.parse_args()

    everything = make_mutants(FILE, (ROOT / FILE).read_text())
    mutants = select(everything, options)
    if options.list:
        print("\n".join(m.key for m in mutants))
        return 0
    listed = read_listed()
    runner = Runner(options.build.resolve())
    with tempfile.TemporaryDirectory(prefix="mutants-", dir=runner.build) as scratch:
        scratch = pathlib.Path(scratch)
        runner.precompile(scratch)
        for job in range(JOBS):
            runner.add_folder(scratch / str(job))
        # Without a change the tests must pass, or every change would count as noticed.
        verdict, output = runner.run((ROOT / FILE).read_text())
        if verdict != "survived":
            print(output)
            print(f"mutants: the unchanged source {verdict}", file=sys.stderr)
            return 2
        verdicts, counts = run_all(runner, mutants, listed)
    return 0 if report(everything, mutants, verdicts, counts, listed) else 1


if __name__ == "__main__":
    sys.exit(main())
