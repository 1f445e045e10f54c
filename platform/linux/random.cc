// SPDX-License-Identifier: Apache-2.0
#include "platform/base/random.h"

#include <errno.h>
#include <fcntl.h>
#include <sys/random.h>
#include <unistd.h>

#include <atomic>
#include <span>

#include "platform/base/clock.h"
#include "platform/base/time.h"

namespace base {
inline namespace skorra_ntp {

namespace {

// How often to make a call again that a signal interrupted. A sandbox may interrupt each one.
constexpr int kMaxInterruptions = 100;

// Fills `bytes` by calls of `read_some(data, size)` that may deliver less or be interrupted.
template <class ReadSome>
bool Fill(std::span<unsigned char> bytes, ReadSome read_some) {
  int interruptions = 0;
  while (!bytes.empty()) {
    const ssize_t got = read_some(bytes.data(), bytes.size());
    if (got > 0) {
      bytes = bytes.subspan(static_cast<size_t>(got));
    } else if (got == 0 || errno != EINTR || ++interruptions > kMaxInterruptions) {
      return false;
    }
  }
  return true;
}

// GRND_NONBLOCK: soon after the machine starts, the call could otherwise wait for entropy without a limit.
bool FillFromKernel(std::span<unsigned char> bytes) {
  return Fill(bytes, [](unsigned char* data, size_t size) { return getrandom(data, size, GRND_NONBLOCK); });
}

bool FillFromDevice(std::span<unsigned char> bytes) {
  const int fd = open("/dev/urandom", O_RDONLY | O_CLOEXEC);
  if (fd < 0) {
    return false;
  }
  const bool is_filled = Fill(bytes, [fd](unsigned char* data, size_t size) { return read(fd, data, size); });
  close(fd);
  return is_filled;
}

// The last resort in a sandbox that has neither: distinct values that are hard to guess from outside, except
// for an attacker who knows the machine's clocks. (The mixing is that of the SplitMix64 generator.)
uint64_t MixClocks() {
  static std::atomic<uint64_t> count{0};
  uint64_t value = static_cast<uint64_t>(GetSteadyTimeTicks()) ^
                   (static_cast<uint64_t>(Time::Now().ToDeltaSinceWindowsEpoch().InMicroseconds()) << 20) ^
                   (static_cast<uint64_t>(getpid()) << 44) ^ reinterpret_cast<uintptr_t>(&value);
  value += (count.fetch_add(1, std::memory_order_relaxed) + 1) * 0x9e3779b97f4a7c15;
  value = (value ^ (value >> 30)) * 0xbf58476d1ce4e5b9;
  value = (value ^ (value >> 27)) * 0x94d049bb133111eb;
  return value ^ (value >> 31);
}

}  // namespace

uint64_t RandUint64() {
  uint64_t value = 0;
  const std::span<unsigned char> bytes(reinterpret_cast<unsigned char*>(&value), sizeof value);
  if (FillFromKernel(bytes) || FillFromDevice(bytes)) {
    return value;
  }
  return MixClocks();
}

}  // namespace skorra_ntp
}  // namespace base
