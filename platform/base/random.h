// SPDX-License-Identifier: Apache-2.0

// Unpredictable numbers for nonces. Real: the kernel's generator. Simulated: the world's seeded generator,
// so that a seed replays a run.
#pragma once

#include <cstdint>

namespace base {
inline namespace skorra_ntp {

// 64 uniformly distributed bits. Any thread.
uint64_t RandUint64();

}  // namespace skorra_ntp
}  // namespace base
