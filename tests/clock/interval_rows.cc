// SPDX-License-Identifier: Apache-2.0

// Prints random bursts and what Prove makes of them, for interval_reference.py:
//
//   interval_rows --bursts N --seed S
//
// A line holds: the kind of the burst, the oscillator's error in ppb, the drift in microseconds, the boot
// clock in nanoseconds, whether the server moves in it, both ends of the interval or "none none", and for
// each exchange T1, T2, T3, T4, the system clock's offset, the round trip, root delay, root dispersion,
// precision, and whether the stamps of request and reply are the kernel's.
#include <cinttypes>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "clock/interval.h"
#include "clock/proven_burst.h"
#include "clock/reading.h"
#include "tests/clock/random_burst.h"

namespace skorra {
namespace {

void PrintBurst(netmodel::Random& random) {
  const auto kind = static_cast<BurstKind>(random.Below(static_cast<uint64_t>(BurstKind::kCount)));
  const RandomBurst burst = MakeBurst(random, kind);
  const int64_t error_ppb =
      static_cast<int64_t>(random.Below(2) == 0 ? 50000 : 1000 + random.Below(100000000));
  const int64_t drift_us = static_cast<int64_t>(random.Below(3) == 0 ? random.Below(100000) : 1);
  const int64_t boot_ns = burst.end_ticks_us * 1000 + static_cast<int64_t>(random.Below(5000000000));
  const ClocksReading at{{boot_ns, 0, 0}, 0};
  const ProvenBurst proven = Prove(burst.exchanges, at, GrowthFromPpb(error_ppb), drift_us);
  std::printf("%d %" PRId64 " %" PRId64 " %" PRId64 " %d ", static_cast<int>(kind), error_ppb, drift_us,
              boot_ns,
              IsRamp(burst.exchanges, drift_us) || AreWaysOpposed(burst.exchanges, drift_us) ? 1 : 0);
  if (proven.interval) {
    std::printf("%" PRId64 " %" PRId64, proven.interval->earliest_us, proven.interval->latest_us);
  } else {
    std::printf("none none");
  }
  for (const NtpExchange& e : burst.exchanges) {
    const auto is_kernel = [](NtpStampSource source) { return source == NtpStampSource::kKernel ? 1 : 0; };
    std::printf(" %" PRId64 " %" PRId64 " %" PRId64 " %" PRId64 " %" PRId64 " %" PRId64 " %" PRId64
                " %" PRId64 " %d %d %d",
                e.send_local_us, e.server_receive_us, e.server_transmit_us, e.receive_local_us,
                e.system_offset_from_steady_us, e.sample.rtt_us, e.root_delay_us, e.root_dispersion_us,
                e.precision, is_kernel(e.send_stamp), is_kernel(e.receive_stamp));
  }
  std::printf("\n");
}

}  // namespace
}  // namespace skorra

int main(int argc, char** argv) {
  if (argc != 5 || std::strcmp(argv[1], "--bursts") != 0 || std::strcmp(argv[3], "--seed") != 0) {
    std::fputs("usage: interval_rows --bursts N --seed S\n", stderr);
    return 64;
  }
  skorra::netmodel::Random random(std::strtoull(argv[4], nullptr, 10));
  for (long i = std::atol(argv[2]); i > 0; --i) {
    skorra::PrintBurst(random);
  }
  return std::fflush(stdout) == 0 && std::ferror(stdout) == 0 ? 0 : 1;
}
