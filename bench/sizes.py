#!/usr/bin/env python3
# SPDX-License-Identifier: Apache-2.0
"""What the library and the program weigh: sizes.py.

Builds the shared library and the program for this machine and for 32-bit Arm, at -Os and -O2, under build/size/, and
prints .text, .data and .bss in bytes. .text is all that a program keeps and does not write: code,
constants and the tables for exceptions. Ends with status 1 when a limit is passed.
"""
import pathlib
import subprocess
import sys

ROOT = pathlib.Path(__file__).resolve().parent.parent
TARGETS = {"x86-64": ("", []), "arm": ("arm-linux-gnueabihf-", [f"-DCMAKE_TOOLCHAIN_FILE={ROOT}/cmake/arm.cmake"])}
LEVELS = ("-Os", "-O2")
# Bytes of .text on Arm at -Os.
LIMITS = {"ntp/": 48 * 1024, "library": 256 * 1024}


def run(*command):
    return subprocess.run(command, check=True, capture_output=True, text=True).stdout


def build(folder, level, options):
    run("cmake", "-S", ROOT, "-B", folder, "-G", "Ninja", "-DCMAKE_BUILD_TYPE=None",
        f"-DCMAKE_CXX_FLAGS={level} -DNDEBUG",
        "-DSKORRA_BUILD_TESTS=OFF", "-DBUILD_SHARED_LIBS=ON", "-DSKORRA_CARRY_LIBRARIES=OFF", *options)
    subprocess.run(["cmake", "--build", folder], check=True, stdout=subprocess.DEVNULL)


def size(prefix, paths):
    """The sums of .text, .data and .bss of the files, as `size` counts them."""
    rows = [line.split()[:3] for line in run(f"{prefix}size", *paths).splitlines()[1:]]
    return [sum(int(row[column]) for row in rows) for column in range(3)]


def measure(prefix, folder):
    for room in ("ntp", "transport"):
        yield f"{room}/", size(prefix, sorted(folder.glob(f"{room}/CMakeFiles/*.dir/**/*.o")))
    for name, path in (("library", folder / "libskorra_ntp.so"), ("program", folder / "bin/skorra-ntp")):
        stripped = folder / f"{path.name}.stripped"
        run(f"{prefix}strip", "-o", stripped, path.resolve())
        yield name, size(prefix, [stripped])


def main():
    passed = []
    print(f"{'target':8}{'level':>6}  {'what':12}{'.text':>9}{'.data':>9}{'.bss':>9}")
    for target, (prefix, options) in TARGETS.items():
        for level in LEVELS:
            folder = ROOT / "build/size" / f"{target}{level}"
            build(folder, level, options)
            for what, (text, data, bss) in measure(prefix, folder):
                print(f"{target:8}{level:>6}  {what:12}{text:9}{data:9}{bss:9}", flush=True)
                if (target, level) == ("arm", "-Os") and text > LIMITS.get(what, text):
                    passed.append(f"{what}: {text} bytes of .text, at most {LIMITS[what]} are allowed")
    if passed:
        sys.exit("\n".join(passed))


if __name__ == "__main__":
    main()
