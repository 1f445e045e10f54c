// SPDX-License-Identifier: Apache-2.0
// The sources of our time stamps as an exchange tells them, on real sockets.
#include <errno.h>
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/syscall.h>

#include <chrono>
#include <cstdint>
#include <future>
#include <memory>

#include "platform/base/clock.h"
#include "testing/loopback_ntp_server.h"
#include "testing/ntp_queue.h"
#include "testing/refuse_system_call.h"
#include "testing/wait_until.h"
#include "transport/ntp_time_packet_handler.h"

namespace skorra {
namespace {

class FirstExchange : public NtpTimePacketHandler::Client {
 public:
  void OnFirstPacketReceived(int64_t /*offset_us*/) override {}
  void OnExchange(const NtpExchange& exchange) override { promise_.set_value(exchange); }
  void OnPacketReceived(NtpResultData /*data*/, const net::IPEndPoint& /*server*/) override {}

  std::future<NtpExchange> Get() { return promise_.get_future(); }

 private:
  std::promise<NtpExchange> promise_;
};

TEST(ExchangeStampsTest, AStampThatTheKernelDoesNotGiveIsOurOwn) {
  constexpr auto kKernel = NtpStampSource::kKernel;
  constexpr auto kUser = NtpStampSource::kUser;
  const struct {
    const char* what;
    bool is_refused;
    int option;
    NtpStampSource send;
    NtpStampSource receive;
  } cases[] = {
      {"every option", false, 0, kKernel, kKernel},
      {"no option at all", true, -1, kUser, kUser},
      {"no receive stamps", true, SO_TIMESTAMPNS, kKernel, kUser},
      {"no send stamps", true, SO_TIMESTAMPING, kUser, kKernel},
  };
  const LoopbackNtpServer server({});
  ASSERT_TRUE(server.is_open());
  int64_t thread = 100;
  for (const auto& c : cases) {
    SCOPED_TRACE(c.what);
    ++thread;  // a new one: what it is refused stays refused
    FirstExchange client;
    auto exchange = client.Get();
    std::unique_ptr<NtpTimePacketHandler> handler;
    const int64_t before_ticks_us = base::GetSteadyTimeTicks();
    RunOnNtpQueue(
        [&] {
          if (c.is_refused) {
            EXPECT_TRUE(RefuseSystemCallOnThisThread(SYS_setsockopt, ENOPROTOOPT, c.option, 2));
          }
          handler = std::make_unique<NtpTimePacketHandler>(&client, 1000000);
          handler->PrepareForSendPackets();
          handler->SendPacket(server.endpoint());
        },
        thread);
    const bool is_answered =
        exchange.wait_for(std::chrono::milliseconds(kPatienceMs)) == std::future_status::ready;
    RunOnNtpQueue([&] { handler.reset(); }, thread);
    ASSERT_TRUE(is_answered);
    const NtpExchange told = exchange.get();
    EXPECT_EQ(told.send_stamp, c.send);
    EXPECT_EQ(told.receive_stamp, c.receive);
    EXPECT_EQ(told.server, server.endpoint());
    EXPECT_EQ(told.system_offset_from_steady_us, 1000000);
    EXPECT_GE(told.send_local_us, before_ticks_us + 1000000);
    EXPECT_LE(told.send_local_us, told.receive_local_us);
    EXPECT_LE(told.receive_local_us, base::GetSteadyTimeTicks() + 1000000);
  }
}

}  // namespace
}  // namespace skorra
