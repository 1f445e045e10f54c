#!/usr/bin/env bash
# SPDX-License-Identifier: Apache-2.0
# Reads the clock under strace, few times and often: the system calls must be the same, so that no read made
# one. Usage: read_path_strace.sh PATH_OF_READ_PROBE
set -euo pipefail
probe=$1
out=$(mktemp -d)
trap 'rm -rf "$out"' EXIT

if ! strace -o /dev/null true 2>/dev/null; then
  echo "SKIPPED: strace is not allowed to trace here"
  exit 77
fi
for reads in 1000 100000; do
  # Where the machine puts the reader aside for long between its two clocks, the read sees them apart and rightly
  # starts a sync, which makes calls of its own: such a run is no measurement.
  for try in 1 2 3 4 5; do
    status=0
    strace -c -f -U calls,name -o "$out/$reads" "$probe" "$reads" >"$out/$reads.log" 2>"$out/errors" || status=$?
    if [ "$try" -ge 5 ] || ! grep -q 'Deviation found' "$out/errors"; then break; fi
  done
  cat "$out/errors" >&2
  [ "$status" -eq 0 ] || exit "$status"
  # The counts by name; which thread asked for memory first may differ by nothing.
  grep -E '^ *[0-9]+ [a-z_0-9]+$' "$out/$reads" | grep -v ' total$' | sort >"$out/$reads.calls"
  echo "$reads reads of each kind: $(awk '{n += $1} END {print n}' "$out/$reads.calls") system calls in all"
done
test -s "$out/1000.calls"
diff "$out/1000.calls" "$out/100000.calls"
echo "no read made a system call"
