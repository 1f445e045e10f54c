// SPDX-License-Identifier: Apache-2.0

// A second reading of the packet's rules, on the raw bytes and in 128-bit numbers: what the fuzz targets hold
// transport/ntp_packet.h against. It shares no code with it, only the names of the answers.
#pragma once

#include <cstdint>
#include <span>

#include "platform/base/time.h"
#include "testing/wide.h"
#include "transport/ntp_packet.h"

namespace skorra::fuzz {

using base::kUsPerSecond;

inline constexpr Wide kTwoTo32 = Wide{1} << 32;
inline constexpr Wide kEraUs = kTwoTo32 * kUsPerSecond;
// From 1601-01-01 to 1900-01-01 there are 299 years with 72 leap days: 1700 and 1800 have none.
inline constexpr Wide kNtpEpochUs = Wide{299 * 365 + 72} * 86400 * kUsPerSecond;

// The nearest number of 64 bits.
int64_t Clamp(Wide value);

// The big-endian number of `size` bytes at `position`.
uint64_t NumberAt(std::span<const uint8_t> bytes, size_t position, size_t size);

// `bytes` has at least the 48 of a header.
ReplyRejection ExpectedHeaderCheck(std::span<const uint8_t> bytes);
ReplyRejection ExpectedReplyCheck(std::span<const uint8_t> bytes, int64_t max_root_distance_us);
KissCode ExpectedKissCode(std::span<const uint8_t> bytes);

bool ExpectedExtensionFields(std::span<const uint8_t> bytes);

// The window of 2^32 s from 1980-01-01, which is 379 years with 91 leap days after 1601-01-01.
inline constexpr Wide kWindowBeginUs = Wide{379 * 365 + 91} * 86400 * kUsPerSecond;
int64_t ExpectedTimestampToUs(NtpTimestamp timestamp);
// The server's two times, the second of them not before the first.
ServerTimes ExpectedServerTimes(NtpTimestamp receive, NtpTimestamp transmit);

NtpResultData ExpectedSample(const ExchangeTimes& times);

}  // namespace skorra::fuzz
