// SPDX-License-Identifier: Apache-2.0
// Clocks of a simulated world that advance with every reading, and a note of each.
#pragma once

#include <vector>

#include "platform/base/time.h"
#include "sim/world.h"

namespace skorra {

// From its making to its end, every reading of a clock lets `step` pass, so that no two readings are the
// same.
class TickingClocks {
 public:
  explicit TickingClocks(sim::World& world, base::TimeDelta step = base::TimeDelta::FromMilliseconds(1))
      : world_(world) {
    world_.SetSeamHook([this, step](sim::SeamCall call) {
      if (call == sim::SeamCall::kWallClock || call == sim::SeamCall::kSteadyClock ||
          call == sim::SeamCall::kSystemOffset) {
        readings.push_back(call);
        world_.Block(step);
      }
    });
  }
  ~TickingClocks() { world_.SetSeamHook(nullptr); }
  TickingClocks(const TickingClocks&) = delete;
  TickingClocks& operator=(const TickingClocks&) = delete;

  std::vector<sim::SeamCall> readings;  // in their order

 private:
  sim::World& world_;
};

}  // namespace skorra
