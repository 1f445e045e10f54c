// SPDX-License-Identifier: Apache-2.0

// Are the bytes after a packet's header a row of extension fields? Compared with an answer that is found from
// the back.
//
// Input: those bytes.
#include <algorithm>
#include <cstdint>
#include <span>
#include <vector>

#include "fuzz/check.h"
#include "fuzz/packet_reference.h"
#include "transport/ntp_packet.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const std::span<const uint8_t> bytes(data, size);
  const bool expected = skorra::fuzz::ExpectedExtensionFields(bytes);
  SKORRA_FUZZ_CHECK(skorra::AreExtensionFields(bytes) == expected);
  // The answer follows from the bytes, not from where they lie: here one further, odd where they were even.
  std::vector<uint8_t> moved(size + 1);
  std::copy(bytes.begin(), bytes.end(), moved.begin() + 1);
  SKORRA_FUZZ_CHECK(skorra::AreExtensionFields(std::span<const uint8_t>(moved).subspan(1)) == expected);
  return 0;
}
