// SPDX-License-Identifier: Apache-2.0

// A manager of its own in a simulated world, with its log lines and an observer, for the manager's tests.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "gmock/gmock.h"
#include "gtest/gtest.h"
#include "platform/base/log.h"
#include "platform/config/base_cfg.h"
#include "sim/network.h"
#include "sim/world.h"
#include "testing/addresses.h"
#include "testing/config_scope.h"
#include "testing/fresh_ledger.h"
#include "testing/log_recorder.h"
#include "testing/ntp_time_manager_peer.h"

namespace skorra {

// Remembers every outcome that it hears.
class RecordingObserver : public NtpTimeManager::Observer {
 public:
  struct Outcome {
    NtpResult result;
    std::string message;
    net::IPEndPoint server;
  };

  void OnNtpResult(NtpResult result, const std::string& message, const net::IPEndPoint& server) override {
    outcomes.push_back({result, message, server});
    if (on_outcome) {
      on_outcome();
    }
  }

  std::vector<Outcome> outcomes;
  std::function<void()> on_outcome;
};

class ManagerTest : public ::testing::Test {
 protected:
  struct Line {
    int level;
    std::string text;
    friend bool operator==(const Line&, const Line&) = default;
    friend void PrintTo(const Line& line, std::ostream* out) { *out << line.level << " " << line.text; }
  };

  static constexpr base::TimeDelta Us(int64_t us) { return base::TimeDelta::FromMicroseconds(us); }
  static constexpr base::TimeDelta Ms(int64_t ms) { return base::TimeDelta::FromMilliseconds(ms); }
  static constexpr base::TimeDelta S(int64_t s) { return base::TimeDelta::FromSeconds(s); }

  NtpTimeManager& manager() { return peer.manager(); }

  void SetDefaultDomain(const std::string& domain) {
    config.Set(config::BaseCfg().ntp_default_domain, domain);
  }
  void SetSyncInterval(base::Optional<uint64_t> seconds) {
    config.Set(config::BaseCfg().ntp_sync_interval, seconds);
  }

  // Adds domains through the public operation and lets the update run (no attempt is started).
  void AddDomains(const std::vector<std::string>& domains) {
    manager().UpdateNtpTimeDomain(domains);
    world.RunFor(Us(0));
  }
  NtpTimeManagerPeer::DomainPtr Domain(size_t index) { return peer.domain_infos().at(index); }
  NtpDomainResult& Record(const std::string& domain) { return peer.domain_results().at(domain); }

  // Starts an attempt and lets it reach its outcome; fails the test when there is none within a minute.
  void Sync() {
    const size_t before = observer->outcomes.size();
    manager().AddObserver(observer);
    ASSERT_EQ(manager().Start(), 0);
    ASSERT_TRUE(world.RunUntil([&] { return observer->outcomes.size() > before; }, S(60)));
  }

  // Adds `domains` and begins an attempt: their requests are open and their first check has run.
  void BeginAttempt(const std::vector<std::string>& domains) {
    AddDomains(domains);
    manager().AddObserver(observer);
    ASSERT_EQ(manager().Start(), 0);
    world.RunFor(Us(0));
    log.clear();
  }

  // A server that answers, so that its address is not asked a second time, but with nothing usable.
  void AddUnsynchronisedServer(const std::string& address) {
    network.AddServer(Address(address), {.leap_indicator = kNtpLeapUnsynchronized});
  }
  // The second burst that a domain with one silent address may send in an attempt, without sending it.
  void UseUpRepetition(size_t domain) {
    uint32_t retry_count = 0;
    ASSERT_TRUE(Domain(domain)->Retry(retry_count));
  }

  // Reports samples as the packet handler does.
  void Receive(const net::IPEndPoint& server, const std::vector<NtpResultData>& samples) {
    NtpTimePacketHandler::Client& client = peer.manager();
    world.RunAsTask(core::BusinessID::kNtpTime, [&] {
      for (const NtpResultData& sample : samples) {
        client.OnExchange({.sample = sample, .server = server});
        client.OnPacketReceived(sample, server);
      }
    });
  }

  void KeepGoodResult(int64_t offset_us) { peer.KeepGoodResult(offset_us); }

  // How many tasks were posted with exactly this delay since the call number `from`.
  size_t CountPosted(base::TimeDelta delay, size_t from = 0) {
    size_t count = 0;
    for (size_t i = from; i < world.posted().size(); ++i) {
      count += world.posted()[i].delay_us == delay.InMicroseconds() ? 1 : 0;
    }
    return count;
  }

  size_t CountLog(int level, const std::string& text) {
    size_t count = 0;
    for (const Line& line : log) {
      count += line == Line{level, text} ? 1 : 0;
    }
    return count;
  }
  // The lines that begin with `prefix`, whatever their level.
  std::vector<Line> LogLinesWith(const std::string& prefix) {
    std::vector<Line> found;
    for (const Line& line : log) {
      if (line.text.starts_with(prefix)) {
        found.push_back(line);
      }
    }
    return found;
  }

  const FreshLedger fresh_ledger;
  ConfigScope config;
  sim::World world;
  sim::Network network{world};
  std::vector<Line> log;
  std::shared_ptr<RecordingObserver> observer = std::make_shared<RecordingObserver>();
  NtpTimeManagerPeer peer;
  const LogSinkScope log_sink{[this](const base::LogLine& line) {
                                EXPECT_STREQ(line.file, "ntp/ntp_time_manager_impl");
                                log.push_back({line.level, line.text});
                              },
                              base::kLogProgress};
};

}  // namespace skorra
