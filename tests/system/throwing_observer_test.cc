// SPDX-License-Identifier: Apache-2.0

// An observer that throws, on a real queue.
#include <gtest/gtest.h>

#include <csignal>
#include <cstdlib>
#include <memory>
#include <stdexcept>
#include <string>

#include "testing/ntp_queue.h"
#include "testing/ntp_time_manager_peer.h"
#include "testing/wait_until.h"

namespace skorra {
namespace {

class ThrowingObserver : public NtpTimeManager::Observer {
 public:
  void OnNtpResult(NtpResult, const std::string&, const net::IPEndPoint&) override {
    throw std::runtime_error("an observer's own mistake");
  }
};

void DeliverToAThrowingObserver() {
  NtpTimeManagerPeer peer;
  const auto observer = std::make_shared<ThrowingObserver>();
  peer.manager().AddObserver(observer);
  NtpQueue()->PostTask(kTestLocation,
                       base::BindOnce([&peer] { peer.Notify(NtpResult::kSuccess, net::IPEndPoint()); }));
  WaitUntil([] { return false; });
  std::_Exit(0);
}

TEST(ThrowingObserverDeathTest, AnObserverThatThrowsEndsTheProcess) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  EXPECT_EXIT(DeliverToAThrowingObserver(), testing::KilledBySignal(SIGABRT), "an observer's own mistake");
}

}  // namespace
}  // namespace skorra
