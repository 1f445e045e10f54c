// SPDX-License-Identifier: Apache-2.0

// Whether the kernel's time stamps keep what they are there for, judged from exchanges whose true offset is
// zero.
//
// The worst offset of a run is a matter of luck: one exchange in thousands decides it, on either side. So
// each exchange is judged alone. It is disturbed when one kind of stamp is off by kDisturbedUs or more, and
// mended when the kernel's stamps are off by a tenth of the user-space ones at most. The figure is the share
// of the disturbed exchanges that is mended; a few exchanges more or less hardly move it.
#pragma once

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <vector>

namespace skorra {

struct StampSample {
  int64_t kernel_offset_us = 0;
  int64_t user_offset_us = 0;
};

inline constexpr int64_t kDisturbedUs = 200;
inline constexpr int64_t kMendedRatio = 10;
inline constexpr size_t kTargetPercent = 80;
// With fewer disturbed exchanges there is nothing to judge: nothing competed with this process.
inline constexpr size_t kLeastDisturbed = 20;

enum class StampVerdict { kGood, kTooFewDisturbed, kBad };

struct StampJudgement {
  size_t disturbed = 0;
  size_t mended = 0;
  StampVerdict verdict = StampVerdict::kTooFewDisturbed;
};

inline StampJudgement JudgeStamps(const std::vector<StampSample>& samples) {
  StampJudgement judgement;
  for (const StampSample& sample : samples) {
    const int64_t kernel_us = std::abs(sample.kernel_offset_us);
    const int64_t user_us = std::abs(sample.user_offset_us);
    if (std::max(kernel_us, user_us) >= kDisturbedUs) {
      ++judgement.disturbed;
      judgement.mended += kernel_us * kMendedRatio <= user_us ? 1 : 0;
    }
  }
  if (judgement.disturbed >= kLeastDisturbed) {
    judgement.verdict = judgement.mended * 100 >= judgement.disturbed * kTargetPercent ? StampVerdict::kGood
                                                                                       : StampVerdict::kBad;
  }
  return judgement;
}

}  // namespace skorra
