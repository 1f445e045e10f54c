// SPDX-License-Identifier: Apache-2.0
#include "testing/attempt_runner.h"

#include <gtest/gtest.h>

#include "platform/base/lock.h"
#include "platform/base/thread_annotations.h"
#include "platform/metrics/key_metrics.h"
#include "testing/ntp_queue.h"
#include "testing/wait_until.h"

namespace skorra {
namespace {

// The manager checks on a domain, and sends the rest of a burst, within this time; what finds the attempt
// ended then does nothing more.
constexpr int64_t kLastCheckMs = 250;

}  // namespace

CountsSince::CountsSince() : before_(base::KeyMetrics::GetAllCounts()) {}

uint64_t CountsSince::operator[](const std::string& name) const {
  const auto found = before_.find(name);
  return base::KeyMetrics::GetCount(name) - (found == before_.end() ? 0 : found->second);
}

uint64_t CountsSince::SumOf(const std::string& prefix) const {
  uint64_t sum = 0;
  for (const auto& [name, count] : base::KeyMetrics::GetAllCounts()) {
    sum += name.starts_with(prefix) ? (*this)[name] : 0;
  }
  return sum;
}

class AttemptRunner::Recorder : public NtpTimeManager::Observer {
 public:
  void OnNtpResult(NtpResult result, const std::string&, const net::IPEndPoint& server) override {
    const base::AutoLock guard(lock_);
    attempt_.result = result;
    attempt_.server = server;
  }

  void Expect() {
    const base::AutoLock guard(lock_);
    attempt_ = {};
  }

  Attempt attempt() const {
    const base::AutoLock guard(lock_);
    return attempt_;
  }

 private:
  mutable base::Lock lock_;
  Attempt attempt_ SKORRA_GUARDED_BY(lock_);
};

AttemptRunner::AttemptRunner(const std::vector<std::string>& domains)
    : peer_(MakeManager()), recorder_(std::make_shared<Recorder>()) {
  peer_.manager().AddObserver(recorder_);
  peer_.manager().UpdateNtpTimeDomain(domains);
  EXPECT_TRUE(DrainNtpQueue());
}

AttemptRunner::~AttemptRunner() { CutOff(); }

AttemptRunner::Attempt AttemptRunner::Run(const std::function<bool()>& is_enough) {
  const CountsSince counts;
  recorder_->Expect();
  // A result that took this long to get is never fresh.
  peer_.last_request_cost_ms().store(800);
  peer_.manager().Start();
  WaitUntil([&] { return recorder_->attempt().result.has_value() || is_enough(); });
  Attempt attempt = recorder_->attempt();
  if (!attempt.result) {
    CutOff();
  }
  attempt.sent = counts["ntp.requests_sent"];
  attempt.replies = counts["ntp.samples_received"];
  return attempt;
}

void AttemptRunner::CutOff() {
  peer_.manager().Stop();
  EXPECT_TRUE(DrainNtpQueue(kLastCheckMs));
}

}  // namespace skorra
