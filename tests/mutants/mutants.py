#!/usr/bin/env python3
# SPDX-License-Identifier: Apache-2.0
"""Proof that the manager's tests hold: applies one small wrong change at a time to a copy of a file of ntp/,
links it with the tests as they are, and expects a test to fail.

A change that no test notices is a missing test, unless equivalent.txt lists it with the reason why no test could.
The work tree is never changed.
"""

import argparse
import collections
import concurrent.futures
import dataclasses
import itertools
import pathlib
import random
import re
import shutil
import sys
import tempfile
import threading

sys.dont_write_bytecode = True  # leave the work tree as it is
from build import JOBS, LARGEST_BATCH, Builder  # noqa: E402
from rules import make_mutants  # noqa: E402

ROOT = pathlib.Path(__file__).resolve().parents[2]
LISTED = pathlib.Path(__file__).with_name("equivalent.txt")


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
    """The suites that test the manager and its decisions alone, without whole-system runs."""
    suites = set()
    for path in sorted((ROOT / "tests/ntp").glob("*_test.cc")):
        suites.update(re.findall(r"^TEST(?:_F|_P)?\((\w+),", path.read_text(), re.MULTILINE))
    return sorted(suites)


def all_mutants():
    files = sorted(p for p in (ROOT / "ntp").iterdir() if p.suffix in (".cc", ".h"))
    return [m for path in files for m in make_mutants(f"ntp/{path.name}", path.read_text())]


def select(mutants, options):
    if options.only:
        mutants = [m for m in mutants if re.search(options.only, m.key)]
    if options.sample:
        seed = options.seed if options.seed is not None else random.SystemRandom().randrange(1 << 32)
        print(f"mutants: {options.sample} of {len(mutants)}, seed {seed}", flush=True)
        mutants = random.Random(seed).sample(mutants, min(options.sample, len(mutants)))
    return mutants


class Run:
    """Every mutant's verdict: killed, survived, or "did not compile"."""

    def __init__(self, builder, mutants, listed, scratch):
        self.builder, self.mutants, self.listed, self.scratch = builder, mutants, listed, scratch
        self.verdicts, self.counts = {}, collections.Counter()
        self.lock, self.names = threading.Lock(), itertools.count()

    def all(self):
        batched, single = collections.defaultdict(list), []
        for mutant in self.mutants:
            batched[mutant.file].append(mutant) if mutant.body else single.append(mutant)
        jobs = []
        for file, mutants in batched.items():
            # Changes of one function stay together.
            mutants.sort(key=lambda m: m.body)
            for first in range(0, len(mutants), LARGEST_BATCH):
                jobs.append((self._batch, file, mutants[first:first + LARGEST_BATCH]))
        # Precompiling pays from the third compilation on.
        with_all = collections.Counter(job[1] for job in jobs if job[0] == self._batch)
        with_all.update(m.file for m in single if m.file.endswith(".cc"))
        without = collections.Counter(f for m in single for f in self.builder.users.get(m.file, []))
        self.builder.precompile(*([file for file, count in sorted(c.items()) if count > 2]
                                  for c in (with_all, without)))
        if single:
            # A header's takes every step that another one takes, and more.
            self._expect_unchanged_passes(min(single, key=lambda m: not m.file.endswith(".h")))
        jobs += [(self._single, mutant) for mutant in single]
        with concurrent.futures.ThreadPoolExecutor(JOBS) as pool:
            for job in [pool.submit(*job) for job in jobs]:
                job.result()

    def _note(self, mutant, verdict):
        with self.lock:
            self.verdicts[mutant.key] = verdict
            self.counts[verdict] += 1
            if verdict == "survived" and mutant.key not in self.listed:
                print(f"survived (line {mutant.number}): {mutant.key}", flush=True)
            done, total = len(self.verdicts), len(self.mutants)
            line = f"mutants: {done}/{total}, killed {self.counts['killed']}, survived {self.counts['survived']}"
            if sys.stdout.isatty():
                print(f"\r{line}", end="" if done < total else "\n", flush=True)
            elif done % 100 == 0 or done == total:
                print(line, flush=True)

    def _batch(self, file, mutants):
        name = f"batch{next(self.names)}"
        program, left_out = self.builder.build_batch(file, (ROOT / file).read_text(), mutants, name)
        for mutant in left_out:
            self._note(mutant, "did not compile")
        # Without a change the tests must pass, or every change would count as noticed.
        verdict, output = self.builder.run(program)
        if verdict != "survived":
            raise RuntimeError(f"mutants: the unchanged {file} is {verdict}\n{output}")
        for number, mutant in enumerate(program.mutants):
            self._note(mutant, self.builder.run(program, number)[0])
        shutil.rmtree(self.scratch / name)

    def _expect_unchanged_passes(self, mutant):
        """The unchanged file must compile and pass, or our own trouble would count as that of the changes."""
        same = dataclasses.replace(mutant, text=(ROOT / mutant.file).read_text())
        program, output = self.builder.build_single(same, "unchanged")
        if program is None:
            raise RuntimeError(f"mutants: the unchanged {mutant.file} does not compile\n{output[:3000]}")
        verdict, output = self.builder.run(program)
        if verdict != "survived":
            raise RuntimeError(f"mutants: the unchanged {mutant.file} is {verdict}\n{output}")
        shutil.rmtree(self.scratch / "unchanged")

    def _single(self, mutant):
        name = f"single{next(self.names)}"
        program, _ = self.builder.build_single(mutant, name)
        self._note(mutant, self.builder.run(program)[0] if program else "did not compile")
        shutil.rmtree(self.scratch / name)


def report(everything, run, listed):
    """Prints the outcome; true when every mutant is killed or listed and the list is up to date."""
    problems = []
    for mutant in run.mutants:
        verdict = run.verdicts[mutant.key]
        if verdict != "survived" and mutant.key in listed:
            problems.append(f"listed, but {verdict}: {mutant.key}")
    known = {mutant.key for mutant in everything}
    problems += [f"listed, but there is no such change: {key}" for key in listed if key not in known]
    if run.counts["killed"] + run.counts["survived"] == 0:
        problems.append("no change could be tried")
    for problem in problems:
        print(problem)
    survivors = [key for key, verdict in run.verdicts.items() if verdict == "survived"]
    excused = sum(key in listed for key in survivors)
    print(f"made:                {len(run.mutants)}")
    print(f"did not compile:     {run.counts['did not compile']}")
    print(f"killed:              {run.counts['killed']}")
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

    everything = all_mutants()
    mutants = select(everything, options)
    if not mutants:
        print("mutants: there is no such change; --list prints them all", file=sys.stderr)
        return 2
    if options.list:
        print("\n".join(m.key for m in mutants))
        return 0
    listed = read_listed()
    build = options.build.resolve()
    with tempfile.TemporaryDirectory(prefix="mutants-", dir=build) as scratch:
        builder = Builder(ROOT, build, pathlib.Path(scratch), manager_suites())
        run = Run(builder, mutants, listed, pathlib.Path(scratch))
        try:
            run.all()
        except RuntimeError as error:
            print(error, file=sys.stderr)
            return 2
    return 0 if report(everything, run, listed) else 1


if __name__ == "__main__":
    sys.exit(main())
