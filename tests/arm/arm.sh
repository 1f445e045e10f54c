#!/usr/bin/env bash
# SPDX-License-Identifier: Apache-2.0
# Builds everything for 32-bit Arm and runs it in the emulator: ./dev arm [virtual|ubsan]. With `virtual`, only what
# needs no real sockets and threads is run; with `ubsan`, the same built with the undefined-behaviour sanitizer.
set -euo pipefail
cd "$(dirname "$0")/../.."

virtual_tests='^(sim_tests\.|fuzz_|one_walk|interval)'

emulated() {
  qemu-arm -L build/arm/root "build/arm/release/bin/$1" "${@:2}"
}

tests/arm/make_root.sh build/arm/root
if [ "${1-}" = ubsan ]; then
  cmake --preset arm-ubsan >/dev/null
  cmake --build --preset arm-ubsan
  ctest --preset arm-ubsan --progress -R "$virtual_tests"
  exit
fi
cmake --preset arm >/dev/null
if [ "${1-}" = virtual ]; then
  cmake --build --preset arm --target skorra_ntp skorra_read_bench skorra_sim_tests skorra-sim skorra_interval_rows \
    skorra_fuzz
else
  cmake --build --preset arm
fi
# The programs themselves carry libraries of others.
find build/arm/release/{apps,netmodel,sim} -name '*.o' -print0 |
  xargs -0 tests/arm/time_symbols.py arm-linux-gnueabihf-nm build/arm/root/lib/arm-linux-gnueabihf/libc.so.6 \
    build/arm/release/libskorra_ntp.a

echo "arm: the simulated world is the same as on this machine"
cmake --preset release >/dev/null
cmake --build --preset release --target skorra-sim
build/release/bin/skorra-sim --seed 1 >build/arm/scenarios.here
emulated skorra-sim --seed 1 >build/arm/scenarios.arm
cmp build/arm/scenarios.here build/arm/scenarios.arm

echo "arm: 2000 walks"
emulated skorra-sim --walks 2000 --seed "${SKORRA_SEED:-1}"

echo "arm: the instructions of a read"
tests/arm/read_cost.py qemu-arm -L build/arm/root build/arm/release/bin/read_bench

echo "arm: tests"
if [ "${1-}" = virtual ]; then
  ctest --preset arm --progress -R "$virtual_tests"
else
  ctest --preset arm --progress
  echo "arm: left out, as the emulator lacks what they need:"
  cat tests/arm/left_out.txt
fi
