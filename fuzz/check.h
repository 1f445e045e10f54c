// SPDX-License-Identifier: Apache-2.0

// Shared by the fuzz targets: a check that ends the run, and numbers out of the input.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <span>

// Ends the process, as a sanitizer does, so that the fuzzer keeps the input. Not switched off with
// assertions.
#define SKORRA_FUZZ_CHECK(condition) SKORRA_FUZZ_CHECK_NAMED(condition, "")
// The same, with a word about what was checked.
#define SKORRA_FUZZ_CHECK_NAMED(condition, name)                                                     \
  do {                                                                                               \
    if (!(condition)) {                                                                              \
      std::fprintf(stderr, "%s:%d: does not hold: %s %s\n", __FILE__, __LINE__, #condition, (name)); \
      std::abort();                                                                                  \
    }                                                                                                \
  } while (false)

namespace skorra::fuzz {

// The input from front to back. After its end all bytes are zero.
class Input {
 public:
  explicit Input(std::span<const uint8_t> bytes) : bytes_(bytes) {}

  bool empty() const { return bytes_.empty(); }
  uint8_t Byte() {
    if (bytes_.empty()) {
      return 0;
    }
    const uint8_t byte = bytes_.front();
    bytes_ = bytes_.subspan(1);
    return byte;
  }
  // In network order, like the packets.
  uint64_t Number(size_t bytes) {
    uint64_t number = 0;
    for (size_t i = 0; i < bytes; ++i) {
      number = number << 8 | Byte();
    }
    return number;
  }
  int64_t Signed64() { return static_cast<int64_t>(Number(8)); }

 private:
  std::span<const uint8_t> bytes_;
};

}  // namespace skorra::fuzz
