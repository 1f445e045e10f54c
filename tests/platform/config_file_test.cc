// SPDX-License-Identifier: Apache-2.0
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <string>
#include <vector>

#include "platform/base/log.h"
#include "platform/config/config_center.h"
#include "testing/log_recorder.h"
#include "testing/seam_world.h"
#include "testing/temp_dir.h"

namespace config {
namespace {

using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;
using ::testing::SizeIs;

class ConfigFileTest : public ::testing::Test {
 protected:
  ~ConfigFileTest() override { center_.LoadFile(directory_ / "absent"); }

  std::vector<std::string> Load(const std::string& text) {
    skorra::WriteFile(path_, text);
    return center_.LoadFile(path_);
  }

  base::Optional<uint64_t> Number(const NumberEntry& entry) const {
    return center_.GetValueWithPriority(entry, std::nullopt);
  }
  base::Optional<std::string> Domain() const {
    return center_.GetValueWithPriority(BaseCfg().ntp_default_domain, std::nullopt);
  }

  skorra::SeamWorld world_;
  const skorra::TempDir directory_;
  const std::string path_ = directory_ / "skorra.toml";
  ConfigCenterImpl& center_ = *ConfigCenterImpl::GetInstance();
  skorra::LogRecorder log_;
};

TEST_F(ConfigFileTest, EveryEntryIsRead) {
  EXPECT_THAT(Load("# servers\n[ntp]\nsync_interval = 9223372036854775807\nresolve_timeout_ms = 1_500\n"
                   "default_domain = \"ntp.example.org\"\nwitnesses = \"off\"\n"),
              IsEmpty());
  EXPECT_EQ(GetText(BaseCfg().ntp_witnesses), "off");
  EXPECT_EQ(Number(BaseCfg().ntp_sync_interval), 9223372036854775807u);
  EXPECT_EQ(Number(BaseCfg().ntp_resolve_timeout_ms), 1500u);
  EXPECT_EQ(Domain(), "ntp.example.org");
  EXPECT_THAT(log_.lines, IsEmpty());
}

TEST_F(ConfigFileTest, DottedKeysAreTheSameAsTables) {
  EXPECT_THAT(Load("ntp.sync_interval = 0\n"), IsEmpty());
  EXPECT_EQ(Number(BaseCfg().ntp_sync_interval), 0u);
}

TEST_F(ConfigFileTest, AnEmptyFileSetsNothing) {
  EXPECT_THAT(Load(""), IsEmpty());
  EXPECT_EQ(Number(BaseCfg().ntp_sync_interval), std::nullopt);
  EXPECT_EQ(Domain(), std::nullopt);
}

TEST_F(ConfigFileTest, TheEnvironmentAndTheProgramWinOverTheFile) {
  Load("[ntp]\nsync_interval = 1\n");
  world_.SetEnvironmentVariable("SKORRA_NTP_SYNC_INTERVAL", "2");
  center_.LoadEnvironment();
  EXPECT_EQ(Number(BaseCfg().ntp_sync_interval), 2u);
  center_.Set(BaseCfg().ntp_sync_interval, 3);
  EXPECT_EQ(Number(BaseCfg().ntp_sync_interval), 3u);
  center_.Set(BaseCfg().ntp_sync_interval, std::nullopt);
  world_.SetEnvironmentVariable("SKORRA_NTP_SYNC_INTERVAL", std::nullopt);
  center_.LoadEnvironment();
  EXPECT_EQ(Number(BaseCfg().ntp_sync_interval), 1u);
}

TEST_F(ConfigFileTest, ABadLineIsReportedWithFileAndLineAndTheOthersCount) {
  struct Case {
    const char* line;  // line 3 of the file
    const char* message;
    const char* what;
  };
  const Case cases[] = {
      {"sync_interval = -1", "ntp.sync_interval: -1 is not in the range", "negative"},
      {"sync_interval = 1.0", "ntp.sync_interval: must be a whole number", "a fraction"},
      {"sync_interval = \"60\"", "ntp.sync_interval: must be a whole number", "a text"},
      {"sync_interval = true", "ntp.sync_interval: must be a whole number", "a truth value"},
      {"sync_interval = [60]", "ntp.sync_interval: must be a whole number", "a list"},
      {"sync_interval = {}", "ntp.sync_interval: must be a whole number", "an empty table"},
      {"resolve_timeout_ms = 0", "ntp.resolve_timeout_ms: 0 is not in the range 1 to 60000", "too small"},
      {"resolve_timeout_ms = 60001", "ntp.resolve_timeout_ms: 60001 is not in the range", "too large"},
      {"requests_per_burst = 2", "ntp.requests_per_burst: 2 is not in the range 3 to 20",
       "fewer than a result needs"},
      {"sync_intervall = 60", "unknown key 'ntp.sync_intervall'", "a misspelt key"},
      {"sync_interval.seconds = 60", "ntp.sync_interval: must be a whole number", "a key below an entry"},
  };
  for (const Case& c : cases) {
    log_.lines.clear();
    const auto messages = Load("[ntp]\ndefault_domain = \"ntp.example.org\"\n" + std::string(c.line) + "\n");
    EXPECT_THAT(messages, ElementsAre(HasSubstr(path_ + ":3: " + c.message))) << c.what;
    ASSERT_THAT(log_.lines, SizeIs(1)) << c.what;
    EXPECT_EQ(log_.lines[0].level, base::kLogFailure) << c.what;
    EXPECT_EQ(log_.lines[0].text, messages[0]) << c.what;
    EXPECT_EQ(Number(BaseCfg().ntp_sync_interval), std::nullopt) << c.what;
    EXPECT_EQ(Number(BaseCfg().ntp_resolve_timeout_ms), std::nullopt) << c.what;
    EXPECT_EQ(Domain(), "ntp.example.org") << c.what;
  }
}

TEST_F(ConfigFileTest, ADomainMustBeAText) {
  EXPECT_THAT(Load("[ntp]\ndefault_domain = 5\n"),
              ElementsAre(HasSubstr(":2: ntp.default_domain: must be a")));
  EXPECT_EQ(Domain(), std::nullopt);
}

TEST_F(ConfigFileTest, ATextWithAFixedSetOfValuesMustBeOneOfThem) {
  EXPECT_THAT(Load("[ntp]\nwitnesses = \"on\"\n"),
              ElementsAre(path_ + ":2: ntp.witnesses: 'on' is not off, report or refuse"));
  EXPECT_EQ(GetText(BaseCfg().ntp_witnesses), "report");
  EXPECT_THAT(Load("[ntp]\nwitnesses = false\n"),
              ElementsAre(HasSubstr(":2: ntp.witnesses: must be a text in quotes")));
}

TEST_F(ConfigFileTest, AnUnknownKeyNamesTheKnownOnes) {
  EXPECT_THAT(
      Load("interval = 5\n[server]\n"),
      ElementsAre(
          HasSubstr("ntp.sync_interval, ntp.resolve_timeout_ms, ntp.requests_per_burst, "
                    "ntp.max_root_distance_ms, ntp.max_round_trip_ms, ntp.default_domain, ntp.witnesses"),
          HasSubstr("unknown key 'server'")));
}

TEST_F(ConfigFileTest, ATextThatIsNoTomlIsReportedWithItsLineAndClearsTheLayer) {
  const char* const cases[] = {
      "[ntp]\nsync_interval = \n",        "[ntp]\nsync_interval 60\n",
      "[ntp]\ndefault_domain = \"open\n", "[ntp]\nsync_interval = 9223372036854775808\n",
      "[ntp]\nntp = 1\n[ntp]\n",
  };
  for (const std::string text : cases) {
    Load("[ntp]\nsync_interval = 60\ndefault_domain = \"ntp.example.org\"\n");
    const auto messages = Load(text);
    const char* const line = text.find("\n[ntp]") == std::string::npos ? ":2: " : ":3: ";
    EXPECT_THAT(messages, ElementsAre(HasSubstr(path_ + line))) << text;
    EXPECT_EQ(Number(BaseCfg().ntp_sync_interval), std::nullopt) << text;
    EXPECT_EQ(Domain(), std::nullopt) << text;
  }
}

TEST_F(ConfigFileTest, BytesThatAreNoTextAreReportedAndClearTheLayer) {
  Load("[ntp]\nsync_interval = 60\n");
  EXPECT_THAT(Load("[ntp]\nsync_interval = 50\n\xff\xfe = 1\n"), ElementsAre(HasSubstr(path_ + ":")));
  EXPECT_EQ(Number(BaseCfg().ntp_sync_interval), std::nullopt);
}

TEST_F(ConfigFileTest, NoDepthOfNestingEndsTheProcess) {
  std::string dots;
  for (int i = 0; i < 8000; ++i) {
    dots += "a.";
  }
  for (const std::string& text : {dots + "a = 1\n", "[" + dots + "a]\n", "a = {" + dots + "a = 1}\n",
                                  "a = " + std::string(16000, '[') + "\n"}) {
    EXPECT_FALSE(Load(text).empty()) << text.substr(0, 20);
  }
}

TEST_F(ConfigFileTest, AFileThatCannotBeReadIsReportedAndClearsTheLayer) {
  struct Case {
    std::string path;
    const char* message;
  };
  const std::string fifo = directory_ / "fifo";
  ASSERT_EQ(mkfifo(fifo.c_str(), 0600), 0);
  const std::string link = directory_ / "link";
  ASSERT_EQ(symlink(fifo.c_str(), link.c_str()), 0);
  const Case cases[] = {
      {directory_ / "absent.toml", "No such file"},
      {directory_ / ".", "it is a directory; give a regular file"},
      {"/dev/zero", "it is a character device; give a regular file"},
      {fifo, "it is a FIFO; give a regular file"},
      {link, "link: cannot read the configuration file: it is a FIFO"},
      {"", "No such file"},
  };
  for (const Case& c : cases) {
    Load("[ntp]\nsync_interval = 60\n");
    log_.lines.clear();
    EXPECT_THAT(center_.LoadFile(c.path), ElementsAre(HasSubstr(c.message))) << c.path;
    EXPECT_THAT(log_.lines, SizeIs(1)) << c.path;
    EXPECT_EQ(Number(BaseCfg().ntp_sync_interval), std::nullopt) << c.path;
  }
}

}  // namespace
}  // namespace config
