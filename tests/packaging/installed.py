#!/usr/bin/env python3
# SPDX-License-Identifier: Apache-2.0
"""Installs a build with a static and one with a shared library into one prefix, moves the prefix, and uses what is
there as others would: with find_package and with pkg-config, in C++ and in C, each with both libraries.

usage: installed.py BUILD_WITH_STATIC BUILD_WITH_SHARED WORK_FOLDER COMPILER
"""
import os
import pathlib
import re
import shutil
import subprocess
import sys

SOURCE = pathlib.Path(__file__).resolve().parents[2]
sys.dont_write_bytecode = True  # leave the work tree as it is
sys.path.insert(0, str(SOURCE / "tests/embed"))
from consumers import Server, expect_limits, expect_offset, expect_time_without_lie, fail, run  # noqa: E402
from public_headers import included_files  # noqa: E402

EXAMPLE = SOURCE / "examples/clock_reader"
ABI = SOURCE / "tests/embed/abi/libskorra_ntp.so.0.abi"
C_EXAMPLE = SOURCE / "examples/c_clock/main.c"
C_COMPILER = "gcc"
WARNINGS = "-Wall -Wextra -Wpedantic -Werror".split()
PACKAGE = "lib/cmake/skorra-ntp/"
PLAIN_FILES = {"bin/skorra-ntp", "share/man/man1/skorra-ntp.1", "share/bash-completion/completions/skorra-ntp",
               "share/doc/skorra-ntp/examples/skorra-ntp.toml", "lib/pkgconfig/skorra-ntp.pc",
               "lib/libskorra_ntp.a", "lib/libskorra_sim.a", "lib/libskorra_ntp.so", "lib/libskorra_ntp.so.0",
               "lib/libskorra_ntp.so.0.1.0", PACKAGE + "skorra-ntp-config.cmake",
               PACKAGE + "skorra-ntp-config-version.cmake"}
# The static build is one for release, the shared one of no configuration. Both bring the simulated world.
PLAIN_FILES |= {f"{PACKAGE}skorra-ntp-{export}.cmake" for export in (
    "shared-targets", "shared-targets-noconfig", "static-targets", "static-targets-release", "sim-targets",
    "sim-targets-noconfig", "sim-targets-release")}


def install(builds, prefix):
    for build in builds:
        run("cmake", "--install", build, "--prefix", prefix)


def public_headers():
    """The headers of the two lists, and what they include."""
    headers = set()
    for name in ("public_headers.txt", "sim_headers.txt"):
        for header in (SOURCE / "tests/embed" / name).read_text().split():
            included_files(SOURCE, header, headers)
    return headers


def expect_files(prefix):
    expected = PLAIN_FILES | {f"include/skorra-ntp/{header}" for header in public_headers()}
    found = {str(path.relative_to(prefix)) for path in prefix.rglob("*") if not path.is_dir() or path.is_symlink()}
    if found != expected:
        fail(f"missing: {sorted(expected - found)}; not expected: {sorted(found - expected)}")
    print(f"{len(found)} files are installed")


def expect_no_paths(prefix, folders):
    """No installed file names a folder of the build or the place where it was installed."""
    for path in prefix.rglob("*"):
        if path.is_file():
            content = path.read_bytes()
            for folder in folders:
                if str(folder).encode() in content:
                    fail(f"{path.relative_to(prefix)} names {folder}")


def expect_symbols_of_abi(library):
    """The committed ABI, which ./dev package compares in full, has the symbols of this library."""
    committed = set(re.findall(r"<elf-symbol name='([^']+)'", ABI.read_text()))
    exported = {line.split()[2] for line in run("nm", "-D", "--defined-only", library).splitlines()}
    if committed != exported:
        fail(f"{ABI.name} lacks {sorted(exported - committed)} and has {sorted(committed - exported)} besides: if that "
             "is meant, run ./dev package --update-abi")
    print(f"{ABI.name} has the {len(exported)} exported symbols")


def needs_shared_library(program):
    return "[libskorra_ntp.so.0]" in run("readelf", "-d", program)


def expect_kind(program, kind):
    if needs_shared_library(program) != (kind == "shared"):
        fail(f"{program} is not linked with the {kind} library")


def use_find_package(prefix, kind, work, compiler, server):
    build = work / f"find_package_{kind}"
    run("cmake", "-G", "Ninja", "-S", EXAMPLE, "-B", build, f"-DCMAKE_PREFIX_PATH={prefix}",
        f"-DCMAKE_CXX_COMPILER={compiler}", f"-DBUILD_SHARED_LIBS={'ON' if kind == 'shared' else 'OFF'}",
        "-DFETCHCONTENT_FULLY_DISCONNECTED=ON", "-DFETCHCONTENT_SOURCE_DIR_SKORRA-NTP=")
    output = run("cmake", "--build", build, "--parallel", "2")
    steps = max(int(number) for number in re.findall(r"^\[\d+/(\d+)\]", output, re.MULTILINE))
    if steps > 4 or "warning:" in output:  # two programs of one source each: nothing of the library is compiled
        fail(f"with find_package the example has {steps} steps:\n{output}")
    expect_kind(build / "clock_reader", kind)
    expect_time_without_lie(build / "clock_reader", server)
    run("ctest", "--test-dir", build, "--output-on-failure", "--no-tests=error")
    print(f"find_package, {kind}: syncs")


def pkg_config(prefix, *words):
    os.environ["PKG_CONFIG_PATH"] = str(prefix / "lib/pkgconfig")
    return run("pkg-config", *words, "skorra-ntp").split()


def expect_c_time(program, server):
    """The example in C tells the right time."""
    output = run(program, server)
    expect_offset(output)
    expect_limits(output)


def use_find_package_in_c(prefix, kind, work, server):
    """A project that does not enable C++."""
    folder = work / f"c_only_{kind}"
    folder.mkdir()
    (folder / "CMakeLists.txt").write_text(f"""cmake_minimum_required(VERSION 3.25)
project(c_only LANGUAGES C)
find_package(skorra-ntp 0.1 CONFIG REQUIRED COMPONENTS {kind})
add_executable(c_only {C_EXAMPLE})
target_link_libraries(c_only PRIVATE skorra::ntp)
""")
    run("cmake", "-G", "Ninja", "-S", folder, "-B", folder / "build", f"-DCMAKE_PREFIX_PATH={prefix}",
        f"-DCMAKE_C_COMPILER={C_COMPILER}", f"-DCMAKE_C_FLAGS={' '.join(['-std=c11', *WARNINGS])}")
    run("cmake", "--build", folder / "build")
    expect_kind(folder / "build/c_only", kind)
    expect_c_time(folder / "build/c_only", server)
    print(f"find_package in C alone, {kind}: syncs")


def use_pkg_config(prefix, kind, work, compiler):
    """Yields the example in C++ and in C, as programs. For static use, the prefix holds no shared library: the linker
    would take that one."""
    flags = pkg_config(prefix, *(["--static"] if kind == "static" else []), "--cflags", "--libs")
    if kind == "shared" and (flags != [f"-I{prefix}/lib/pkgconfig/../../include/skorra-ntp",
                                       f"-L{prefix}/lib/pkgconfig/../../lib", "-lskorra_ntp"]):
        fail(f"for shared use pkg-config gives {flags}")
    # The examples use no configuration file, and would link without toml++.
    if kind == "static" and not {"-lskorra_ntp", "-lcares", "-ltomlplusplus", "-pthread"} <= set(flags):
        fail(f"for static use pkg-config gives {flags}")
    if kind == "shared":
        flags.append(f"-Wl,-rpath,{prefix}/lib")
    for language, source in (((compiler, "-std=c++17"), EXAMPLE / "main.cc"), ((C_COMPILER, "-std=c11"), C_EXAMPLE)):
        program = work / f"pkg_config_{kind}_{source.suffix[1:]}"
        output = run(*language, *WARNINGS, source, "-o", program, *flags)
        if output:
            fail(output)
        expect_kind(program, kind)
        yield program
    print(f"pkg-config, {kind}: {' '.join(flags)}")


# Which requests the package grants. Each is a find_package of its own project.
REQUESTS = {"0.1": True, "0.1.0": True, "0.2": False, "1.0": False, "0.0.9": False, "0.1 COMPONENTS static": True,
            "0.1 COMPONENTS shared": True, "0.1 COMPONENTS nonsense": False, "0.1 COMPONENTS shared static": False}


def expect_requests(prefix, work, compiler):
    for number, (request, is_granted) in enumerate(REQUESTS.items()):
        folder = work / f"request_{number}"
        folder.mkdir()
        kind = "STATIC_LIBRARY" if "static" in request else "SHARED_LIBRARY"
        (folder / "CMakeLists.txt").write_text(f"""cmake_minimum_required(VERSION 3.25)
project(request LANGUAGES CXX)
find_package(skorra-ntp {request} CONFIG REQUIRED)
get_target_property(type skorra::ntp TYPE)
if(NOT type STREQUAL {kind})
  message(FATAL_ERROR "skorra::ntp is a ${{type}}")
endif()
""")
        done = subprocess.run(["cmake", "-G", "Ninja", "-S", folder, "-B", folder / "build",
                               f"-DCMAKE_PREFIX_PATH={prefix}", f"-DCMAKE_CXX_COMPILER={compiler}"],
                              capture_output=True, text=True, check=False)
        if (done.returncode == 0) != is_granted or not (is_granted or "skorra-ntp" in done.stderr):
            fail(f"find_package(skorra-ntp {request} CONFIG) ended with {done.returncode}:\n{done.stderr}")
    print(f"{len(REQUESTS)} requests are granted or turned down as they should")


def main():
    if len(sys.argv) != 5:
        fail(__doc__)
    static_build, shared_build, work = [pathlib.Path(word).resolve() for word in sys.argv[1:4]]
    compiler = sys.argv[4]
    shutil.rmtree(work, ignore_errors=True)
    work.mkdir(parents=True)
    first, prefix, static_prefix = work / "first", work / "moved/prefix", work / "moved/static"
    install([shared_build, static_build], first)
    expect_files(first)
    expect_symbols_of_abi(first / "lib/libskorra_ntp.so.0")
    expect_no_paths(first, [SOURCE, static_build, shared_build, work])
    prefix.parent.mkdir()
    first.rename(prefix)
    install([static_build], first)
    first.rename(static_prefix)

    expect_requests(prefix, work, compiler)
    if "skorra-ntp 0.1.0" not in run(prefix / "bin/skorra-ntp", "--version"):
        fail("the installed program does not tell its version")
    for kind, pkg_config_prefix in (("shared", prefix), ("static", static_prefix)):
        with Server() as server:
            use_find_package(prefix, kind, work, compiler, server.address)
        with Server() as server:
            use_find_package_in_c(prefix, kind, work, server.address)
        for program, expect in zip(use_pkg_config(pkg_config_prefix, kind, work, compiler),
                                   (expect_time_without_lie, expect_c_time), strict=True):
            with Server() as server:
                expect(program, server.address)
            print(f"{program.name}: syncs")


if __name__ == "__main__":
    main()
