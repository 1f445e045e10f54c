// SPDX-License-Identifier: Apache-2.0

// The codec: any 48 bytes decode, encode to themselves, and are judged as a second reading of the same rules
// judges the raw bytes. The arithmetic of time is held against 128-bit numbers.
//
// Input: a packet of 48 bytes, then what the other functions are asked, 8 bytes each and zero where missing:
// the limit of the root distance, a time stamp, a time, T1, T2, T3, T4.
#include <algorithm>
#include <cstdint>
#include <span>

#include "fuzz/check.h"
#include "fuzz/packet_reference.h"
#include "transport/ntp_packet.h"

namespace skorra {
namespace {

using namespace fuzz;

void CheckRoundTrip(std::span<const uint8_t> bytes, const NtpPacket& packet) {
  const auto encoded = EncodePacket(packet);
  SKORRA_FUZZ_CHECK(std::equal(encoded.begin(), encoded.end(), bytes.begin()));
  SKORRA_FUZZ_CHECK(DecodePacket(encoded) == packet);
  SKORRA_FUZZ_CHECK(DecodePacket(bytes.first(kNtpPacketSize)) == packet);
  SKORRA_FUZZ_CHECK(!DecodePacket(bytes.first(kNtpPacketSize - 1)));
  NtpPacket overflowing = packet;
  overflowing.leap_indicator |= 0xfc;
  overflowing.version |= 0xf8;
  overflowing.mode |= 0xf8;
  SKORRA_FUZZ_CHECK(EncodePacket(overflowing) == encoded);
}

void CheckRootDistance(std::span<const uint8_t> bytes, const NtpPacket& packet) {
  const Wide exact =
      (Wide{NumberAt(bytes, 4, 4)} + 2 * Wide{NumberAt(bytes, 8, 4)}) * kUsPerSecond;  // * 2^-17
  const Wide error = exact - (Wide{RootDistanceUs(packet)} << 17);
  SKORRA_FUZZ_CHECK(error >= 0 && error < 1 << 17);
}

// How far two times are apart when whole eras do not count, both in units of 2^-32 us.
Wide DistanceWithinEra(Wide a, Wide b) {
  const Wide era = kEraUs * kTwoTo32;
  const Wide distance = ((a - b) % era + era) % era;
  return std::min(distance, era - distance);
}

void CheckTimestampToUs(NtpTimestamp timestamp) {
  const int64_t us = NtpTimestampToUs(timestamp);
  SKORRA_FUZZ_CHECK(us == ExpectedTimestampToUs(timestamp));
  const Wide exact = Wide{timestamp} * kUsPerSecond;
  SKORRA_FUZZ_CHECK(DistanceWithinEra((us - kNtpEpochUs) * kTwoTo32, exact) <= kTwoTo32 / 2);
}

void CheckTimestampFromUs(int64_t us) {
  const NtpTimestamp timestamp = NtpTimestampFromUs(us);
  const Wide exact = (us - kNtpEpochUs) * kTwoTo32;
  SKORRA_FUZZ_CHECK(DistanceWithinEra(Wide{timestamp} * kUsPerSecond, exact) <= kUsPerSecond / 2);
  if (us >= kWindowBeginUs && us < kWindowBeginUs + kEraUs) {
    SKORRA_FUZZ_CHECK(NtpTimestampToUs(timestamp) == us);
  }
}

void CheckServerTimes(const NtpPacket& packet) {
  if (packet.transmit_timestamp - packet.receive_timestamp >= uint64_t{1} << 63) {
    return;  // no reply that passed its checks
  }
  const ServerTimes times = ReadServerTimes(packet);
  const ServerTimes expected = ExpectedServerTimes(packet.receive_timestamp, packet.transmit_timestamp);
  SKORRA_FUZZ_CHECK(times.receive_ntp_us == expected.receive_ntp_us);
  SKORRA_FUZZ_CHECK(times.transmit_ntp_us == expected.transmit_ntp_us);
}

void CheckSample(const ExchangeTimes& times) {
  const NtpResultData sample = ComputeSample(times);
  const NtpResultData expected = ExpectedSample(times);
  SKORRA_FUZZ_CHECK(sample.offset_us == expected.offset_us && sample.rtt_us == expected.rtt_us);
  SKORRA_FUZZ_CHECK(sample.offset_us != kNoOffsetUs);
}

void CheckAll(std::span<const uint8_t> bytes) {
  const auto packet = DecodePacket(bytes);
  SKORRA_FUZZ_CHECK(packet.has_value() == (bytes.size() >= 48));
  if (!packet) {
    return;
  }
  Input input(bytes.subspan(kNtpPacketSize));
  const int64_t max_root_distance_us = input.Signed64();
  const auto timestamp = static_cast<NtpTimestamp>(input.Signed64());
  const int64_t us = input.Signed64();
  CheckRoundTrip(bytes, *packet);
  SKORRA_FUZZ_CHECK(CheckHeader(*packet) == ExpectedHeaderCheck(bytes));
  SKORRA_FUZZ_CHECK(CheckReply(*packet, max_root_distance_us) ==
                    ExpectedReplyCheck(bytes, max_root_distance_us));
  SKORRA_FUZZ_CHECK(ReadKissCode(*packet) == ExpectedKissCode(bytes));
  CheckRootDistance(bytes, *packet);
  CheckTimestampToUs(packet->receive_timestamp);
  CheckTimestampToUs(timestamp);
  CheckTimestampFromUs(us);
  CheckServerTimes(*packet);
  ExchangeTimes times;
  times.send_local_us = input.Signed64();
  times.server_receive_ntp_us = input.Signed64();
  times.server_transmit_ntp_us = input.Signed64();
  times.receive_local_us = input.Signed64();
  CheckSample(times);
}

}  // namespace
}  // namespace skorra

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  skorra::CheckAll({data, size});
  return 0;
}
