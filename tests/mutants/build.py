# SPDX-License-Identifier: Apache-2.0
"""Builds and runs changed sources with the tests as they are.

Most changes stand inside a function. All of a file's go into one program: each function becomes a switch with its
own body and one changed body for each change, and a number in the environment picks one at the start. A change
outside of functions, of a constant or a default value, has a program of its own.
"""

import concurrent.futures
import os
import pathlib
import re
import resource
import shlex
import shutil
import subprocess

CPU_LIMIT_S = 8  # the tests take a fraction of a second; a change that makes them hang is noticed
TIME_LIMIT_S = 60
MEMORY_LIMIT = 2 << 30
JOBS = 2
LARGEST_BATCH = 160  # changes of one file that share a program
PICKED = "SKORRA_MUTANT"
# A header's inline code is also part of the tests that include it. These see a changed header's records.
RECORD_TESTS = "tests/ntp/manager_state_test.cc"
# What picks the change; on one line, before the file's own text.
PICKER = ("#include <cstdlib>\nnamespace { int PickedMutant() { static const int picked = [] { const char* text = "
          f'std::getenv("{PICKED}"); return text == nullptr ? -1 : std::atoi(text); }}(); return picked; }} }}\n')


def _limit():
    resource.setrlimit(resource.RLIMIT_AS, (MEMORY_LIMIT, MEMORY_LIMIT))
    resource.setrlimit(resource.RLIMIT_CPU, (CPU_LIMIT_S, CPU_LIMIT_S))
    resource.setrlimit(resource.RLIMIT_CORE, (0, 0))


def _own_flags(words):
    """The flags of a compile line without its files, its warnings and its optimisation."""
    flags, skip = [], False
    for word in words:
        if skip or word in ("ccache", "-MD", "-Werror", "-DNDEBUG") or re.match(r"-(W|O|g)", word):
            skip = False
            continue
        if word in ("-MT", "-MF", "-o", "-c"):
            skip = True
            continue
        flags.append(word)
    return flags + ["-O0", "-w"]


class Program:
    """A linked test program, and the changes that it holds by their numbers."""

    def __init__(self, path, mutants):
        self.path = path
        self.mutants = mutants


class Builder:
    def __init__(self, root, build, folder, suites):
        self.root, self.build, self.folder = root, build, folder
        self.filter = ":".join(f"{suite}.*:*/{suite}.*" for suite in suites)
        commands = self._check("ninja", "-t", "commands", "skorra_sim_tests").splitlines()
        self.compile_lines = {}  # by file
        for command in commands:
            source = re.search(rf" -c {re.escape(str(root))}/(ntp/\w+\.cc|{re.escape(RECORD_TESTS)})$", command)
            if source:
                self.compile_lines[source.group(1)] = _own_flags(shlex.split(command))
        self.link_line = self._slim_link_line(next(c for c in commands if " -o bin/sim_tests " in c))
        self.objects = {file: next(w for w in self.link_line if w.endswith(f"/{pathlib.Path(file).name}.o"))
                        for file in self.compile_lines}
        self.users = self._users_of_headers()
        self.precompiled = {}  # by (file, whether it holds the headers of ntp/)

    def _check(self, *words):
        return subprocess.run(words, cwd=self.build, check=True, capture_output=True, text=True).stdout

    def _slim_link_line(self, command):
        """Tests of other rooms only cost time."""
        words = [w for w in shlex.split(command) if w not in ("ccache", ":", "&&")]
        words = [w for w in words
                 if not re.match(r"tests/CMakeFiles/skorra_sim_tests\.dir/(?!ntp/|__/testing/)", w)]
        if shutil.which("ld.lld"):
            words.append("-fuse-ld=lld")
        elif shutil.which("ld.gold"):
            words.append("-fuse-ld=gold")
        return words

    def _users_of_headers(self):
        users = {}
        for file, object_file in self.objects.items():
            for line in self._check("ninja", "-t", "deps", object_file).splitlines():
                header = re.search(r"(?:^|/)(ntp/\w+\.h)$", line.strip())
                if header:
                    users.setdefault(header.group(1), []).append(file)
        return users

    def _run(self, words, **more):
        return subprocess.run(words, cwd=self.build, stdout=subprocess.PIPE, stderr=subprocess.STDOUT, text=True,
                              errors="replace", **more)

    def precompile(self, files_with_own, files_without):
        """The included headers cost most of a compilation; all changes of a file share them."""
        with concurrent.futures.ThreadPoolExecutor(JOBS) as pool:
            wanted = [(f, True) for f in files_with_own] + [(f, False) for f in files_without]
            list(pool.map(lambda w: self._precompile(*w), wanted))

    def _precompile(self, file, with_own):
        pattern = r"^#include .*\n" if with_own else r'^#include (?:<|"platform/).*\n'
        included = "".join(re.findall(pattern, (self.root / file).read_text(), re.MULTILINE))
        if file == RECORD_TESTS:
            included += '#include "gmock/gmock.h"\n#include "gtest/gtest.h"\n'
        header = self.folder / f"{pathlib.Path(file).stem}-{'all' if with_own else 'others'}.h"
        header.write_text(included)
        self._check(*self.compile_lines[file], "-x", "c++-header", str(header), "-o", f"{header}.gch")
        self.precompiled[file, with_own] = header

    def _compile(self, file, source, target, with_own, first_include=None):
        words = list(self.compile_lines[file])
        if first_include is not None:
            words.insert(1, f"-I{first_include}")
        if (file, with_own) in self.precompiled:
            words += ["-include", str(self.precompiled[file, with_own])]
        return self._run(words + ["-c", str(source), "-o", str(target)])

    def _link(self, program, changed):
        """`changed` are objects by the file whose place they take."""
        # First: of a header's inline functions, which other objects hold as they were, the linker takes the first.
        words = list(self.link_line)
        for file in changed:
            words.remove(self.objects[file])
        first = next(i for i, word in enumerate(words) if word.endswith(".o"))
        words[first:first] = map(str, changed.values())
        words[words.index("bin/sim_tests")] = str(program)
        return self._run(words)

    # --- Changes inside functions: many in one program.

    def build_batch(self, file, text, mutants, name):
        """A program with those of the mutants that compile, and the list of the others."""
        folder = self.folder / name
        (folder / "ntp").mkdir(parents=True)
        source, left_out = folder / file, []
        while True:
            batch_text, lines_of = batch_source(text, mutants)
            source.write_text(batch_text)
            made = self._compile(file, source, folder / "changed.o", True)
            if made.returncode == 0:
                break
            wrong = self._mutants_with_errors(made.stdout, source, lines_of)
            if not wrong:
                raise RuntimeError(f"mutants: {file} does not compile\n{made.stdout[:3000]}")
            left_out += [m for m in mutants if m.key in wrong]
            mutants = [m for m in mutants if m.key not in wrong]
        linked = self._link(folder / "sim_tests", {file: folder / "changed.o"})
        if linked.returncode != 0:
            raise RuntimeError(f"mutants: {file} does not link\n{linked.stdout[:3000]}")
        return Program(folder / "sim_tests", mutants), left_out

    @staticmethod
    def _mutants_with_errors(output, source, lines_of):
        wrong = set()
        place = re.compile(rf"^{re.escape(str(source))}:(\d+):\d+:\s+(?:error:|fatal error:|required from)")
        for line in output.splitlines():
            match = place.match(line)
            if match:
                number = int(match.group(1))
                wrong.update(key for first, last, key in lines_of if first <= number <= last)
        return wrong

    # --- Changes outside of functions: one in each program.

    def build_single(self, mutant, name):
        """A program with one change, or what the compiler says."""
        folder = self.folder / name
        (folder / "ntp").mkdir(parents=True)
        is_header = mutant.file.endswith(".h")
        if is_header:
            self._mirror(folder, mutant.file)
        (folder / mutant.file).write_text(mutant.text)
        changed = {}
        for file in self.users.get(mutant.file, []) if is_header else [mutant.file]:
            target = folder / f"{pathlib.Path(file).name}.o"
            if is_header:
                (folder / file).parent.mkdir(parents=True, exist_ok=True)
                shutil.copy(self.root / file, folder / file)
            made = self._compile(file, folder / file, target, not is_header, folder if is_header else None)
            if made.returncode != 0:
                return None, made.stdout
            changed[file] = target
        made = self._link(folder / "sim_tests", changed)
        if made.returncode != 0:
            return None, made.stdout
        return Program(folder / "sim_tests", [mutant]), ""

    def _mirror(self, folder, left_out):
        """The headers around a changed one, which includes some by relative paths and is so included by others."""
        for header in (self.root / "ntp").glob("*.h"):
            if f"ntp/{header.name}" != left_out:
                (folder / "ntp" / header.name).symlink_to(header)
        for room in ("platform", "transport"):
            (folder / room).symlink_to(self.root / room)

    # --- Runs.

    def run(self, program, number=-1):
        """killed or survived, with the output of what decided it."""
        try:
            ran = self._run([str(program.path), "--gtest_brief=1", "--gtest_fail_fast",
                             f"--gtest_filter={self.filter}"], timeout=TIME_LIMIT_S, preexec_fn=_limit,
                            env=os.environ | {PICKED: str(number)})
        except subprocess.TimeoutExpired:
            return "killed", "timed out"
        return ("survived" if ran.returncode == 0 else "killed"), ran.stdout


def batch_source(text, mutants):
    """The file with all of these changes inside, and the lines (first, last, key) where each stands."""
    by_function = {}
    for number, mutant in enumerate(mutants):
        by_function.setdefault(mutant.body, []).append((number, mutant))
    out, position, lines_of = [PICKER], 0, []
    line = PICKER.count("\n") + 1

    def add(piece):
        nonlocal line
        out.append(piece)
        line += piece.count("\n")

    for (start, end, ends_with), changes in sorted(by_function.items()):
        add(text[position:start] + " switch (PickedMutant()) {\n")
        for number, mutant in changes:
            first = line
            changed = text[start:mutant.start] + mutant.new + text[mutant.end:end]
            add(f"case {number}: {{\n{changed}\n}} {ends_with}\n")
            lines_of.append((first, line - 1, mutant.key))
        add(f"default: {{\n{text[start:end]}\n}} {ends_with}\n}}\n")
        position = end
    add(text[position:])
    return "".join(out), lines_of
