#!/usr/bin/env python3
# SPDX-License-Identifier: Apache-2.0
"""Computes what random bursts prove about the time once more, and compares each end with the clock's own result.

Written from the formulas alone (docs/clock.md, RFC 5905 sections 8 and 11.2), with whole numbers and fractions: an
exchange proves that the offset of the true time from the steady ticks is at least T3 - T4 and at most T2 - T1, less and
plus all that may be wrong; a burst proves what all its exchanges say.

usage: interval_reference.py PATH_OF_INTERVAL_ROWS [--bursts N] [--seed S]
Without a seed SKORRA_SEED is used, or a fresh one. Exit status 1 when there is any difference.
"""
import argparse
import collections
import math
import os
import random
import statistics
import subprocess
import sys
from fractions import Fraction

US_FROM_1601_TO_1970 = 11644473600 * 10**6
KINDS = ("symmetric", "one-sided", "late", "building up", "contradicting")
KERNEL_STAMP_US, OWN_STAMP_US, SERVER_ROUNDING_US = 10, 1, 1
TOLERANCE = Fraction(15, 10**6)
FIELDS = 11


def oscillator_share(error_ppb):
    """What the steady clock may be wrong by, as a part of what it shows, in units of 2^-32.

    A slow one shows 1 - e while 1 passes. 1 ppb is for the rounding of rates.
    """
    error = Fraction(error_ppb + 1, 10**9)
    return math.floor(error / (1 - error) * 2**32) + 1


def ends_of(exchange, error_ppb, drift_us, boot_ns):
    t1, t2, t3, t4, system, round_trip, root_delay, root_dispersion, precision, is_kernel_1, is_kernel_4 = exchange
    age_us = max(boot_ns // 1000 - (t1 - system), 0)
    aging_us = math.floor(Fraction((age_us + drift_us) * oscillator_share(error_ppb), 2**32)) + 1
    precision_us = math.ceil(Fraction(10**6) * Fraction(2)**precision)
    error_us = (math.ceil(Fraction(root_delay, 2)) + root_dispersion + precision_us
                + math.ceil(round_trip * TOLERANCE) + SERVER_ROUNDING_US + drift_us + aging_us)
    return (t3 - US_FROM_1601_TO_1970 - (t4 - system) - error_us - (KERNEL_STAMP_US if is_kernel_4 else OWN_STAMP_US),
            t2 - US_FROM_1601_TO_1970 - (t1 - system) + error_us + (KERNEL_STAMP_US if is_kernel_1 else OWN_STAMP_US))


def proven(exchanges, error_ppb, drift_us, boot_ns):
    ends = [ends_of(exchange, error_ppb, drift_us, boot_ns) for exchange in exchanges]
    earliest, latest = max(first for first, _ in ends), min(last for _, last in ends)
    return (earliest, latest) if earliest <= latest else None


def main():
    parser = argparse.ArgumentParser()
    parser.add_argument("program")
    parser.add_argument("--bursts", type=int, default=100000)
    parser.add_argument("--seed", type=int, default=int(os.environ.get("SKORRA_SEED", random.getrandbits(32))))
    arguments = parser.parse_args()
    print(f"seed {arguments.seed}", flush=True)
    count, differences, contradictions, ramps = 0, 0, 0, 0
    half_widths = collections.defaultdict(list)
    with subprocess.Popen([arguments.program, "--bursts", str(arguments.bursts), "--seed", str(arguments.seed)],
                          stdout=subprocess.PIPE, text=True) as process:
        for line in process.stdout:
            head, numbers = line.split(" ", 7)[:7], [int(word) for word in line.split()[7:]]
            kind, error_ppb, drift_us, boot_ns, is_ramp = map(int, head[:5])
            told = None if head[5] == "none" else (int(head[5]), int(head[6]))
            exchanges = [numbers[i:i + FIELDS] for i in range(0, len(numbers), FIELDS)]
            expected = proven(exchanges, error_ppb, drift_us, boot_ns)
            count += 1
            ramps += is_ramp
            contradictions += expected is None
            if told != (None if is_ramp else expected):
                differences += 1
                if differences <= 10:
                    print(f"burst {count}: the clock says {told}, the reference {expected}")
            elif told and drift_us == 1 and error_ppb == 50000:
                half_widths[KINDS[kind]].append(Fraction(told[1] - told[0], 2))
    if process.returncode != 0 or count != arguments.bursts:
        sys.exit(f"{arguments.program} ended with {process.returncode} after {count} of {arguments.bursts} bursts")
    print(f"{count} bursts, {contradictions} contradictions, {ramps} ramps, {differences} differences")
    for kind, widths in sorted(half_widths.items()):
        print(f"  {kind}: median half-width {float(statistics.median(widths)) / 1000:.3f} ms of {len(widths)} bursts")
    sys.exit(1 if differences or not contradictions else 0)


if __name__ == "__main__":
    main()
