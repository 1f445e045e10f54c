// SPDX-License-Identifier: Apache-2.0

// Random bursts of exchanges, the same for a seed on every platform.
#pragma once

#include <cstdint>
#include <vector>

#include "netmodel/random.h"
#include "platform/base/time.h"
#include "transport/ntp_exchange.h"

namespace skorra {

enum class BurstKind {
  kSymmetric,      // 10 ms each way, and 5 ms on average of a queue
  kOneSided,       // 10 ms each way, and 50 ms on average of a queue on the way there
  kLate,           // 10 ms each way, and six of ten requests 40 to 80 ms late
  kBuildingUp,     // a queue that grows by 2 ms with each request
  kContradicting,  // symmetric, with one reply 200 ms ahead of the others
  kCount
};

struct RandomBurst {
  BurstKind kind = BurstKind::kSymmetric;
  std::vector<NtpExchange> exchanges;
  int64_t end_ticks_us = 0;
  int64_t offset_us = 0;  // of the true time since 1970 and the steady ticks
};

// 15 to 20 exchanges with a server that is right within its root distance.
inline RandomBurst MakeBurst(netmodel::Random& random, BurstKind kind) {
  const auto between = [&](int64_t first, int64_t last) {
    return first + static_cast<int64_t>(random.Below(static_cast<uint64_t>(last - first + 1)));
  };
  const auto queue = [&](int64_t mean_us) {
    return netmodel::DrawDelay(random, netmodel::Distribution::kExponential, mean_us);
  };
  RandomBurst burst;
  burst.kind = kind;
  burst.offset_us = between(0, 2000000000) * base::kUsPerSecond;
  const int64_t system_us = base::kWindowsToUnixEpochUs + burst.offset_us + between(-1000000000, 1000000000);
  int64_t ticks_us = between(0, 1000000000000);
  const int64_t count = between(15, 20);
  const int64_t liar = between(0, count - 1);
  for (int64_t i = 0; i < count; ++i) {
    int64_t there_us = 10000 + queue(kind == BurstKind::kOneSided ? 50000 : 5000);
    const int64_t back_us = 10000 + queue(5000);
    if (kind == BurstKind::kLate && random.Chance(600)) {
      there_us = 10000 + between(40000, 80000);
    } else if (kind == BurstKind::kBuildingUp) {
      there_us = 10000 + 2000 * i + queue(1000);
    }
    NtpExchange e;
    e.system_offset_from_steady_us = system_us;
    e.root_delay_us = between(0, 300);
    e.root_dispersion_us = between(0, 100);
    e.precision = static_cast<int8_t>(between(-26, -16));
    e.send_stamp = random.Chance(500) ? NtpStampSource::kKernel : NtpStampSource::kUser;
    e.receive_stamp = random.Chance(500) ? NtpStampSource::kKernel : NtpStampSource::kUser;
    const int64_t lie_us = kind == BurstKind::kContradicting && i == liar ? 200000 : 0;
    const int64_t work_us = between(0, 500);
    e.send_local_us = ticks_us + system_us;
    e.server_receive_us = ticks_us + there_us + burst.offset_us + base::kWindowsToUnixEpochUs + lie_us;
    e.server_transmit_us = e.server_receive_us + work_us;
    e.receive_local_us = ticks_us + there_us + work_us + back_us + system_us;
    e.sample = {((e.server_receive_us - e.send_local_us) + (e.server_transmit_us - e.receive_local_us)) / 2,
                there_us + back_us};
    burst.exchanges.push_back(e);
    ticks_us += there_us + work_us + back_us + between(0, 200000);
  }
  burst.end_ticks_us = ticks_us;
  return burst;
}

}  // namespace skorra
