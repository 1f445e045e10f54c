// SPDX-License-Identifier: Apache-2.0
#include "platform/base/random.h"

#include <errno.h>
#include <fcntl.h>
#include <sys/random.h>
#include <unistd.h>

#include <array>
#include <atomic>
#include <span>
#include <utility>

#include "platform/base/clock.h"
#include "platform/base/fork.h"
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

// What the kernel gave at once, for the requests of a burst: each number is handed out once. A forked child
// draws its own.
struct Supply {
  std::array<uint64_t, 20> numbers{};
  size_t left = 0;
  uint32_t fork_generation = 0;
};

}  // namespace

uint64_t RandUint64() {
  thread_local Supply supply;
  const std::span<unsigned char> bytes(reinterpret_cast<unsigned char*>(supply.numbers.data()),
                                       sizeof supply.numbers);
  if (std::exchange(supply.fork_generation, ForkGeneration()) != ForkGeneration()) {
    supply.left = 0;
  }
  if (supply.left == 0 && (FillFromKernel(bytes) || FillFromDevice(bytes))) {
    supply.left = supply.numbers.size();
  }
  return supply.left == 0 ? MixClocks() : std::exchange(supply.numbers[--supply.left], 0);
}

}  // namespace skorra_ntp
}  // namespace base
