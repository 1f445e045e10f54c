#!/usr/bin/env python3
# SPDX-License-Identifier: Apache-2.0
"""Runs the C program against a server on loopback whose clock error is known: c_program.py PROGRAM"""
import pathlib
import sys

sys.dont_write_bytecode = True  # leave the work tree as it is
sys.path.insert(0, str(pathlib.Path(__file__).resolve().parents[1] / "embed"))
import consumers  # noqa: E402


def main():
    with consumers.Server() as server:
        output = consumers.run(sys.argv[1], server.address, timeout=120)
    print(output, end="")
    consumers.expect_offset(output)
    consumers.expect_limits(output)
    for line in ("attempt 1: disagreeing, conflicting", "every check held"):
        if line not in output.splitlines():
            consumers.fail(f"the program does not print '{line}'")


if __name__ == "__main__":
    main()
