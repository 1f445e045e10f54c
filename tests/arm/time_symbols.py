#!/usr/bin/env python3
# SPDX-License-Identifier: Apache-2.0
"""No object calls a function of the C library whose time ends in 2038: time_symbols.py NM LIBC OBJECT...

The C library of a 32-bit machine has each function with a time twice: clock_gettime has a time_t of 32 bits, and
__clock_gettime64 one of 64. The pairs are read off the library itself.
"""
import re
import subprocess
import sys


def names(nm, options, path):
    """The names that nm prints for the file, without their versions."""
    text = subprocess.run([nm, *options, path], check=True, capture_output=True, text=True).stdout
    return {line.split()[-1].split("@")[0] for line in text.splitlines() if re.search(r" [A-Za-z] ", line)}


def main():
    nm, libc, *objects = sys.argv[1:]
    exported = names(nm, ["-D", "--defined-only"], libc)
    wide = {}
    for name in exported:
        match = re.fullmatch(r"___?(\w+?)(64_time64|_time64|64)", name)
        if match and match[1] in exported:
            wide[match[1]] = name
    if not {"clock_gettime", "timerfd_settime", "select", "recvmsg"} <= wide.keys():
        sys.exit(f"{libc} has no pairs of time functions: is it the C library of a 32-bit machine?")
    narrow_calls, wide_calls = [], set()
    for path in objects:
        wanted = names(nm, ["-u"], path)
        narrow_calls += [f"{path}: {name} instead of {wide[name]}" for name in sorted(wanted & wide.keys())]
        wide_calls |= wanted & set(wide.values())
    print(f"{len(objects)} files, {len(wide)} pairs; called with 64 bits: {' '.join(sorted(wide_calls))}")
    if len(wide_calls) < 5:
        sys.exit("so few calls: are these the objects?")
    if narrow_calls:
        sys.exit("\n".join(narrow_calls))


if __name__ == "__main__":
    main()
