#!/usr/bin/env python3
# SPDX-License-Identifier: Apache-2.0
"""Builds the projects of examples/ from nothing, as a host would, and runs them against a server on loopback.

The server's first reply lies (first_reply_lies.py): an example that takes a reading before the outcome is an hour off.

usage: consumers.py EXAMPLE WORK_FOLDER [-DOPTION=VALUE...]
"""
import difflib
import json
import pathlib
import re
import shutil
import socket
import subprocess
import sys

SOURCE = pathlib.Path(__file__).resolve().parents[2]
CLOCK_ERROR_S = 1000  # the server is ahead by this much
TOLERANCE_S = 1
PAUSE_S = 0.1
SIMULATED_TOLERANCE_US = 1000
MAX_STEPS = 35
# Examples that are counted; the others build the same library.
STEPPED = ("crowded_host", "own_host")
# The tests of the seams that need a name server, which examples/own_host does not have.
WITHOUT_NAME_SERVER = ("NameSeamTest.ASilentNameServerEndsTheLookupAtTheDeadline",
                       "NameSeamTest.NamesOfOneCallAreLookedUpAtTheSameTimeAndEachHasItsOwnResult",
                       "NameSeamTest.AnAddressHoldsAsLongAsItsRecordSays")
MIN_SEAM_TESTS = 40


def fail(text):
    sys.exit(f"consumers: {text}")


def run(*command, timeout=300):
    done = subprocess.run([str(part) for part in command], stdout=subprocess.PIPE, stderr=subprocess.STDOUT,
                          text=True, timeout=timeout, check=False)
    if done.returncode != 0:
        fail(f"{command} ended with {done.returncode}:\n{done.stdout}")
    return done.stdout


class Server:
    """A server on a free port of this machine."""

    def __init__(self):
        self.process = subprocess.Popen([pathlib.Path(__file__).parent / "first_reply_lies.py", "127.0.0.1:0",
                                         str(CLOCK_ERROR_S)], stdout=subprocess.PIPE, text=True)
        line = self.process.stdout.readline()
        found = re.fullmatch(r"listening on (\S+)\n", line)
        if not found:
            fail(f"the server said {line!r}")
        self.address = found[1]

    def __enter__(self):
        return self

    def __exit__(self, *_):
        self.process.terminate()
        self.process.communicate(timeout=10)


def build_target(build, target):
    output = run("cmake", "--build", build, "--parallel", "2", "--target", target)
    if "warning:" in output:
        fail(f"the build warns:\n{output}")
    return output


def configure_and_build(example, build, options):
    shutil.rmtree(build, ignore_errors=True)
    run("cmake", "-G", "Ninja", "-S", SOURCE / "examples" / example, "-B", build, "-DCMAKE_EXPORT_COMPILE_COMMANDS=ON",
        *options)
    output = build_target(build, "all")
    steps = max(int(number) for number in re.findall(r"^\[\d+/(\d+)\]", output, re.MULTILINE))
    print(f"{example}: {steps} steps")
    return steps


def expect_offset(output):
    found = re.search(r"^offset (-?\d+) us$", output, re.MULTILINE)
    if not found or abs(int(found[1]) - CLOCK_ERROR_S * 1000000) > TOLERANCE_S * 1000000:
        fail(f"not the server's clock error of {CLOCK_ERROR_S} s:\n{output}")


def expect_limits(output):
    """The server's clock error lies between the limits. The program may have been put aside between the clock's
    reading and the system's, with which it compares: both limits are earlier by that."""
    found = re.search(r"^at least (-?\d+) us, at most (-?\d+) us$", output, re.MULTILINE)
    error_us = CLOCK_ERROR_S * 1000000
    if not found or not int(found[1]) <= error_us <= int(found[2]) + PAUSE_S * 1000000:
        fail(f"the limits do not hold the server's clock error of {CLOCK_ERROR_S} s:\n{output}")


def compile_flags(build, source):
    """The flags that a file of the host is compiled with, without its own name and output."""
    for entry in json.loads((build / "compile_commands.json").read_text()):
        if pathlib.Path(entry["file"]) == source:
            words = entry["command"].split()
            words = [word for word in words if word != "ccache"]
            return words[1:words.index("-o")]
    return fail(f"{source} is not compiled")


def test_names(build):
    return re.findall(r"^  Test +#\d+: (\S+)$", run("ctest", "--test-dir", build, "-N"), re.MULTILINE)


def exported_symbols(library):
    """The demangled names of what a library defines for others."""
    lines = run("nm", "-DC", "--defined-only", library).splitlines()
    return sorted({line.split(maxsplit=2)[2] for line in lines})


def expect_listed_symbols(library):
    expected = (pathlib.Path(__file__).parent / "exported_symbols.txt").read_text().splitlines()
    actual = exported_symbols(library)
    if actual != expected:
        fail("exported_symbols.txt lists something else than the library exports:\n" +
             "\n".join(difflib.unified_diff(expected, actual, "listed", "exported", lineterm="", n=0)))
    print(f"{library.name} exports {len(actual)} symbols")


def expect_never_unloaded(library):
    """dlclose leaves the library in memory, used or not."""
    flags = re.findall(r"\(FLAGS_1\)\s+Flags: (.*)", run("readelf", "-d", library))
    if not flags or "NODELETE" not in flags[0].split():
        fail(f"dlclose may unload {library.name}: its flags are {flags}")


def expect_no_time(reason, *command):
    """The command ends by itself with status 1 and says why there is no time."""
    done = subprocess.run([str(part) for part in command], stdout=subprocess.PIPE, stderr=subprocess.STDOUT, text=True,
                          timeout=50, check=False)
    if done.returncode != 1 or reason not in done.stdout or "offset" in done.stdout:
        fail(f"{command} ended with {done.returncode}, not for '{reason}':\n{done.stdout}")


def expect_time_without_lie(program, server):
    """The example clock_reader tells nothing of the attempt with the lie, and the right time after it."""
    output = run(program, server)
    expect_offset(output)
    expect_limits(output)
    if "attempt: disagreeing\n" not in output:
        fail(f"the clock took the lie in the first attempt for a time, or hid it:\n{output}")


def clock_reader(build, server):
    library = build / "_deps/skorra-ntp-build/libskorra_ntp.so"
    expect_listed_symbols(library)
    expect_never_unloaded(library)
    expect_time_without_lie(build / "clock_reader", server)
    expect_no_time("attempt: no_server", build / "clock_reader", "not:an:address")
    with socket.socket(socket.AF_INET, socket.SOCK_DGRAM) as silent:
        silent.bind(("127.0.0.1", 0))
        expect_no_time("attempt: silent", build / "clock_reader", f"127.0.0.1:{silent.getsockname()[1]}")
    run("ctest", "--test-dir", build, "--output-on-failure", "--no-tests=error")


def expect_nothing_installed(build):
    """A host that embeds the library does not install it."""
    prefix = build / "prefix"
    run("cmake", "--install", build, "--prefix", prefix)
    files = [str(path.relative_to(prefix)) for path in prefix.rglob("*")]
    if files:
        fail("a host installs with its own files\n" + "\n".join(files))


def crowded_host(build, server):
    expect_nothing_installed(build)
    output = run(build / "crowded_host", server)
    expect_offset(output)
    sent = re.search(r"^requests sent ([1-8])$", output, re.MULTILINE)
    if "host time 42, host end point here\n" not in output or not sent:
        fail(f"the host's or our facilities went wrong:\n{output}")
    if test_names(build) != ["host_facilities"]:
        fail(f"the host's tests are {test_names(build)}")
    run("ctest", "--test-dir", build, "--output-on-failure")
    own = SOURCE / "examples/crowded_host"
    flags = compile_flags(build, own / "main.cc")
    # The level is g++'s default, which CMake leaves out.
    if flags not in ([f"-I{own}", f"-I{SOURCE}"], [f"-I{own}", f"-I{SOURCE}", "-std=gnu++17"]):
        fail(f"the host's own file is compiled with {flags}")
    print("crowded_host: main.cc is compiled with", *flags)
    build_target(build, "crowded_simulation")
    output = run(build / "crowded_simulation")
    error = re.search(r"^error (-?\d+) us$", output, re.MULTILINE)
    if "host time 42, host end point here\n" not in output or not error or abs(int(error[1])) > SIMULATED_TOLERANCE_US:
        fail(f"the simulated world went wrong in the host:\n{output}")


def plugin(build, server):
    library = build / "skorra-ntp/libskorra_ntp.so"
    if library.exists():
        expect_never_unloaded(library)
        expect_never_unloaded(build / "time_plugin.so")
    expect_offset(run(build / "plugin_host", build / "time_plugin.so", server))
    names = exported_symbols(build / "time_plugin.so")
    # What the compilers leave visible although it names hidden types: g++ type information of function types, clang++
    # templates of the standard library.
    pattern = r"\b(skorra\w*|asio|spdlog|fmt|toml)::|^skorra_ntp_"
    ours = [name for name in names if re.search(pattern, name) and not name.startswith(("typeinfo", "std::"))]
    if ours or "plugin_now_us" not in names:
        fail("of the library the plugin exports\n" + "\n".join(ours))


def c_clock(build, server):
    output = run(build / "c_clock", server)
    expect_offset(output)
    expect_limits(output)
    # The wait may end before the observer hears of the attempt that brought the time.
    told = (r"^attempt: disagreeing \(conflicting\)$", rf"^[12] attempts with {re.escape(server)}, library \d")
    if not all(re.search(pattern, output, re.MULTILINE) for pattern in told):
        fail(f"the attempts are not those of the server:\n{output}")
    expect_no_time("neither a host", build / "c_clock", "not:an:address")
    python(build / "_deps/skorra-ntp-build/libskorra_ntp.so", server)


def python(library, server):
    """The Python example on the same library."""
    example = SOURCE / "examples/python/skorra_ntp.py"
    output = run(example, "--library", library, server)
    rows = dict(re.split(" {2,}", line, maxsplit=1) for line in output.splitlines() if "  " in line)
    numbers = {name: int(rows.get(name, "0 us").removesuffix(" us")) for name in ("offset", "at least", "at most")}
    expect_offset(f"offset {numbers['offset']} us\n")
    expect_limits(f"at least {numbers['at least']} us, at most {numbers['at most']} us\n")
    # Here, too, the wait may end before the observer hears of the attempt.
    if rows.get("server") != server or rows.get("status") != "synchronized" or rows.get("1", "ok ")[:3] != "ok ":
        fail(f"the Python example's table is wrong:\n{output}")
    expect_no_time("no time", example, "--limit", "0.01", "--library", library, "127.0.0.1:9")
    with Server() as fresh:
        run(pathlib.Path(__file__).parent / "python_class.py", library, fresh.address)


def expect_portable_alone(build, program):
    """Nothing of the real machine's rooms is compiled, no other library is linked, and no thread is started."""
    sources = [entry["file"] for entry in json.loads((build / "compile_commands.json").read_text())]
    foreign = [name for name in sources if re.search(r"/platform/(linux|files)/", name)]
    if foreign or not any("/ntp/ntp_time_manager_impl.cc" in name for name in sources):
        fail(f"the manager is not built without {foreign}")
    needed = re.findall(r"\(NEEDED\).*\[(\S+)\]", run("readelf", "-d", program))
    others = [name for name in needed if not re.match(r"lib(c|m|gcc_s|stdc\+\+)\.so|ld-linux", name)]
    if others or not needed:
        fail(f"{program.name} needs {others} of {needed}")
    if "pthread_create" in run("nm", "-D", "--undefined-only", program):
        fail(f"{program.name} starts threads")


def expect_guide_to_all_seams(library):
    """docs/porting.md names every function that the library leaves to its host."""
    lines = run("nm", "-C", library).splitlines()
    names = [re.search(r" ([A-Za-z]) ((?:base|core|net|config)::skorra_ntp::[\w:~]+)(?:\[\S+\])?\(", line)
             for line in lines]
    defined = {found[2] for found in names if found and found[1] != "U"}
    missing = {found[2] for found in names if found} - defined
    guide = (SOURCE / "docs/porting.md").read_text()
    untold = []
    for name in sorted(missing):
        *_, scope, function = name.split("::")
        words = [] if scope == "skorra_ntp" else [scope]
        words.append("destructor" if function.startswith("~") else function)
        if not all(re.search(rf"\b{word}\b", guide) for word in words):
            untold.append(name)
    if untold or len(missing) < 15:
        fail(f"of {len(missing)} functions docs/porting.md does not name {untold}")


def own_host(build, server):
    program = build / "own_host"
    expect_portable_alone(build, program)
    expect_guide_to_all_seams(build / "skorra-ntp/libskorra_portable.a")
    expect_time_without_lie(program, server)
    with Server() as fresh:
        output = run(program, fresh.address)
    offset = re.search(r"^the manager's (offset -?\d+ us)$", output, re.MULTILINE)
    expect_offset(offset[1] if offset else output)
    # The host's configuration asks for 8 requests in each burst, and its log hears of each attempt.
    told = re.search(r"^(\d+) attempts, (\d+) requests sent$", output, re.MULTILINE)
    if not told or int(told[2]) != 8 * int(told[1]) or output.count("log: Start NTP time sync\n") != int(told[1]):
        fail(f"the host's configuration or its log went wrong:\n{output}")
    expect_no_time("attempt: no_server", program, "not:an:address")
    build_target(build, "own_host_conformance")
    output = run(build / "own_host_conformance", "--gtest_brief=1", "--gtest_filter=-" + ":".join(WITHOUT_NAME_SERVER))
    passed = re.search(r"^\[  PASSED  \] (\d+) tests", output, re.MULTILINE)
    if not passed or int(passed[1]) < MIN_SEAM_TESTS:
        fail(f"the suite of the seams is short of tests:\n{output}")
    print(f"own_host: {passed[1]} tests of the seams")


EXAMPLES = {"c_clock": c_clock, "clock_reader": clock_reader, "crowded_host": crowded_host, "own_host": own_host,
            "plugin": plugin}


def main():
    if len(sys.argv) < 3 or sys.argv[1] not in EXAMPLES:
        fail(__doc__)
    example, work = sys.argv[1], pathlib.Path(sys.argv[2])
    build = work / example
    steps = configure_and_build(example, build, sys.argv[3:])
    if example in STEPPED and steps > MAX_STEPS:
        fail(f"{steps} steps; a host builds at most {MAX_STEPS}")
    with Server() as server:
        EXAMPLES[example](build, server.address)


if __name__ == "__main__":
    main()
