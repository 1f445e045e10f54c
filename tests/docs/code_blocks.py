#!/usr/bin/env python3
# SPDX-License-Identifier: Apache-2.0
"""Takes the code blocks out of the documents, builds them as a fresh consumer would, and runs them.

    cmake   is a part of the consumer's CMakeLists.txt
    cpp, c  is the next source file that an add_executable of the document's cmake blocks names; it is compiled,
            linked and run, on an empty network that holds one NTP server: a test must pass, any other program must
            print the time. The first reply of that server lies (first_reply_lies.py), so a program that does not
            wait for an outcome prints a wrong time
    toml    is a configuration file, which the program must read without a warning
    sh      is run line by line, except for the commands of NOT_RUN; what is in build/release/bin/ is taken from the
            folder of SKORRA_NTP_PROGRAM
    text    is left alone

Every other language fails, so that no block goes unread. Exit status 77 where this machine makes no network
namespaces: then all is done but running the programs.

usage: code_blocks.py SKORRA_NTP_PROGRAM WORK_FOLDER [-DOPTION=VALUE...]
"""
import os
import pathlib
import re
import shutil
import subprocess
import sys
import time

SOURCE = pathlib.Path(__file__).resolve().parents[2]
DOCUMENTS = ["README.md", "CONTRIBUTING.md"] + sorted(str(p.relative_to(SOURCE)) for p in SOURCE.glob("docs/*.md"))

# Commands that are not run here, each with its reason.
NOT_RUN = {
    "./dev demo": "part of the CI run, right before the tests",
    "./dev lint": "part of the CI run, right before the tests",
    "./dev test": "runs this test",
}

BIN = "build/release/bin/"
TIME_TOLERANCE_S = 1
SKIPPED = 77

# The server that the README's program names; it answers in a network namespace of its own.
SERVER = "192.0.2.1"
SERVER_PROGRAM = SOURCE / "tests/embed/first_reply_lies.py"
ON_EMPTY_NETWORK = f"""
set -e
ip link set lo up
ip address add {SERVER}/32 dev lo
{SERVER_PROGRAM} {SERVER}:123 0 >server.log &
server=$!
trap 'kill "$server"; wait "$server"' EXIT
until grep -q listening server.log; do kill -0 "$server"; done
"$@"
"""


class Block:
    def __init__(self, document, line, language, text, before):
        self.place, self.language, self.text = f"{document}:{line}", language, text
        self.before = before  # the paragraph above it


def fail(text):
    sys.exit(f"code_blocks: {text}")


def run(*command, folder, **more):
    done = subprocess.run([str(word) for word in command], cwd=folder, stdout=subprocess.PIPE,
                          stderr=subprocess.STDOUT, text=True, timeout=400, check=False, **more)
    if done.returncode != 0:
        fail(f"{command} ended with {done.returncode}:\n{done.stdout}")
    return done.stdout


def blocks_of(document):
    lines = (SOURCE / document).read_text().splitlines()
    found, begin = [], None
    for number, line in enumerate(lines):
        if not line.startswith("```"):
            continue
        if begin is None:
            begin = number
            continue
        before = " ".join(lines[max(0, begin - 4):begin])
        text = "\n".join(lines[begin + 1:number]) + "\n"
        found.append(Block(document, begin + 1, lines[begin][3:].strip(), text, before))
        begin = None
    if begin is not None:
        fail(f"{document}:{begin + 1}: the block has no end")
    return found


def commands(block):
    """The block's commands without their comments."""
    for line in block.text.splitlines():
        command = re.sub(r"(^|\s)#.*", "", line).strip()
        if command:
            yield command


def write_consumer(blocks_by_document, consumer):
    """Writes the consumer's files. Returns its programs, each as (name, whether it is a test)."""
    consumer.mkdir(parents=True)
    (consumer / "skorra-ntp").symlink_to(SOURCE)
    cmake = ["cmake_minimum_required(VERSION 3.25)", "project(consumer LANGUAGES C CXX)"]
    programs = []
    add_ours = "add_subdirectory(skorra-ntp)\n"
    for document, blocks in blocks_by_document.items():
        parts = [block.text for block in blocks if block.language == "cmake"]
        executables = re.findall(r"add_executable\((\S+) (\S+)\)", "".join(parts))
        # Each document must stand alone; here they share one build of the library.
        if executables and "".join(parts).count(add_ours) != 1:
            fail(f"{document}: its cmake blocks do not say {add_ours.strip()} once")
        if add_ours in "".join(cmake):
            parts = [part.replace(add_ours, "") for part in parts]
        sources = [block for block in blocks if block.language in ("cpp", "c")]
        if len(sources) != len(executables):
            fail(f"{document}: {len(sources)} blocks of source for {len(executables)} programs: {executables}")
        for block, (program, name) in zip(sources, executables):
            if f"`{name}`" not in (SOURCE / document).read_text():
                fail(f"{document}: does not say which text is {name}")
            if (consumer / name).exists():
                fail(f"{block.place}: there is a file {name} already")
            (consumer / name).write_text(block.text)
            programs.append((program, "gtest/gtest.h" in block.text))
            expect_same_as_file(block)
        cmake += parts
    (consumer / "CMakeLists.txt").write_text("\n".join(cmake))
    return programs


def expect_same_as_file(block):
    """A block that says it is a file of the repository is that file, without the comment at its top."""
    named = re.search(r"This is `([^`]+)`", block.before)
    if not named:
        return
    text = re.sub(r"\A(//.*\n|\n)*", "", (SOURCE / named[1]).read_text())
    if text.strip() != block.text.strip():
        fail(f"{block.place}: the block is not {named[1]}")


def has_empty_networks():
    probe = subprocess.run(["unshare", "--map-root-user", "--net", "ip", "link", "set", "lo", "up"], check=False,
                           stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
    return probe.returncode == 0


def run_consumer(programs, build):
    for program, is_test in programs:
        begin_s = time.time()
        output = run("unshare", "--map-root-user", "--net", "sh", "-c", ON_EMPTY_NETWORK, "sh",
                     build / program, folder=build)
        if is_test:
            if not re.search(r"^\[  PASSED  \] [1-9]", output, re.MULTILINE):
                fail(f"{program} passed no test:\n{output}")
        else:
            expect_time(program, output, begin_s)
        print(f"{program}: {output.splitlines()[-1]}")


def expect_time(program, output, begin_s):
    """The server tells this machine's own time."""
    times_s = [int(line) / 1e6 for line in re.findall(r"^\d+$", output, re.MULTILINE)]
    end_s = time.time()
    if not times_s or not all(begin_s - TIME_TOLERANCE_S <= t <= end_s + TIME_TOLERANCE_S for t in times_s):
        fail(f"{program} does not print the time, which is between {begin_s} s and {end_s} s:\n{output}")


def run_command(command, skorra_ntp):
    if command.startswith(BIN):
        command = f"{skorra_ntp.parent}/{command.removeprefix(BIN)}"
    if not run("sh", "-ec", command, folder=SOURCE):
        fail(f"'{command}' prints nothing")


def expect_good_configuration(skorra_ntp, block, work):
    """The program reads the file before it asks a server; there is none, so it ends without a result."""
    (work / "config.toml").write_text(block.text)
    done = subprocess.run([str(skorra_ntp), "sync", "--timeout", "0.01", "127.0.0.1:9"], stdout=subprocess.PIPE,
                          stderr=subprocess.STDOUT, text=True, timeout=60, check=False,
                          env={**os.environ, "SKORRA_NTP_CONFIG": str(work / "config.toml")})
    if "warning" in done.stdout or not done.stdout:
        fail(f"{block.place}: {done.stdout}")
    print(f"{block.place}: read without a warning")


def main():
    if len(sys.argv) < 3:
        fail(__doc__)
    skorra_ntp, work = pathlib.Path(sys.argv[1]).resolve(), pathlib.Path(sys.argv[2]).resolve()
    shutil.rmtree(work, ignore_errors=True)
    blocks_by_document = {document: blocks_of(document) for document in DOCUMENTS}
    programs = write_consumer(blocks_by_document, work / "consumer")
    count, ran, not_run = 0, 0, set()
    for block in sum(blocks_by_document.values(), []):
        count += 1
        if block.language == "toml":
            expect_good_configuration(skorra_ntp, block, work)
        elif block.language == "sh":
            for command in commands(block):
                if command in NOT_RUN:
                    not_run.add(command)
                else:
                    run_command(command, skorra_ntp)
                    ran += 1
                print(f"{block.place}: {command}: " + NOT_RUN.get(command, "ran"))
        elif block.language not in ("cmake", "cpp", "c", "text"):
            fail(f"{block.place}: nothing is known of the language '{block.language}'")
    if not programs or not ran:
        fail(f"the documents hold {len(programs)} programs and {ran} commands that can be run")
    if unused := NOT_RUN.keys() - not_run:
        fail(f"NOT_RUN names commands that no document holds: {', '.join(sorted(unused))}")
    build = work / "consumer/build"
    run("cmake", "-G", "Ninja", "-S", work / "consumer", "-B", build, *sys.argv[3:], folder=work)
    output = run("cmake", "--build", build, "--parallel", "2", folder=work)
    if "warning:" in output:
        fail(f"the documents' programs are compiled with warnings:\n{output}")
    print(f"{count} blocks of {len(DOCUMENTS)} documents, {len(programs)} programs, {ran} commands")
    if not has_empty_networks():
        print("skipped: this machine makes no network namespaces, so the documents' programs are built but not run")
        return SKIPPED
    run_consumer(programs, build)
    return 0


if __name__ == "__main__":
    sys.exit(main())
