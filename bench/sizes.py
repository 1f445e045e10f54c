#!/usr/bin/env python3
# SPDX-License-Identifier: Apache-2.0
"""What the library and the program weigh: sizes.py [--manager FOLDER].

Builds the shared library and the program for this machine and for 32-bit Arm, at -Os and -O2, under build/size/, and
prints .text, .data and .bss in bytes. .text is all that a program keeps and does not write: code,
constants and the tables for exceptions. Ends with status 1 when a limit is passed.

With --manager it compiles only ntp/, for this machine at -Os, in FOLDER.
"""
import pathlib
import platform
import subprocess
import sys

ROOT = pathlib.Path(__file__).resolve().parent.parent
TARGETS = {"x86-64": ("", []), "arm": ("arm-linux-gnueabihf-", [f"-DCMAKE_TOOLCHAIN_FILE={ROOT}/cmake/arm.cmake"])}
LEVELS = ("-Os", "-O2")
# Bytes of .text at -Os.
LIMITS = {"arm": {"ntp/": 48 * 1024, "library": 256 * 1024}, "x86-64": {"ntp/": 40 * 1024}}


def run(*command):
    return subprocess.run(command, check=True, capture_output=True, text=True).stdout


def build(folder, level, options, target="all"):
    run("cmake", "-S", ROOT, "-B", folder, "-G", "Ninja", "-DCMAKE_BUILD_TYPE=None",
        f"-DCMAKE_CXX_FLAGS={level} -DNDEBUG",
        "-DSKORRA_BUILD_TESTS=OFF", "-DBUILD_SHARED_LIBS=ON", "-DSKORRA_CARRY_LIBRARIES=OFF", *options)
    subprocess.run(["cmake", "--build", folder, "--target", target], check=True, stdout=subprocess.DEVNULL)


def size(prefix, paths):
    """The sums of .text, .data and .bss of the files, as `size` counts them."""
    rows = [line.split()[:3] for line in run(f"{prefix}size", *paths).splitlines()[1:]]
    return [sum(int(row[column]) for row in rows) for column in range(3)]


def measure_room(prefix, folder, room):
    return size(prefix, sorted(folder.glob(f"{room}/CMakeFiles/*.dir/**/*.o")))


def measure(prefix, folder):
    for room in ("ntp", "transport"):
        yield f"{room}/", measure_room(prefix, folder, room)
    for name, path in (("library", folder / "libskorra_ntp.so"), ("program", folder / "bin/skorra-ntp")):
        stripped = folder / f"{path.name}.stripped"
        run(f"{prefix}strip", "-o", stripped, path.resolve())
        yield name, size(prefix, [stripped])


def complaint(target, level, what, text):
    """A list with the limit that is passed, or an empty one."""
    limit = LIMITS.get(target, {}).get(what, text) if level == "-Os" else text
    return [f"{what} for {target}: {text} bytes of .text, at most {limit} are allowed"] if text > limit else []


def measure_manager(folder):
    build(folder, "-Os", [], "skorra_manager")
    text, _, _ = measure_room("", folder, "ntp")
    if text == 0:
        sys.exit(f"there are no objects of ntp/ in {folder}")
    machine = platform.machine().replace("_", "-")
    print(f"ntp/ for {machine} at -Os: {text} bytes of .text")
    return complaint(machine, "-Os", "ntp/", text)


def main():
    if sys.argv[1:2] == ["--manager"]:
        if passed := measure_manager(pathlib.Path(sys.argv[2])):
            sys.exit(passed[0])
        return
    passed = []
    print(f"{'target':8}{'level':>6}  {'what':12}{'.text':>9}{'.data':>9}{'.bss':>9}")
    for target, (prefix, options) in TARGETS.items():
        for level in LEVELS:
            folder = ROOT / "build/size" / f"{target}{level}"
            build(folder, level, options)
            for what, (text, data, bss) in measure(prefix, folder):
                print(f"{target:8}{level:>6}  {what:12}{text:9}{data:9}{bss:9}", flush=True)
                passed += complaint(target, level, what, text)
    if passed:
        sys.exit("\n".join(passed))


if __name__ == "__main__":
    main()
