#!/usr/bin/env python3
# SPDX-License-Identifier: Apache-2.0
"""How many instructions a read of the clock takes on 32-bit Arm: read_cost.py EMULATOR... READ_BENCH

The emulator notes each instruction of the program itself; those of the C library, and so of its clock readings, do not
count. A thread that is put aside between two clock readings takes a longer way: the number that most reads take
counts. Fails when a read stores exclusively: its 64-bit loads would be loops then, and would wait for one another.
"""
import collections
import re
import subprocess
import sys

ROWS = ("read_quiet", "read_due", "bounded_read", "ntp_clock_now")
COLUMNS = ("ldrexd", "strexd", "dmb")
READS = 61
PROGRAM = "0x40000000..0x4fffffff"  # where the emulator puts a program; libraries lie below


def trace(command, row):
    """The addresses of the program's instructions in the order of their execution, and what stands there."""
    process = subprocess.Popen([command[0], "-singlestep", "-d", "in_asm,exec,nochain", "-dfilter", PROGRAM,
                                *command[1:], "--reads", row, str(READS)], stderr=subprocess.PIPE, text=True)
    names, executed = {}, []
    for line in process.stderr:
        if found := re.match(r"Trace \d+: \S+ \[[0-9a-f]+/([0-9a-f]+)/", line):
            executed.append(int(found[1], 16))
        elif found := re.match(r"(0x[0-9a-f]+): .*?  ([a-z]\S*)", line):
            names[int(found[1], 16)] = found[2]
    if process.wait() != 0:
        sys.exit(f"{command} --reads {row} ended with {process.returncode}")
    return executed, names


def usual_read(command, row):
    """How often the usual read executes each kind of instruction."""
    executed, names = trace(command, row)
    times = collections.Counter(executed)
    # An instruction that each read executes once; the last such ones of the run belong to the reads.
    mark = next((address for address in reversed(executed) if times[address] == READS), None)
    marks = [place for place, address in enumerate(executed) if address == mark]
    if not marks:
        sys.exit(f"{row}: the reads cannot be told apart")
    reads = [executed[begin:end] for begin, end in zip(marks, marks[1:])]
    usual, number = collections.Counter(len(read) for read in reads).most_common(1)[0]
    read = next(read for read in reads if len(read) == usual)
    return number / len(reads), collections.Counter(names[address] for address in read)


def main():
    command = sys.argv[1:]
    is_clean = True
    print("".join(f"{title:>14}" for title in ("", "of the reads", "instructions", *COLUMNS)))
    for row in ROWS:
        share, counts = usual_read(command, row)
        total = sum(counts.values())
        print(f"{row:>14}{share:13.0%} {total:14}" + "".join(f"{counts[name]:14}" for name in COLUMNS))
        is_clean = is_clean and total > 10 and counts["ldrexd"] > 0 and counts["strexd"] == 0
    if not is_clean:
        sys.exit("a read that stores exclusively, or one that was not seen")


if __name__ == "__main__":
    main()
