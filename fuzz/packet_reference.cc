// SPDX-License-Identifier: Apache-2.0
#include "fuzz/packet_reference.h"

#include <algorithm>
#include <cstring>
#include <limits>
#include <vector>

#include "fuzz/check.h"

namespace skorra::fuzz {

int64_t Clamp(Wide value) {
  return static_cast<int64_t>(
      std::clamp<Wide>(value, std::numeric_limits<int64_t>::min(), std::numeric_limits<int64_t>::max()));
}

uint64_t NumberAt(std::span<const uint8_t> bytes, size_t position, size_t size) {
  return Input(bytes.subspan(position)).Number(size);
}

ReplyRejection ExpectedHeaderCheck(std::span<const uint8_t> bytes) {
  const int version = bytes[0] / 8 % 8;
  if (bytes[0] % 8 != 4) {
    return ReplyRejection::kMode;
  }
  return version == 3 || version == 4 ? ReplyRejection::kNone : ReplyRejection::kVersion;
}

ReplyRejection ExpectedReplyCheck(std::span<const uint8_t> bytes, int64_t max_root_distance_us) {
  // In units of 2^-17 s.
  const Wide root_distance = Wide{NumberAt(bytes, 4, 4)} + 2 * Wide{NumberAt(bytes, 8, 4)};
  const uint64_t receive = NumberAt(bytes, 32, 8);
  const uint64_t transmit = NumberAt(bytes, 40, 8);
  const struct {
    bool is_bad;
    ReplyRejection rejection;
  } checks[] = {
      {bytes[1] == 0, ReplyRejection::kStratumZero},
      {bytes[0] / 64 == 3, ReplyRejection::kLeap},
      {bytes[1] >= 16, ReplyRejection::kStratum},
      {receive == 0, ReplyRejection::kZeroReceive},
      {transmit == 0, ReplyRejection::kZeroTransmit},
      {transmit - receive >= uint64_t{1} << 63, ReplyRejection::kTransmitBeforeReceive},
      {root_distance * kUsPerSecond / (1 << 17) > max_root_distance_us, ReplyRejection::kRootDistance},
  };
  const auto* const first =
      std::find_if(std::begin(checks), std::end(checks), [](const auto& check) { return check.is_bad; });
  return first == std::end(checks) ? ReplyRejection::kNone : first->rejection;
}

KissCode ExpectedKissCode(std::span<const uint8_t> bytes) {
  const auto* const code = bytes.data() + 12;
  const struct {
    const char* letters;
    KissCode code;
  } known[] = {{"RATE", KissCode::kRate},
               {"DENY", KissCode::kDeny},
               {"RSTR", KissCode::kRstr},
               {"INIT", KissCode::kInit},
               {"STEP", KissCode::kStep}};
  if (bytes[1] != 0 || !std::all_of(code, code + 4, [](uint8_t c) { return c >= 0x21 && c <= 0x7e; })) {
    return KissCode::kNone;
  }
  for (const auto& entry : known) {
    if (std::memcmp(code, entry.letters, 4) == 0) {
      return entry.code;
    }
  }
  return KissCode::kUnknown;
}

// Whether a row of fields begins at each position, the last position first.
bool ExpectedExtensionFields(std::span<const uint8_t> bytes) {
  const size_t size = bytes.size();
  if (size % 4 != 0) {
    return false;
  }
  std::vector<bool> is_row(size + 1, false);
  is_row[size] = true;
  for (size_t i = size; i >= 4;) {
    i -= 4;
    const auto length = static_cast<size_t>(NumberAt(bytes, i + 2, 2));
    if (length % 4 != 0 || length < 16 || length > size - i) {
      continue;
    }
    const bool is_last = length == size - i;
    is_row[i] = is_last ? length >= 28 : is_row[i + length];
  }
  return is_row[0];
}

int64_t ExpectedTimestampToUs(NtpTimestamp timestamp) {
  // In units of 2^-32 us, from the era before the window on.
  Wide exact = kNtpEpochUs * kTwoTo32 + Wide{timestamp} * kUsPerSecond;
  while (exact < kWindowBeginUs * kTwoTo32) {
    exact += kEraUs * kTwoTo32;
  }
  return static_cast<int64_t>((exact + kTwoTo32 / 2) / kTwoTo32);
}

ServerTimes ExpectedServerTimes(NtpTimestamp receive, NtpTimestamp transmit) {
  // The second time is as much later as the time stamps say, modulo an era; in units of 2^-32 us.
  Wide exact = kNtpEpochUs * kTwoTo32 + Wide{receive} * kUsPerSecond;
  while (exact < kWindowBeginUs * kTwoTo32) {
    exact += kEraUs * kTwoTo32;
  }
  exact += Wide{transmit - receive} * kUsPerSecond;
  return {ExpectedTimestampToUs(receive), static_cast<int64_t>((exact + kTwoTo32 / 2) / kTwoTo32)};
}

NtpResultData ExpectedSample(const ExchangeTimes& times) {
  const Wide t2_minus_t1 = Clamp(Wide{times.server_receive_ntp_us} - times.send_local_us);
  const Wide t3_minus_t4 = Clamp(Wide{times.server_transmit_ntp_us} - times.receive_local_us);
  const Wide t4_minus_t1 = Clamp(Wide{times.receive_local_us} - times.send_local_us);
  const Wide t3_minus_t2 = Clamp(Wide{times.server_transmit_ntp_us} - times.server_receive_ntp_us);
  return {Clamp(t2_minus_t1 + t3_minus_t4) / 2, Clamp(t4_minus_t1 - t3_minus_t2)};
}

}  // namespace skorra::fuzz
