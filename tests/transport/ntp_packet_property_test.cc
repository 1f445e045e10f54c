// SPDX-License-Identifier: Apache-2.0

// Properties of the packet codec over generated inputs. RapidCheck prints the seed of a failing run; set
// RC_PARAMS="seed=..." to repeat it. ctest sets it from the commit.
#include <gtest/gtest.h>
#include <rapidcheck/gtest.h>

#include <algorithm>
#include <cstdint>
#include <vector>

#include "transport/ntp_packet.h"

namespace skorra {
namespace {

// Any bits, small numbers not being likelier than large ones.
template <class T>
T AnyBits() {
  return static_cast<T>(*rc::gen::noShrink(rc::gen::resize(rc::kNominalSize, rc::gen::arbitrary<T>())));
}

NtpPacket AnyPacket() {
  NtpPacket packet;
  packet.leap_indicator = *rc::gen::inRange<uint8_t>(0, 4);
  packet.version = *rc::gen::inRange<uint8_t>(0, 8);
  packet.mode = *rc::gen::inRange<uint8_t>(0, 8);
  packet.stratum = AnyBits<uint8_t>();
  packet.poll = AnyBits<int8_t>();
  packet.precision = AnyBits<int8_t>();
  packet.root_delay = AnyBits<uint32_t>();
  packet.root_dispersion = AnyBits<uint32_t>();
  packet.reference_id = AnyBits<uint32_t>();
  packet.reference_timestamp = AnyBits<uint64_t>();
  packet.origin_timestamp = AnyBits<uint64_t>();
  packet.receive_timestamp = AnyBits<uint64_t>();
  packet.transmit_timestamp = AnyBits<uint64_t>();
  return packet;
}

RC_GTEST_PROP(NtpPacketPropertyTest, AnEncodedPacketDecodesToItself, ()) {
  const NtpPacket packet = AnyPacket();
  RC_ASSERT(DecodePacket(EncodePacket(packet)) == packet);
}

RC_GTEST_PROP(NtpPacketPropertyTest, AnyBytesAreShortOrEncodeToTheirFirstFortyEight, ()) {
  const auto size = *rc::gen::inRange<size_t>(0, 2 * kNtpPacketSize);
  const auto bytes = *rc::gen::container<std::vector<uint8_t>>(size, rc::gen::arbitrary<uint8_t>());
  const auto packet = DecodePacket(bytes);
  RC_ASSERT(packet.has_value() == (size >= kNtpPacketSize));
  if (packet) {
    const auto encoded = EncodePacket(*packet);
    RC_ASSERT(std::equal(encoded.begin(), encoded.end(), bytes.begin()));
  }
}

RC_GTEST_PROP(NtpPacketPropertyTest, AShortDurationIsRoundedUpByLessThanAMicrosecond, ()) {
  const auto duration = AnyBits<uint32_t>();
  const int64_t exact = int64_t{duration} * 1000000;  // in units of 2^-16 us
  const int64_t rounded = NtpShortToUs(duration) * 65536;
  RC_ASSERT(rounded >= exact);
  RC_ASSERT(rounded - exact < 65536);
}

RC_GTEST_PROP(NtpPacketPropertyTest, EveryTimeInTheWindowSurvivesItsTimeStamp, ()) {
  const int64_t us = kTimeWindowBeginUs + *rc::gen::inRange<int64_t>(0, kNtpEraUs);
  RC_ASSERT(NtpTimestampToUs(NtpTimestampFromUs(us)) == us);
}

RC_GTEST_PROP(NtpPacketPropertyTest, EveryTimeStampGivesATimeInTheWindow, ()) {
  const auto timestamp = AnyBits<NtpTimestamp>();
  const int64_t us = NtpTimestampToUs(timestamp);
  RC_ASSERT(us >= kTimeWindowBeginUs);
  // The end itself is a time before it, rounded up.
  RC_ASSERT(us <= kTimeWindowBeginUs + kNtpEraUs);
  // The rounding of a time stamp moves it by half a microsecond, 2148 units, at the most.
  const NtpTimestamp rounded = NtpTimestampFromUs(us);
  RC_ASSERT(std::min(rounded - timestamp, timestamp - rounded) <= 2148u);
}

}  // namespace
}  // namespace skorra
