// SPDX-License-Identifier: Apache-2.0

// Arithmetic on 64-bit integers without undefined behaviour at the edges.
//
// Wrapping: the result is exact modulo 2^64. For sums in which a value without meaning may take part, such as
// the offset that stands for "none", and for differences of counters that wrap.
// Saturating: a result that does not fit becomes the largest or smallest number, whichever is nearer. For
// values from outside, and for limits that stand for "never".
//
// Pure functions, any thread.
#pragma once

#include <cstdint>
#include <limits>

namespace base {
inline namespace skorra_ntp {

constexpr int64_t WrappingAdd(int64_t a, int64_t b) {
  return static_cast<int64_t>(static_cast<uint64_t>(a) + static_cast<uint64_t>(b));
}

constexpr int64_t WrappingSubtract(int64_t a, int64_t b) {
  return static_cast<int64_t>(static_cast<uint64_t>(a) - static_cast<uint64_t>(b));
}

constexpr int64_t WrappingMultiply(int64_t a, int64_t b) {
  return static_cast<int64_t>(static_cast<uint64_t>(a) * static_cast<uint64_t>(b));
}

// The absolute value. That of the smallest number does not exist and wraps around to the smallest number.
constexpr int64_t WrappingMagnitude(int64_t value) { return value < 0 ? WrappingSubtract(0, value) : value; }

constexpr int64_t SaturatingAdd(int64_t a, int64_t b) {
  int64_t sum = 0;
  if (__builtin_add_overflow(a, b, &sum)) {
    return b < 0 ? std::numeric_limits<int64_t>::min() : std::numeric_limits<int64_t>::max();
  }
  return sum;
}

constexpr int64_t SaturatingSubtract(int64_t a, int64_t b) {
  int64_t difference = 0;
  if (__builtin_sub_overflow(a, b, &difference)) {
    return b < 0 ? std::numeric_limits<int64_t>::max() : std::numeric_limits<int64_t>::min();
  }
  return difference;
}

// value * factor.
constexpr int64_t SaturatingScale(int64_t value, int64_t factor) {
  int64_t product = 0;
  if (__builtin_mul_overflow(value, factor, &product)) {
    return (value < 0) == (factor < 0) ? std::numeric_limits<int64_t>::max()
                                       : std::numeric_limits<int64_t>::min();
  }
  return product;
}

constexpr int64_t SaturatingNegate(int64_t value) { return SaturatingSubtract(0, value); }

}  // namespace skorra_ntp
}  // namespace base
