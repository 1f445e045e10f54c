// What only a real network has: kernel time stamps, messages about closed ports, limits of descriptors.
#include "platform/net/datagram_socket.h"

#include <errno.h>
#include <gtest/gtest.h>
#include <sys/syscall.h>

#include <atomic>
#include <future>
#include <numeric>
#include <vector>

#include "platform/base/clock.h"
#include "platform/core/thread_manager.h"
#include "tests/loopback_udp.h"
#include "tests/refuse_system_call.h"
#include "tests/wait_until.h"

namespace net {
namespace {

using skorra::LoopbackUdp;

constexpr base::Location kHere = base::Location::CreateFromHere("tests/datagram_socket_test", 1);

// Runs `function` as a task and waits for its end.
template <class Function>
void RunAsTask(Function function, int64_t instance = -1) {
  std::promise<void> done;
  core::ThreadManager::GetTaskQueue(core::BusinessID::kNtpTime, instance, {})
      ->PostTask(kHere, base::BindOnce([&] {
                   function();
                   done.set_value();
                 }));
  done.get_future().wait();
}

struct Received {
  std::vector<uint8_t> bytes;
  IPEndPoint source;
  int64_t receive_ticks_us = 0;
};

// A socket on the queue and what it heard. The vectors are touched on the queue only, or after a counter
// was seen to have risen.
class Client {
 public:
  explicit Client(const IPEndPoint& remote) {
    RunAsTask([&] {
      socket_ = DatagramSocket::Connect(remote,
                                        {[this](const ReceivedDatagram& datagram) {
                                           received.push_back({{datagram.bytes.begin(), datagram.bytes.end()},
                                                               datagram.source,
                                                               datagram.receive_ticks_us});
                                           ++received_count;
                                         },
                                         [this](SocketError reported) {
                                           errors.push_back(reported);
                                           ++error_count;
                                         }},
                                        &error);
      if (socket_ != nullptr) {
        local = socket_->local();
      }
    });
  }
  ~Client() {
    RunAsTask([&] { socket_ = nullptr; });
  }
  Client(const Client&) = delete;
  Client& operator=(const Client&) = delete;

  bool is_open() const { return socket_ != nullptr; }
  // On the queue only.
  SocketError Send(const std::vector<uint8_t>& bytes) { return socket_->Send(bytes); }
  bool WaitForDatagrams(int count) {
    return skorra::WaitUntil([&] { return received_count >= count; });
  }

  SocketError error = SocketError::kNone;
  IPEndPoint local;
  std::vector<Received> received;
  std::atomic<int> received_count{0};
  std::vector<SocketError> errors;
  std::atomic<int> error_count{0};

 private:
  std::unique_ptr<DatagramSocket> socket_;
};

std::vector<uint8_t> Bytes(size_t size) {
  std::vector<uint8_t> bytes(size);
  std::iota(bytes.begin(), bytes.end(), uint8_t{1});
  return bytes;
}

TEST(DatagramSocketTest, LongPacketsComeThroughWholeAndLongerOnesAreCut) {
  const LoopbackUdp peer;
  Client client(peer.local());
  for (const size_t size : {0u, 1u, 48u, 1024u, 1025u, 1500u}) {
    ASSERT_TRUE(peer.SendTo(client.local, Bytes(size)));
  }
  ASSERT_TRUE(client.WaitForDatagrams(6));
  size_t i = 0;
  for (const size_t size : {0u, 1u, 48u, 1024u, 1024u, 1024u}) {
    EXPECT_EQ(client.received[i].bytes, Bytes(size)) << i;
    EXPECT_EQ(client.received[i].source, peer.local()) << i;
    ++i;
  }
}

TEST(DatagramSocketTest, IPv6WorksLikeIPv4) {
  const LoopbackUdp peer(IPEndPoint::Family::kIPv6);
  if (!peer.is_open()) {
    GTEST_SKIP() << "no IPv6 loopback address here";
  }
  Client client(peer.local());
  RunAsTask([&] { EXPECT_EQ(client.Send(Bytes(48)), SocketError::kNone); });
  EXPECT_EQ(peer.Receive(skorra::kPatienceMs), Bytes(48));
  ASSERT_TRUE(peer.SendTo(client.local, Bytes(60)));
  ASSERT_TRUE(client.WaitForDatagrams(1));
  EXPECT_EQ(client.received[0].bytes, Bytes(60));
  EXPECT_EQ(client.received[0].source, peer.local());
}

// Sends a datagram to a queue whose thread is busy for `busy_us` and expects its receive time to be that of
// its arrival, not that of the reading.
void ExpectTimeOfArrival(int64_t busy_us) {
  const LoopbackUdp peer;
  Client client(peer.local());
  // The kernel begins to stamp datagrams a moment after the first socket asks for it.
  int number = 0;
  ASSERT_TRUE(skorra::WaitUntil([&] {
    int64_t before_us = 0;
    int64_t after_us = 0;
    int64_t read_us = 0;
    RunAsTask([&] {
      before_us = base::GetSteadyTimeTicks();
      EXPECT_TRUE(peer.SendTo(client.local, Bytes(48)));
      after_us = base::GetSteadyTimeTicks();
      EXPECT_TRUE(skorra::WaitUntil([&] { return base::GetSteadyTimeTicks() > after_us + busy_us; }));
      read_us = base::GetSteadyTimeTicks();
    });
    EXPECT_TRUE(client.WaitForDatagrams(++number));
    const int64_t receive_us = client.received.back().receive_ticks_us;
    EXPECT_GE(receive_us, before_us - 100);
    return receive_us <= after_us + 100 && receive_us < read_us - busy_us / 2;
  }));
}

TEST(DatagramSocketTest, TheReceiveTimeIsThatOfTheArrivalNotOfTheReading) { ExpectTimeOfArrival(3000); }

// As while a name is looked up that nobody answers for.
TEST(DatagramSocketTest, TheReceiveTimeIsThatOfTheArrivalAlsoWhenTheQueueIsBusyForLong) {
  ExpectTimeOfArrival(1200000);
}

TEST(DatagramSocketTest, AMessageAboutAnEarlierDatagramDoesNotCostTheNextOne) {
  Client client(skorra::UnusedEndPoint());
  RunAsTask([&] {
    // On loopback the message of the first is there when the second is sent.
    EXPECT_EQ(client.Send(Bytes(48)), SocketError::kNone);
    EXPECT_EQ(client.Send(Bytes(48)), SocketError::kNone);
  });
  ASSERT_TRUE(skorra::WaitUntil([&] { return client.error_count >= 2; }));
  EXPECT_EQ(client.errors, (std::vector<SocketError>{SocketError::kRefused, SocketError::kRefused}));
}

TEST(DatagramSocketTest, MoreDatagramsThanOneWakeUpReadsAllArrive) {
  const LoopbackUdp peer;
  Client client(peer.local());
  RunAsTask([&] {
    for (int i = 0; i < 150; ++i) {
      EXPECT_TRUE(peer.SendTo(client.local, Bytes(48)));
    }
  });
  EXPECT_TRUE(client.WaitForDatagrams(150));
  EXPECT_EQ(client.error_count, 0);
}

TEST(DatagramSocketTest, EachSocketHasAPortOfItsOwn) {
  const LoopbackUdp peer;
  const Client first(peer.local());
  const Client second(peer.local());
  EXPECT_NE(first.local.port(), 0);
  EXPECT_NE(first.local, second.local);
}

TEST(DatagramSocketTest, WhyNoSocketCanBeHadIsNamed) {
  struct Case {
    IPEndPoint remote;
    SocketError error;
    const char* what;
  };
  const Case cases[] = {
      {IPEndPoint(), SocketError::kOther, "the empty end point"},
      {IPEndPoint::FromIPv4({255, 255, 255, 255}, 123), SocketError::kDenied, "the broadcast address"},
  };
  for (const Case& c : cases) {
    const Client client(c.remote);
    EXPECT_FALSE(client.is_open()) << c.what;
    EXPECT_EQ(client.error, c.error) << c.what;
  }
}

TEST(DatagramSocketTest, WhatTheSystemRefusesIsNamed) {
  struct Case {
    int system_error;
    SocketError error;
  };
  const Case cases[] = {
      {EMFILE, SocketError::kNoResources},
      {ENOBUFS, SocketError::kNoResources},
      {ENETUNREACH, SocketError::kUnreachable},
      {EHOSTUNREACH, SocketError::kUnreachable},
      {EADDRNOTAVAIL, SocketError::kUnreachable},
      {EPERM, SocketError::kDenied},
      {EACCES, SocketError::kDenied},
      {EAFNOSUPPORT, SocketError::kUnsupported},
      {EAGAIN, SocketError::kNoResources},
      {EINVAL, SocketError::kOther},
  };
  const IPEndPoint remote = skorra::UnusedEndPoint();
  int64_t instance = 100;
  for (const Case& c : cases) {
    // Each on a thread of its own, since a refusal is for good.
    ++instance;
    RunAsTask(
        [&] {
          EXPECT_TRUE(skorra::RefuseSystemCallOnThisThread(SYS_connect, c.system_error));
          SocketError error = SocketError::kNone;
          EXPECT_EQ(DatagramSocket::Connect(remote, {}, &error), nullptr);
          EXPECT_EQ(error, c.error) << c.system_error;
        },
        instance);
  }
}

TEST(DatagramSocketTest, ErrorsHaveStableNames) {
  EXPECT_STREQ(SocketErrorName(SocketError::kRefused), "refused");
  EXPECT_STREQ(SocketErrorName(SocketError::kUnreachable), "unreachable");
  EXPECT_STREQ(SocketErrorName(SocketError::kNoResources), "no_resources");
  EXPECT_STREQ(SocketErrorName(SocketError::kDenied), "denied");
  EXPECT_STREQ(SocketErrorName(SocketError::kUnsupported), "unsupported");
  EXPECT_STREQ(SocketErrorName(SocketError::kOther), "other");
}

}  // namespace
}  // namespace net
