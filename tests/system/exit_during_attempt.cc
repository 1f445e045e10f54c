// SPDX-License-Identifier: Apache-2.0

// Starts a sync attempt and ends the process at a chosen moment in a chosen way, with the library's queue
// in the middle of its work.
//
//   exit_during_attempt MOMENT WAY SERVER
#include <atomic>
#include <cstdlib>
#include <map>
#include <memory>
#include <string>
#include <thread>

#include "ntp/ntp_time_manager.h"
#include "platform/base/log.h"
#include "platform/base/no_destructor.h"
#include "platform/linux/name_lookup.h"
#include "platform/metrics/key_metrics.h"
#include "testing/counting_observer.h"
#include "testing/loopback_udp.h"
#include "testing/ntp_queue.h"
#include "testing/wait_until.h"
#include "transport/ntp_packet.h"

namespace skorra {
namespace {

// Not zero: a way of exiting that was never reached must not look like success.
constexpr int kWrongArguments = 90;
constexpr int kMomentNeverCame = 91;
constexpr int kDidNotExit = 92;

void WaitForTheEnd() {
  WaitUntil([] { return false; });
  _Exit(kDidNotExit);
}

// Ends the process without returning, unless the caller is to return from main.
void End(const std::string& way) {
  if (way == "exit") {
    std::exit(0);
  }
  if (way == "exit_on_thread") {
    std::thread([] { std::exit(0); }).detach();
    WaitForTheEnd();
  }
}

// Signals that the outcome is being delivered, and keeps the delivery from ending.
class BlockingObserver : public NtpTimeManager::Observer {
 public:
  explicit BlockingObserver(std::string way) : way_(std::move(way)) {}

  void OnNtpResult(NtpResult, const std::string&, const net::IPEndPoint&) override {
    is_called_.store(true);
    End(way_);
    WaitForTheEnd();
  }

  bool is_called() const { return is_called_.load(); }

 private:
  const std::string way_;
  std::atomic<bool> is_called_{false};
};

std::atomic<bool> was_begun{false};

void Start(const std::string& server) {
  NtpTimeManager::GetInstance()->UpdateNtpTimeDomain({server});
  NtpTimeManager::GetInstance()->Start();
}

bool AfterStart(const std::string& server, const std::string&) {
  Start(server);
  return true;
}

bool BeforeTheFirstPacket(const std::string& server, const std::string&) {
  base::SetLogThreshold(base::kLogProgress);
  base::SetLogSink([](const base::LogLine& line) {
    if (line.text == "Start NTP time sync") {
      was_begun.store(true);
    }
  });
  Start(server);
  return WaitUntil([] { return was_begun.load(); });
}

bool MidBurst(const std::string& server, const std::string&) {
  Start(server);
  return WaitUntil([] { return base::KeyMetrics::GetCount("ntp.requests_sent") >= 5; });
}

bool AfterTheFirstRead(const std::string& server, const std::string&) {
  NtpTimeManager::GetInstance()->UpdateNtpTimeDomain({server});
  return NtpTimeManager::GetInstance()->GetNtpTimestampFrom1970() == 0;
}

bool InTheObserver(const std::string& server, const std::string& way) {
  static base::NoDestructor<std::shared_ptr<BlockingObserver>> observer(
      std::make_shared<BlockingObserver>(way));
  NtpTimeManager::GetInstance()->AddObserver(*observer);
  Start(server);
  if (!WaitUntil([] { return (*observer)->is_called(); })) {
    return false;
  }
  if (way != "return") {
    WaitForTheEnd();
  }
  return true;
}

// The outcome has been delivered, and the closing of the queue's work is due in 30 s.
bool WindDown(const std::string& server, const std::string&) {
  // Owned by this function, as by a program that cleans up before it ends.
  const auto observer = std::make_shared<CountingObserver>();
  NtpTimeManager::GetInstance()->AddObserver(observer);
  Start(server);
  if (!WaitUntil([&] { return observer->all() > 0; })) {
    return false;
  }
  return DrainNtpQueue();
}

// The queue's thread waits for a name server that never answers, and the attempt waits for that.
bool Resolving(const std::string& server, const std::string&) {
  static base::NoDestructor<LoopbackUdp> name_server;
  NtpQueue()->PostTask(kTestLocation, base::BindOnce([] {
                         net::internal::LookUpHost("silent.example", kNtpPort,
                                                   base::TimeDelta::FromSeconds(60),
                                                   name_server->local().ToString());
                       }));
  Start(server);
  return name_server->Receive(kPatienceMs).has_value();
}

bool AfterStop(const std::string& server, const std::string&) {
  Start(server);
  const bool is_sending = WaitUntil([] { return base::KeyMetrics::GetCount("ntp.requests_sent") >= 3; });
  NtpTimeManager::GetInstance()->Stop();
  return is_sending;
}

int Main(const std::string& moment, const std::string& way, const std::string& server) {
  using Moment = bool (*)(const std::string& server, const std::string& way);
  const std::map<std::string, Moment> moments = {
      {"after_start", AfterStart},    {"before_first_packet", BeforeTheFirstPacket},
      {"mid_burst", MidBurst},        {"after_first_read", AfterTheFirstRead},
      {"in_observer", InTheObserver}, {"wind_down", WindDown},
      {"resolving", Resolving},       {"after_stop", AfterStop},
  };
  const auto found = moments.find(moment);
  if (found == moments.end()) {
    return kWrongArguments;
  }
  // The test expects nothing on standard error but what a sanitizer may write there.
  base::SetLogThreshold(base::kLogNothing);
  if (!found->second(server, way)) {
    return kMomentNeverCame;
  }
  End(way);
  return way == "return" ? 0 : kWrongArguments;
}

}  // namespace
}  // namespace skorra

int main(int argc, char** argv) {
  return argc == 4 ? skorra::Main(argv[1], argv[2], argv[3]) : skorra::kWrongArguments;
}
