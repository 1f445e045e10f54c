// SPDX-License-Identifier: Apache-2.0
#include "apps/skorra-ntp/whole_number.h"

#include <gtest/gtest.h>
#include <stdlib.h>

#include <cstdint>
#include <optional>

#include "testing/environment_number.h"

namespace skorra {
namespace {

TEST(WholeNumberTest, OnlyDecimalDigitsInTheRangeAreANumber) {
  struct Case {
    const char* text;
    std::optional<uint64_t> number;
  };
  constexpr uint64_t kMax = UINT64_MAX;
  for (const Case& c :
       {Case{"0", 0}, Case{"7", 7}, Case{"007", 7}, Case{"18446744073709551615", kMax},
        Case{"18446744073709551616", {}}, Case{"-1", {}}, Case{"+1", {}}, Case{"", {}}, Case{" 1", {}},
        Case{"1 ", {}}, Case{"1.0", {}}, Case{"0x1", {}}, Case{"1e3", {}}, Case{"fresh", {}}}) {
    EXPECT_EQ(ParseWholeNumber(c.text, 0, kMax), c.number) << c.text;
  }
  EXPECT_EQ(ParseWholeNumber("2", 3, 5), std::nullopt);
  EXPECT_EQ(ParseWholeNumber("3", 3, 5), 3u);
  EXPECT_EQ(ParseWholeNumber("5", 3, 5), 5u);
  EXPECT_EQ(ParseWholeNumber("6", 3, 5), std::nullopt);
}

// No other test reads this one.
constexpr const char* kVariable = "SKORRA_TEST_NUMBER";

TEST(EnvironmentNumberTest, AVariableThatIsNotSetOrEmptyHasNoNumber) {
  unsetenv(kVariable);
  EXPECT_EQ(EnvironmentNumber(kVariable), std::nullopt);
  setenv(kVariable, "", 1);
  EXPECT_EQ(EnvironmentNumber(kVariable), std::nullopt);
  setenv(kVariable, "42", 1);
  EXPECT_EQ(EnvironmentNumber(kVariable, 1, 42), 42u);
}

TEST(EnvironmentNumberTest, ABadSeedEndsTheTestInsteadOfReplayingAnother) {
  for (const char* seed : {"-1", "x", "1x", " 1", "0x10", "18446744073709551616"}) {
    setenv(kVariable, seed, 1);
    EXPECT_EXIT(EnvironmentNumber(kVariable), testing::ExitedWithCode(64),
                "SKORRA_TEST_NUMBER must be a whole number from 0 to 18446744073709551615");
  }
  setenv(kVariable, "6", 1);
  EXPECT_EXIT(EnvironmentNumber(kVariable, 1, 5), testing::ExitedWithCode(64), "from 1 to 5");
}

}  // namespace
}  // namespace skorra
