// SPDX-License-Identifier: Apache-2.0
#include "netmodel/random.h"

#include <algorithm>

namespace skorra::netmodel {
namespace {

constexpr int kFractionBits = 16;
constexpr int64_t kOne = int64_t{1} << kFractionBits;
constexpr int64_t kLn2 = 45426;  // ln 2 with 16 fraction bits
constexpr int64_t kParetoCut = 100;

// -ln(u) with 16 fraction bits for u = x / 2^32, where x is 1 to 2^32 - 1. Each squaring of the mantissa
// yields the next binary digit of its logarithm.
int64_t NegativeLogarithm(uint32_t x) {
  int shift = 0;
  uint64_t mantissa = x;
  while (mantissa < (uint64_t{1} << 31)) {
    mantissa <<= 1;
    ++shift;
  }
  int64_t fraction = 0;
  for (int bit = 0; bit < kFractionBits; ++bit) {
    mantissa = (mantissa * mantissa) >> 31;
    fraction <<= 1;
    if (mantissa >= (uint64_t{1} << 32)) {
      mantissa >>= 1;
      fraction |= 1;
    }
  }
  // u = 2^-(1 + shift) * (1 + f), where `fraction` is log2(1 + f).
  const int64_t log2 = (1 + shift) * kOne - fraction;
  return log2 * kLn2 / kOne;
}

uint32_t SquareRoot(uint64_t x) {
  uint64_t root = 0;
  for (uint64_t bit = uint64_t{1} << 31; bit != 0; bit >>= 1) {
    if ((root | bit) * (root | bit) <= x) {
      root |= bit;
    }
  }
  return static_cast<uint32_t>(root);
}

uint32_t NonZero32(Random& random) {
  return std::max(uint32_t{1}, static_cast<uint32_t>(random.Next() >> 32));
}

}  // namespace

uint64_t Random::Next() {
  // splitmix64: a Weyl sequence through a 64-bit mixing function. Not secure; no attacker of a simulated
  // world guesses it.
  state_ += 0x9E3779B97F4A7C15u;
  uint64_t mixed = state_;
  mixed = (mixed ^ (mixed >> 30)) * 0xBF58476D1CE4E5B9u;
  mixed = (mixed ^ (mixed >> 27)) * 0x94D049BB133111EBu;
  return mixed ^ (mixed >> 31);
}

// The remainder's bias is bound / 2^64: too small to show in a simulation.
uint64_t Random::Below(uint64_t bound) { return bound == 0 ? 0 : Next() % bound; }

bool Random::Chance(int permille) { return permille > 0 && Below(1000) < static_cast<uint64_t>(permille); }

const char* DistributionName(Distribution distribution) {
  switch (distribution) {
    case Distribution::kConstant:
      return "constant";
    case Distribution::kUniform:
      return "uniform";
    case Distribution::kExponential:
      return "exponential";
    case Distribution::kNormal:
      return "normal";
    case Distribution::kPareto:
      return "pareto";
  }
  return "unknown";
}

int64_t DrawDelay(Random& random, Distribution distribution, int64_t mean_us) {
  if (mean_us <= 0) {
    return 0;
  }
  const auto uniform = [&] {
    return static_cast<int64_t>(random.Below(static_cast<uint64_t>(2 * mean_us + 1)));
  };
  switch (distribution) {
    case Distribution::kConstant:
      return mean_us;
    case Distribution::kUniform:
      return uniform();
    case Distribution::kExponential:
      return mean_us * NegativeLogarithm(NonZero32(random)) / kOne;
    case Distribution::kNormal: {
      int64_t sum_us = 0;
      for (int i = 0; i < 4; ++i) {
        sum_us += uniform();
      }
      return sum_us / 4;
    }
    case Distribution::kPareto: {
      // The tail falls with the square: mean * (1 / sqrt(u) - 1).
      const int64_t root = SquareRoot(static_cast<uint64_t>(NonZero32(random)) << 32);
      const int64_t inverse = (int64_t{1} << (32 + kFractionBits)) / root;
      return mean_us * std::min(inverse - kOne, kParetoCut * kOne) / kOne;
    }
  }
  return 0;
}

}  // namespace skorra::netmodel
