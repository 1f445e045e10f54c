// SPDX-License-Identifier: Apache-2.0
#include "platform/base/int_math.h"

#include <gtest/gtest.h>

namespace base {
namespace {

constexpr int64_t kMax = std::numeric_limits<int64_t>::max();
constexpr int64_t kMin = std::numeric_limits<int64_t>::min();

struct Case {
  int64_t a;
  int64_t b;
  int64_t wrapping;
  int64_t saturating;
  const char* what;
};

TEST(IntMathTest, SumsWrapOrSaturateWhereTheyDoNotFit) {
  const Case cases[] = {
      {5, -7, -2, -2, "an ordinary sum"},
      {kMax - 1, 1, kMax, kMax, "the largest number is reached"},
      {kMax, 1, kMin, kMax, "one more does not fit"},
      {kMax, kMax, -2, kMax, "the largest sum"},
      {kMin + 1, -1, kMin, kMin, "the smallest number is reached"},
      {kMin, -1, kMax, kMin, "one less does not fit"},
      {kMin, kMin, 0, kMin, "the smallest sum"},
      {kMax, kMin, -1, -1, "opposite ends always fit"},
      {kMin, 0, kMin, kMin, "nothing is added to the smallest number"},
      {kMax, 0, kMax, kMax, "nothing is added to the largest number"},
  };
  for (const Case& c : cases) {
    EXPECT_EQ(WrappingAdd(c.a, c.b), c.wrapping) << c.what;
    EXPECT_EQ(WrappingAdd(c.b, c.a), c.wrapping) << c.what;
    EXPECT_EQ(SaturatingAdd(c.a, c.b), c.saturating) << c.what;
    EXPECT_EQ(SaturatingAdd(c.b, c.a), c.saturating) << c.what;
  }
}

TEST(IntMathTest, DifferencesWrapOrSaturateWhereTheyDoNotFit) {
  const Case cases[] = {
      {5, 7, -2, -2, "an ordinary difference"},
      {-1, kMax, kMin, kMin, "the smallest number is reached"},
      {-2, kMax, kMax, kMin, "one less does not fit"},
      {kMin, 1, kMax, kMin, "less than the smallest number"},
      {kMin, kMax, 1, kMin, "the smallest difference"},
      {-1, kMin, kMax, kMax, "the largest number is reached"},
      {0, kMin, kMin, kMax, "one more does not fit"},
      {kMax, -1, kMin, kMax, "more than the largest number"},
      {kMax, kMin, -1, kMax, "the largest difference"},
      {kMin, kMin, 0, 0, "equal ends always fit"},
      {kMax, kMax, 0, 0, "on both sides"},
  };
  for (const Case& c : cases) {
    EXPECT_EQ(WrappingSubtract(c.a, c.b), c.wrapping) << c.what;
    EXPECT_EQ(SaturatingSubtract(c.a, c.b), c.saturating) << c.what;
  }
}

TEST(IntMathTest, ProductsWrapOrSaturateWhereTheyDoNotFit) {
  const Case cases[] = {
      {-3, 1000, -3000, -3000, "an ordinary product"},
      {kMax, 1, kMax, kMax, "the largest number stays"},
      {kMin, 1, kMin, kMin, "the smallest number stays"},
      {kMax, -1, kMin + 1, kMin + 1, "the largest number has an opposite"},
      {kMin, -1, kMin, kMax, "the smallest has none"},
      {kMax / 1000, 1000, kMax / 1000 * 1000, kMax / 1000 * 1000, "the last that fits"},
      {kMax / 1000 + 1, 1000, kMin + 192, kMax, "the first that does not"},
      {kMin / 1000 - 1, 1000, kMax - 191, kMin, "the first below that does not"},
      {kMax, kMax, 1, kMax, "the largest product"},
      {kMin, kMin, 0, kMax, "of two negative numbers"},
      {kMin, kMax, kMin, kMin, "the smallest product"},
      {kMin, 0, 0, 0, "nothing of the smallest number"},
  };
  for (const Case& c : cases) {
    EXPECT_EQ(WrappingMultiply(c.a, c.b), c.wrapping) << c.what;
    EXPECT_EQ(WrappingMultiply(c.b, c.a), c.wrapping) << c.what;
    EXPECT_EQ(SaturatingScale(c.a, c.b), c.saturating) << c.what;
    EXPECT_EQ(SaturatingScale(c.b, c.a), c.saturating) << c.what;
  }
}

TEST(IntMathTest, TheSmallestNumberHasNoMagnitudeAndNoOpposite) {
  EXPECT_EQ(WrappingMagnitude(7), 7);
  EXPECT_EQ(WrappingMagnitude(-7), 7);
  EXPECT_EQ(WrappingMagnitude(0), 0);
  EXPECT_EQ(WrappingMagnitude(kMax), kMax);
  EXPECT_EQ(WrappingMagnitude(kMin + 1), kMax);
  EXPECT_EQ(WrappingMagnitude(kMin), kMin);
  EXPECT_EQ(SaturatingNegate(7), -7);
  EXPECT_EQ(SaturatingNegate(0), 0);
  EXPECT_EQ(SaturatingNegate(kMax), kMin + 1);
  EXPECT_EQ(SaturatingNegate(kMin + 1), kMax);
  EXPECT_EQ(SaturatingNegate(kMin), kMax);
}

TEST(IntMathTest, EveryFunctionWorksInConstantExpressions) {
  static_assert(WrappingAdd(kMax, 1) == kMin);
  static_assert(WrappingMagnitude(-1) == 1);
  static_assert(SaturatingScale(kMin, -1) == kMax);
  static_assert(SaturatingNegate(kMin) == kMax);
}

}  // namespace
}  // namespace base
