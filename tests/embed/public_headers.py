#!/usr/bin/env python3
# SPDX-License-Identifier: Apache-2.0
"""Compiles each header that a host program or its tests include, alone and in every way that they may compile it.

public_headers.txt lists those of skorra::ntp, sim_headers.txt the further ones of skorra::sim, which need C++20. Those
of c/ are compiled as C11, too.

A host has a folder of its own first in its include path, with a platform/net/ip_endpoint.h that stops the
compiler: our headers must find each other without the include path.

usage: public_headers.py SOURCE_FOLDER WORK_FOLDER
"""
import concurrent.futures
import itertools
import os
import pathlib
import re
import shutil
import subprocess
import sys

COMPILERS = ("g++", "clang++")
STANDARDS = {"public_headers.txt": ("c++17", "c++20"), "sim_headers.txt": ("c++20",)}
FLAGS = "-fsyntax-only -Wall -Wextra -Wpedantic -Wconversion -Wshadow -Werror".split()
CPP_FLAGS = "-fno-exceptions -fno-rtti".split()
C_FLAGS = "-x c -Wstrict-prototypes".split()


def included_files(source, header, seen):
    """The header and what it includes of ours, found relative to each including file."""
    path = os.path.normpath(header)
    if path in seen:
        return
    seen.add(path)
    for name in re.findall(r'^#include "([^"]+)"', (source / path).read_text(), re.MULTILINE):
        other = os.path.join(os.path.dirname(path), name)
        if not (source / other).is_file():
            sys.exit(f"{path} includes \"{name}\", which is found by the include path only")
        included_files(source, other, seen)


def compile_alone(compiler, standard, header, source, host):
    language = CPP_FLAGS if standard.startswith("c++") else C_FLAGS
    done = subprocess.run([compiler, *language, f"-std={standard}", *FLAGS, f"-I{host}", f"-I{source}",
                           str(host / "host.cc")],
                          stdout=subprocess.PIPE, stderr=subprocess.STDOUT, text=True, check=False)
    return "" if done.returncode == 0 else f"{header} with {compiler} -std={standard}:\n{done.stdout}"


def main():
    source, host = pathlib.Path(sys.argv[1]), pathlib.Path(sys.argv[2])
    shutil.rmtree(host, ignore_errors=True)
    standards_of = {}  # by header
    for list_name, standards in STANDARDS.items():
        headers = set()
        for header in (pathlib.Path(__file__).parent / list_name).read_text().split():
            included_files(source, header, headers)
        if not headers:
            sys.exit(f"public_headers: {list_name} lists nothing")
        for header in headers:
            standards_of.setdefault(header, standards)
        print(f"{list_name}: {len(headers)} headers, {' '.join(standards)}")
    c_headers = set()
    for header in [name for name in standards_of if name.startswith("c/")]:
        included_files(source, header, c_headers)
    for header in c_headers:
        standards_of[header] += ("c11",)
    if not c_headers:
        sys.exit("public_headers: there is no header for C")
    # The host's folder has a file of the same name for each header but the one that is included.
    compilers = [compiler for compiler in COMPILERS if shutil.which(compiler)]
    if not compilers:
        sys.exit("public_headers: there is nothing to compile with")
    for header in standards_of:
        other = host / header.replace("/", "_")
        for name in standards_of.keys() - {header}:
            (other / name).parent.mkdir(parents=True, exist_ok=True)
            (other / name).write_text("#error this is the host's own header\n")
        (other / "host.cc").write_text(f'#include "{header}"\n#include "{header}"\nextern int host;\n')
    with concurrent.futures.ThreadPoolExecutor(2) as pool:
        jobs = [pool.submit(compile_alone, compiler, standard, header, source, host / header.replace("/", "_"))
                for compiler, header in itertools.product(compilers, sorted(standards_of))
                for standard in standards_of[header]]
        errors = [job.result() for job in jobs if job.result()]
    if errors:
        sys.exit("\n".join(errors))
    print(f"{len(jobs)} compilations with {' '.join(compilers)}")


if __name__ == "__main__":
    main()
