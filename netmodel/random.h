// SPDX-License-Identifier: Apache-2.0

// Random numbers that are the same for a seed on every platform: all arithmetic is on integers, and no
// distribution of the standard library is used.
#pragma once

#include <cstdint>

namespace skorra::netmodel {

class Random {
 public:
  explicit Random(uint64_t seed) : state_(seed) {}

  uint64_t Next();
  // Uniform from 0 to `bound` - 1; 0 for a bound of 0.
  uint64_t Below(uint64_t bound);
  // True in `permille` of 1000 cases. Draws no number for 0, so that a fault that is switched off does not
  // change the rest of a run.
  bool Chance(int permille);

 private:
  uint64_t state_;
};

// How a delay varies. Delays are never negative, and each distribution has the given mean, so that one can
// replace another.
enum class Distribution {
  kConstant,     // the mean itself
  kUniform,      // 0 to twice the mean
  kExponential,  // many short, few long: a queue
  kNormal,       // the mean of four uniform numbers: a bell from 0 to twice the mean
  kPareto,       // heavy tail: one in a hundred beyond nine times the mean; cut at 100 times
};

const char* DistributionName(Distribution distribution);

// One delay; `mean_us` is below 2^31.
int64_t DrawDelay(Random& random, Distribution distribution, int64_t mean_us);

}  // namespace skorra::netmodel
