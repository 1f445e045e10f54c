// SPDX-License-Identifier: Apache-2.0
#include "netmodel/link.h"

#include <algorithm>

namespace skorra::netmodel {

const char* LinkFateName(LinkFate fate) {
  switch (fate) {
    case LinkFate::kCarried:
      return "carried";
    case LinkFate::kLost:
      return "lost";
    case LinkFate::kPartitioned:
      return "partitioned";
    case LinkFate::kQueueFull:
      return "queue full";
  }
  return "unknown";
}

bool Link::IsPartitioned(int64_t now_ticks_us) const {
  const int64_t elapsed_us = now_ticks_us - begin_ticks_us_;
  return std::any_of(
      options_.partitions.begin(), options_.partitions.end(),
      [&](const LinkOptions::Window& w) { return w.from_us <= elapsed_us && elapsed_us < w.to_us; });
}

std::optional<int64_t> Link::PassQueue(int64_t now_ticks_us, Random& random) {
  if (options_.service_us <= 0) {
    return 0;
  }
  const int64_t elapsed_us = std::max<int64_t>(0, now_ticks_us - queue_ticks_us_);
  queue_ticks_us_ = std::max(queue_ticks_us_, now_ticks_us);
  int64_t work_us = 0;
  if (options_.load_permille > 0) {
    // After a long silence only the load of the last 10 s counts.
    const int64_t recent_us = std::min<int64_t>(elapsed_us, 10000000);
    work_us = recent_us * options_.load_permille / 1000 * static_cast<int64_t>(random.Below(2001)) / 1000;
  }
  backlog_us_ = std::clamp<int64_t>(backlog_us_ + work_us - elapsed_us, 0, options_.queue_limit_us);
  if (backlog_us_ + options_.service_us > options_.queue_limit_us) {
    return std::nullopt;
  }
  backlog_us_ += options_.service_us;
  return backlog_us_;
}

std::vector<Arrival> Link::Transmit(const std::vector<uint8_t>& bytes, int64_t now_ticks_us, Random& random,
                                    LinkFate* fate) {
  std::vector<Arrival> arrivals;
  if (IsPartitioned(now_ticks_us)) {
    *fate = LinkFate::kPartitioned;
    return arrivals;
  }
  if (random.Chance(options_.loss_permille)) {
    *fate = LinkFate::kLost;
    return arrivals;
  }
  const std::optional<int64_t> queued_us = PassQueue(now_ticks_us, random);
  if (!queued_us) {
    *fate = LinkFate::kQueueFull;
    return arrivals;
  }
  *fate = LinkFate::kCarried;
  const int copies = random.Chance(options_.duplicate_permille) ? 2 : 1;
  for (int copy = 0; copy < copies; ++copy) {
    Arrival arrival{now_ticks_us + options_.delay_us + *queued_us, bytes};
    arrival.at_ticks_us += DrawDelay(random, options_.jitter, options_.jitter_us);
    if (random.Chance(options_.reorder_permille)) {
      arrival.at_ticks_us += options_.reorder_us;
    }
    if (!bytes.empty() && random.Chance(options_.corrupt_permille)) {
      for (uint64_t flips = 1 + random.Below(3); flips > 0; --flips) {
        const auto bit = static_cast<size_t>(random.Below(bytes.size() * 8));
        arrival.bytes[bit / 8] ^= static_cast<uint8_t>(1u << (bit % 8));
      }
    }
    arrivals.push_back(std::move(arrival));
  }
  return arrivals;
}

}  // namespace skorra::netmodel
