// SPDX-License-Identifier: Apache-2.0

// The shape of a burst: how the time manager asks one address.
#pragma once

#include <cstdint>

namespace skorra {

inline constexpr uint32_t kCallsPerBurst = 20;  // calls of `NtpTimePacketHandler::SendPacket`
inline constexpr int64_t kCallSpacingUs = 10000;

}  // namespace skorra
