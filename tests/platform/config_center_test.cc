// SPDX-License-Identifier: Apache-2.0
#include "platform/config/config_center.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <atomic>
#include <limits>
#include <string>
#include <thread>
#include <vector>

#include "platform/base/log.h"
#include "platform/config/vorq_env_config.h"
#include "sim/world.h"
#include "testing/config_scope.h"
#include "testing/log_recorder.h"

namespace config {
namespace {

using ::testing::AllOf;
using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;

constexpr uint64_t kMax = std::numeric_limits<uint64_t>::max();

// Each test begins and ends without values in the program's and the environment's layers.
class ConfigCenterTest : public ::testing::Test {
 protected:
  ConfigCenterTest() { center_.LoadEnvironment(); }
  ~ConfigCenterTest() override {
    const skorra::sim::World without_variables;
    center_.LoadEnvironment();
  }

  std::vector<std::string> LoadEnvironmentWith(const char* variable, const char* value) {
    world_.SetEnvironmentVariable(variable, value);
    return center_.LoadEnvironment();
  }

  base::Optional<uint64_t> Interval() const {
    return center_.GetValueWithPriority(BaseCfg().ntp_sync_interval, std::nullopt);
  }

  const skorra::ConfigScope no_values_;
  skorra::sim::World world_;
  ConfigCenterImpl& center_ = *ConfigCenterImpl::GetInstance();
  skorra::LogRecorder log_;
};

TEST_F(ConfigCenterTest, ThereIsOneCenter) {
  EXPECT_EQ(ConfigCenterImpl::GetInstance(), ConfigCenterImpl::GetInstance());
}

TEST_F(ConfigCenterTest, WithoutAnyValueTheFallbackCounts) {
  EXPECT_EQ(center_.GetValueWithPriority(BaseCfg().ntp_sync_interval, 3600), 3600u);
  EXPECT_EQ(Interval(), std::nullopt);
  EXPECT_EQ(center_.GetValueWithPriority(BaseCfg().ntp_default_domain, "fallback"), "fallback");
  EXPECT_EQ(center_.GetValueWithPriority(BaseCfg().ntp_default_domain, std::nullopt), std::nullopt);
}

TEST_F(ConfigCenterTest, ReadersGetTheValueOrElseTheDefaultOfTheRow) {
  for (const NumberEntry* entry : BaseCfg().numbers()) {
    EXPECT_EQ(GetNumber(*entry), entry->default_value) << entry->key;
    EXPECT_EQ(center_.Set(*entry, entry->max), "") << entry->key;
    EXPECT_EQ(GetNumber(*entry), entry->max) << entry->key;
  }
  const TextEntry& domain = BaseCfg().ntp_default_domain;
  EXPECT_EQ(GetText(domain), "");
  EXPECT_EQ(center_.Set(domain, "ntp.example.org"), "");
  EXPECT_EQ(GetText(domain), "ntp.example.org");
}

TEST_F(ConfigCenterTest, TheDefaultsAreThoseThatWerePromised) {
  EXPECT_EQ(GetNumber(BaseCfg().ntp_sync_interval), 3600u);
  EXPECT_EQ(GetNumber(BaseCfg().ntp_resolve_timeout_ms), 2000u);
  EXPECT_EQ(GetNumber(BaseCfg().ntp_requests_per_burst), 20u);
  EXPECT_EQ(GetNumber(BaseCfg().ntp_max_root_distance_ms), 5000u);
  EXPECT_EQ(GetNumber(BaseCfg().ntp_max_round_trip_ms), 1500u);
}

TEST_F(ConfigCenterTest, EveryDefaultLiesInItsRange) {
  for (const NumberEntry* entry : BaseCfg().numbers()) {
    EXPECT_EQ(center_.Set(*entry, entry->default_value), "") << entry->key;
  }
}

TEST_F(ConfigCenterTest, TheProgramWinsOverTheEnvironmentUntilItsValueIsCleared) {
  LoadEnvironmentWith("SKORRA_NTP_SYNC_INTERVAL", "60");
  EXPECT_EQ(Interval(), 60u);
  EXPECT_EQ(center_.Set(BaseCfg().ntp_sync_interval, 0), "");
  EXPECT_EQ(Interval(), 0u);
  center_.Set(BaseCfg().ntp_sync_interval, std::nullopt);
  EXPECT_EQ(Interval(), 60u);
}

TEST_F(ConfigCenterTest, TextsHaveTheSamePriorities) {
  const TextEntry& entry = BaseCfg().ntp_default_domain;
  LoadEnvironmentWith("SKORRA_NTP_DEFAULT_DOMAIN", "ntp.environment.example");
  EXPECT_EQ(center_.GetValueWithPriority(entry, "fallback"), "ntp.environment.example");
  center_.Set(entry, "ntp.program.example");
  EXPECT_EQ(center_.GetValueWithPriority(entry, "fallback"), "ntp.program.example");
  center_.Set(entry, "");
  EXPECT_EQ(center_.GetValueWithPriority(entry, "fallback"), "") << "an empty text is a value";
  center_.Set(entry, std::nullopt);
  EXPECT_EQ(center_.GetValueWithPriority(entry, "fallback"), "ntp.environment.example");
}

TEST_F(ConfigCenterTest, WholeNumbersAreReadFromTheEnvironment) {
  struct Case {
    const char* text;
    uint64_t value;
    const char* what;
  };
  const Case cases[] = {
      {"0", 0, "the smallest"},
      {"18446744073709551615", kMax, "the largest"},
      {"0060", 60, "leading zeros change nothing"},
  };
  for (const Case& c : cases) {
    EXPECT_THAT(LoadEnvironmentWith("SKORRA_NTP_SYNC_INTERVAL", c.text), IsEmpty()) << c.what;
    EXPECT_EQ(Interval(), c.value) << c.what;
  }
  EXPECT_THAT(log_.lines, IsEmpty());
}

TEST_F(ConfigCenterTest, ABadEnvironmentValueIsReportedWithItsVariableAndIgnored) {
  struct Case {
    const char* variable;
    const char* text;
    const char* what;
  };
  const Case cases[] = {
      {"SKORRA_NTP_SYNC_INTERVAL", "", "empty"},
      {"SKORRA_NTP_SYNC_INTERVAL", "-1", "negative"},
      {"SKORRA_NTP_SYNC_INTERVAL", "+1", "a sign"},
      {"SKORRA_NTP_SYNC_INTERVAL", " 1", "a space before"},
      {"SKORRA_NTP_SYNC_INTERVAL", "1 ", "a space after"},
      {"SKORRA_NTP_SYNC_INTERVAL", "60s", "a unit"},
      {"SKORRA_NTP_SYNC_INTERVAL", "0x10", "hexadecimal"},
      {"SKORRA_NTP_SYNC_INTERVAL", "1.5", "a fraction"},
      {"SKORRA_NTP_SYNC_INTERVAL", "18446744073709551616", "one beyond 64 bits"},
      {"SKORRA_NTP_RESOLVE_TIMEOUT_MS", "0", "below the range"},
      {"SKORRA_NTP_RESOLVE_TIMEOUT_MS", "60001", "above the range"},
      {"SKORRA_NTP_REQUESTS_PER_BURST", "2", "fewer than the three samples that a result needs"},
  };
  for (const Case& c : cases) {
    log_.lines.clear();
    EXPECT_THAT(LoadEnvironmentWith(c.variable, c.text), ElementsAre(HasSubstr(c.variable))) << c.what;
    ASSERT_EQ(log_.lines.size(), 1u) << c.what;
    EXPECT_EQ(log_.lines[0].level, base::kLogFailure) << c.what;
    EXPECT_THAT(log_.lines[0].text, HasSubstr(c.variable)) << c.what;
    EXPECT_EQ(Interval(), std::nullopt) << c.what;
    EXPECT_EQ(center_.GetValueWithPriority(BaseCfg().ntp_resolve_timeout_ms, 2000), 2000u) << c.what;
    world_.SetEnvironmentVariable(c.variable, std::nullopt);
  }
}

TEST_F(ConfigCenterTest, LoadingTheEnvironmentAgainForgetsWhatItHeld) {
  LoadEnvironmentWith("SKORRA_NTP_SYNC_INTERVAL", "60");
  LoadEnvironmentWith("SKORRA_NTP_SYNC_INTERVAL", "sixty");
  EXPECT_EQ(Interval(), std::nullopt);
}

TEST_F(ConfigCenterTest, ANumberOutOfRangeYieldsAMessageAndTheLayerStays) {
  const NumberEntry& entry = BaseCfg().ntp_resolve_timeout_ms;
  EXPECT_EQ(center_.Set(entry, 1), "");
  EXPECT_EQ(center_.Set(entry, 60000), "");
  EXPECT_THAT(center_.Set(entry, 60001), AllOf(HasSubstr("ntp.resolve_timeout_ms"), HasSubstr("1 to 60000")));
  EXPECT_THAT(center_.Set(entry, 0), HasSubstr("range"));
  EXPECT_EQ(center_.GetValueWithPriority(entry, 2000), 60000u);
}

TEST_F(ConfigCenterTest, ATextWithAFixedSetOfValuesTakesEachOfThemFromEachLayer) {
  const TextEntry& entry = BaseCfg().ntp_witnesses;
  EXPECT_EQ(RangeText(entry), "off, report or refuse");
  EXPECT_EQ(RangeText(BaseCfg().ntp_default_domain), "text");
  EXPECT_EQ(GetText(entry), "report");
  for (const char* value : {"off", "report", "refuse"}) {
    EXPECT_THAT(LoadEnvironmentWith("SKORRA_NTP_WITNESSES", value), IsEmpty());
    EXPECT_EQ(GetText(entry), value);
  }
  for (const char* value : {"off", "report", "refuse"}) {
    EXPECT_EQ(center_.Set(entry, value), "");
    EXPECT_EQ(GetText(entry), value);
  }
}

TEST_F(ConfigCenterTest, ATextThatIsNoneOfTheEntrysValuesYieldsAMessageAndTheNextLayerCounts) {
  const TextEntry& entry = BaseCfg().ntp_witnesses;
  for (const char* value : {"", "on", "Report", "report ", "offreport", "off, report or refuse"}) {
    LoadEnvironmentWith("SKORRA_NTP_WITNESSES", "off");
    EXPECT_EQ(center_.Set(entry, value),
              "ntp.witnesses: '" + std::string(value) + "' is not off, report or refuse");
    EXPECT_EQ(GetText(entry), "off") << value;
    log_.lines.clear();
    const auto messages = LoadEnvironmentWith("SKORRA_NTP_WITNESSES", value);
    EXPECT_THAT(messages, ElementsAre("SKORRA_NTP_WITNESSES: '" + std::string(value) +
                                      "' is not off, report or refuse; the variable is ignored"));
    ASSERT_EQ(log_.lines.size(), 1u) << value;
    EXPECT_EQ(log_.lines[0].level, base::kLogFailure);
    EXPECT_EQ(GetText(entry), "report") << value;
  }
  EXPECT_EQ(center_.Set(entry, "refuse"), "");
  EXPECT_NE(center_.Set(entry, "deny"), "");
  EXPECT_EQ(GetText(entry), "refuse") << "the layer stays as it was";
}

TEST_F(ConfigCenterTest, TheDefaultDomainOfTheEnvironmentIsTheConfiguredOne) {
  EXPECT_EQ(VorqEnvConfig::GetInstance()->GetDefaultNtpDomain(), "");
  center_.Set(BaseCfg().ntp_default_domain, "ntp.example.org");
  EXPECT_EQ(VorqEnvConfig::GetInstance()->GetDefaultNtpDomain(), "ntp.example.org");
  EXPECT_EQ(VorqEnvConfig::GetInstance(), VorqEnvConfig::GetInstance());
}

TEST_F(ConfigCenterTest, AReaderDuringAWriteSeesOnlyValuesThatWereSet) {
  std::atomic<bool> is_over{false};
  std::atomic<int> bad_count{0};
  std::thread reader([&] {
    while (!is_over) {
      const uint64_t value = *center_.GetValueWithPriority(BaseCfg().ntp_sync_interval, 1);
      bad_count += value == 1 || value == 0x1111111122222222 || value == 0x3333333344444444 ? 0 : 1;
    }
  });
  for (int i = 0; i < 2000; ++i) {
    center_.Set(BaseCfg().ntp_sync_interval, 0x1111111122222222);
    center_.Set(BaseCfg().ntp_sync_interval, 0x3333333344444444);
    center_.Set(BaseCfg().ntp_sync_interval, std::nullopt);
  }
  is_over = true;
  reader.join();
  EXPECT_EQ(bad_count, 0);
}

}  // namespace
}  // namespace config
