// SPDX-License-Identifier: Apache-2.0

// What only a real network has: kernel time stamps, messages about closed ports, limits of descriptors.
#include "platform/net/datagram_socket.h"

#include <errno.h>
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <time.h>

#include <atomic>
#include <numeric>
#include <set>
#include <string>
#include <vector>

#include "platform/base/clock.h"
#include "testing/loopback_udp.h"
#include "testing/ntp_queue.h"
#include "testing/refuse_system_call.h"
#include "testing/wait_until.h"
#include "transport/ntp_packet.h"

namespace net {
namespace {

using skorra::LoopbackUdp;
using skorra::RunOnNtpQueue;

struct Received {
  std::vector<uint8_t> bytes;
  IPEndPoint source;
  int64_t receive_ticks_us = 0;
  StampSource stamp_source = StampSource::kUser;
  bool is_truncated = false;
  size_t sent_before = 0;  // how many sends had been reported by then
};

struct Sent {
  uint32_t id = 0;
  int64_t ticks_us = 0;
};

// A socket on the queue and what it heard. The vectors are touched on the queue only, or after a counter
// was seen to have risen.
class Client {
 public:
  explicit Client(const IPEndPoint& remote, int64_t instance = -1) : instance_(instance) {
    Run([&] {
      socket_ = DatagramSocket::Connect(
          remote,
          {.on_datagram = [this](const ReceivedDatagram& datagram) { OnDatagram(datagram); },
           .on_error =
               [this](SocketError reported) {
                 errors.push_back(reported);
                 ++error_count;
               },
           .on_sent =
               [this](uint32_t id, int64_t ticks_us) {
                 sent.push_back({id, ticks_us});
                 ++sent_count;
               }},
          &error);
      if (socket_ != nullptr) {
        local = socket_->local();
      }
    });
  }
  ~Client() {
    Run([&] { socket_ = nullptr; });
  }
  Client(const Client&) = delete;
  Client& operator=(const Client&) = delete;

  bool is_open() const { return socket_ != nullptr; }
  // Runs `function` on the socket's queue.
  template <class Function>
  void Run(Function function) {
    RunOnNtpQueue(function, instance_);
  }
  // On the queue only.
  SocketError Send(const std::vector<uint8_t>& bytes, uint32_t* send_id = nullptr) {
    return socket_->Send(bytes, send_id);
  }
  bool WaitForDatagrams(int count) {
    return skorra::WaitUntil([&] { return received_count >= count; });
  }
  bool WaitForSent(int count) {
    return skorra::WaitUntil([&] { return sent_count >= count; });
  }
  bool WaitForErrors(int count) {
    return skorra::WaitUntil([&] { return error_count >= count; });
  }

  SocketError error = SocketError::kNone;
  IPEndPoint local;
  std::vector<Received> received;
  std::atomic<int> received_count{0};
  std::vector<SocketError> errors;
  std::atomic<int> error_count{0};
  std::vector<Sent> sent;
  std::atomic<int> sent_count{0};

 private:
  void OnDatagram(const ReceivedDatagram& datagram) {
    received.push_back({.bytes = {datagram.bytes.begin(), datagram.bytes.end()},
                        .source = datagram.source,
                        .receive_ticks_us = datagram.receive_ticks_us,
                        .stamp_source = datagram.stamp_source,
                        .is_truncated = datagram.is_truncated,
                        .sent_before = sent.size()});
    ++received_count;
  }

  const int64_t instance_;
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
    EXPECT_EQ(client.received[i].is_truncated, i >= 4) << i;
    ++i;
  }
}

TEST(DatagramSocketTest, IPv6WorksLikeIPv4) {
  const LoopbackUdp peer(IPEndPoint::Family::kIPv6);
  if (!peer.is_open()) {
    GTEST_SKIP() << "no IPv6 loopback address here";
  }
  Client client(peer.local());
  RunOnNtpQueue([&] { EXPECT_EQ(client.Send(Bytes(48)), SocketError::kNone); });
  EXPECT_EQ(peer.Receive(skorra::kPatienceMs), Bytes(48));
  ASSERT_TRUE(peer.SendTo(client.local, Bytes(60)));
  ASSERT_TRUE(client.WaitForDatagrams(1));
  EXPECT_EQ(client.received[0].bytes, Bytes(60));
  EXPECT_EQ(client.received[0].source, peer.local());
  EXPECT_EQ(client.received[0].stamp_source, StampSource::kKernel);
  EXPECT_EQ(client.received[0].sent_before, 1u);
}

// Sends a datagram to a queue whose thread is busy for `busy_us` and expects its receive time to be that of
// its arrival, not that of the reading.
void ExpectTimeOfArrival(int64_t busy_us) {
  const LoopbackUdp peer;
  Client client(peer.local());
  // The kernel begins to stamp datagrams a moment after the first socket asks for it.
  int number = 0;
  ASSERT_TRUE(skorra::WaitUntil([&] {
    int64_t before_ticks_us = 0;
    int64_t after_ticks_us = 0;
    int64_t read_ticks_us = 0;
    RunOnNtpQueue([&] {
      before_ticks_us = base::GetSteadyTimeTicks();
      EXPECT_TRUE(peer.SendTo(client.local, Bytes(48)));
      after_ticks_us = base::GetSteadyTimeTicks();
      EXPECT_TRUE(skorra::WaitUntil([&] { return base::GetSteadyTimeTicks() > after_ticks_us + busy_us; }));
      read_ticks_us = base::GetSteadyTimeTicks();
    });
    EXPECT_TRUE(client.WaitForDatagrams(++number));
    const int64_t receive_ticks_us = client.received.back().receive_ticks_us;
    EXPECT_GE(receive_ticks_us, before_ticks_us - 100);
    return receive_ticks_us <= after_ticks_us + 100 && receive_ticks_us < read_ticks_us - busy_us / 2;
  }));
}

TEST(DatagramSocketTest, TheReceiveTimeIsThatOfTheArrivalNotOfTheReading) { ExpectTimeOfArrival(3000); }

// As while a name is looked up that nobody answers for.
TEST(DatagramSocketTest, TheReceiveTimeIsThatOfTheArrivalAlsoWhenTheQueueIsBusyForLong) {
  ExpectTimeOfArrival(1200000);
}

TEST(DatagramSocketTest, AMessageAboutAnEarlierDatagramDoesNotCostTheNextOne) {
  Client client(skorra::UnusedEndPoint());
  RunOnNtpQueue([&] {
    // On loopback the message of the first is there when the second is sent.
    EXPECT_EQ(client.Send(Bytes(48)), SocketError::kNone);
    EXPECT_EQ(client.Send(Bytes(48)), SocketError::kNone);
  });
  ASSERT_TRUE(skorra::WaitUntil([&] { return client.error_count >= 2; }));
  EXPECT_EQ(client.errors, (std::vector<SocketError>{SocketError::kRefused, SocketError::kRefused}));
  // Whether the kernel gave a number to the send that told of the first one is not known.
  ASSERT_EQ(client.sent.size(), 1u);
  EXPECT_EQ(client.sent[0].id, 0u);
}

TEST(DatagramSocketTest, EachSendIsNumberedAndReportedWithTheMomentAtWhichItLeft) {
  const LoopbackUdp peer;
  Client client(peer.local());
  struct Limits {
    int64_t before_ticks_us;
    int64_t after_ticks_us;
  };
  std::vector<Limits> limits;
  RunOnNtpQueue([&] {
    for (uint32_t i = 0; i < 5; ++i) {
      uint32_t id = 99;
      const int64_t before_ticks_us = base::GetSteadyTimeTicks();
      EXPECT_EQ(client.Send(Bytes(48), &id), SocketError::kNone);
      const int64_t after_ticks_us = base::GetSteadyTimeTicks();
      EXPECT_EQ(id, i);
      limits.push_back({before_ticks_us, after_ticks_us});
      // Far enough apart for none to be taken for another.
      EXPECT_TRUE(skorra::WaitUntil([&] { return base::GetSteadyTimeTicks() > after_ticks_us + 1000; }));
    }
  });
  ASSERT_TRUE(client.WaitForSent(5));
  for (uint32_t i = 0; i < 5; ++i) {
    EXPECT_EQ(client.sent[i].id, i);
    EXPECT_GE(client.sent[i].ticks_us, limits[i].before_ticks_us) << i;
    EXPECT_LE(client.sent[i].ticks_us, limits[i].after_ticks_us + 100) << i;
  }
}

TEST(DatagramSocketTest, TheMomentOfSendingIsReportedBeforeTheAnswerIsDelivered) {
  const LoopbackUdp peer;
  Client client(peer.local());
  RunOnNtpQueue([&] {
    // All is there before the queue can read any of it.
    for (int i = 0; i < 3; ++i) {
      EXPECT_EQ(client.Send(Bytes(48)), SocketError::kNone);
      EXPECT_TRUE(peer.Receive(skorra::kPatienceMs));
      EXPECT_TRUE(peer.SendTo(client.local, Bytes(48)));
    }
  });
  ASSERT_TRUE(client.WaitForDatagrams(3));
  for (const Received& received : client.received) {
    EXPECT_EQ(received.sent_before, 3u);
    EXPECT_EQ(received.stamp_source, StampSource::kKernel);
  }
}

// Expects the socket to use next to no processor time while nothing happens.
void ExpectIdle(Client& client) {
  const auto used_us = [&] {
    timespec used{};
    client.Run([&] { clock_gettime(CLOCK_THREAD_CPUTIME_ID, &used); });
    return int64_t{used.tv_sec} * 1000000 + used.tv_nsec / 1000;
  };
  const int64_t start_ticks_us = base::GetSteadyTimeTicks();
  const int64_t used_before_us = used_us();
  EXPECT_TRUE(skorra::WaitUntil([&] { return base::GetSteadyTimeTicks() > start_ticks_us + 200000; }));
  EXPECT_LT(used_us() - used_before_us, 10000);
}

TEST(DatagramSocketTest, StampsOfSendsDoNotKeepTheQueueBusy) {
  const LoopbackUdp peer;
  Client client(peer.local());
  RunOnNtpQueue([&] {
    for (int i = 0; i < 100; ++i) {
      EXPECT_EQ(client.Send(Bytes(48)), SocketError::kNone);
    }
  });
  // Of so many at once only the latest are waited for.
  ASSERT_TRUE(client.WaitForSent(64));
  ExpectIdle(client);
  EXPECT_EQ(client.sent_count, 64);
  EXPECT_EQ(client.sent.back().id, 99u);
}

TEST(DatagramSocketTest, MessagesAboutClosedPortsDoNotKeepTheQueueBusy) {
  Client client(skorra::UnusedEndPoint());
  RunOnNtpQueue([&] { EXPECT_EQ(client.Send(Bytes(48)), SocketError::kNone); });
  ASSERT_TRUE(client.WaitForErrors(1));
  ExpectIdle(client);
  EXPECT_EQ(client.error_count, 1);
}

TEST(DatagramSocketTest, MoreDatagramsThanOneWakeUpReadsAllArrive) {
  const LoopbackUdp peer;
  Client client(peer.local());
  RunOnNtpQueue([&] {
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

TEST(DatagramSocketTest, AFailedConnectNamesItsReason) {
  struct Case {
    IPEndPoint remote;
    SocketError error;
    const char* what;
  };
  const Case cases[] = {
      {IPEndPoint(), SocketError::kOther, "the empty end point"},
      {IPEndPoint::FromIPv4({255, 255, 255, 255}, skorra::kNtpPort), SocketError::kDenied,
       "the broadcast address"},
  };
  for (const Case& c : cases) {
    const Client client(c.remote);
    EXPECT_FALSE(client.is_open()) << c.what;
    EXPECT_EQ(client.error, c.error) << c.what;
  }
}

// --- What the system refuses. A refusal is for good, so each has a thread of its own.

int64_t NewThread() {
  static int64_t instance = 100;
  return ++instance;
}

struct Refusal {
  int system_error;
  SocketError error;
};

constexpr Refusal kRefusals[] = {
    {ECONNREFUSED, SocketError::kRefused},
    {EHOSTUNREACH, SocketError::kHostUnreachable},
    {ENETUNREACH, SocketError::kNetworkUnreachable},
    {ENETDOWN, SocketError::kNetworkDown},
    {EADDRNOTAVAIL, SocketError::kNoAddress},
    {ENOBUFS, SocketError::kNoBuffers},
    {ENOMEM, SocketError::kNoBuffers},
    {EAGAIN, SocketError::kWouldBlock},
    {EMFILE, SocketError::kNoDescriptors},
    {ENFILE, SocketError::kNoDescriptors},
    {EINTR, SocketError::kInterrupted},
    {EPERM, SocketError::kDenied},
    {EACCES, SocketError::kDenied},
    {EAFNOSUPPORT, SocketError::kUnsupported},
    {EINVAL, SocketError::kOther},
};

TEST(DatagramSocketTest, AFailedSystemCallOfAConnectIsNamed) {
  const IPEndPoint remote = skorra::UnusedEndPoint();
  for (const int call : {SYS_socket, SYS_connect}) {
    for (const Refusal& refusal : kRefusals) {
      RunOnNtpQueue(
          [&] {
            EXPECT_TRUE(skorra::RefuseSystemCallOnThisThread(call, refusal.system_error));
            SocketError error = SocketError::kNone;
            EXPECT_EQ(DatagramSocket::Connect(remote, {}, &error), nullptr);
            EXPECT_EQ(error, refusal.error) << call << " " << refusal.system_error;
          },
          NewThread());
    }
  }
}

// For this thread, and datagrams of `size` bytes.
void RefuseToSend(int size, int error) {
  EXPECT_TRUE(skorra::RefuseSystemCallOnThisThread(SYS_sendto, error, size, 2));
#ifdef SYS_send
  EXPECT_TRUE(skorra::RefuseSystemCallOnThisThread(SYS_send, error, size, 2));
#endif
}

TEST(DatagramSocketTest, AFailedSendNamesItsReasonAndTheNextOneLeaves) {
  const LoopbackUdp peer;
  for (const Refusal& refusal : kRefusals) {
    Client client(peer.local(), NewThread());
    client.Run([&] {
      RefuseToSend(13, refusal.system_error);
      uint32_t id = 99;
      EXPECT_EQ(client.Send(Bytes(13), &id), refusal.error) << refusal.system_error;
      EXPECT_EQ(id, 99u);
      EXPECT_EQ(client.Send(Bytes(48), &id), SocketError::kNone);
      EXPECT_EQ(id, 0u);
    });
    EXPECT_EQ(peer.Receive(skorra::kPatienceMs), Bytes(48)) << refusal.system_error;
    // What the socket had to report later came before this task.
    client.Run([] {});
    // Each interruption is reported; that a send fails for another reason is told once, by the send.
    const std::vector<SocketError> reported(refusal.system_error == EINTR ? 8 : 0, SocketError::kInterrupted);
    EXPECT_EQ(client.errors, reported) << refusal.system_error;
  }
}

TEST(DatagramSocketTest, ASendThatFailsEndsTheStampsButNotThoseOfEarlierSends) {
  const LoopbackUdp peer;
  Client client(peer.local(), NewThread());
  client.Run([&] {
    EXPECT_EQ(client.Send(Bytes(48)), SocketError::kNone);
    RefuseToSend(13, ENOBUFS);
    EXPECT_EQ(client.Send(Bytes(13)), SocketError::kNoBuffers);
    EXPECT_EQ(client.Send(Bytes(48)), SocketError::kNone);
    EXPECT_TRUE(peer.SendTo(client.local, Bytes(48)));
  });
  ASSERT_TRUE(client.WaitForDatagrams(1));
  ASSERT_EQ(client.sent.size(), 1u);
  EXPECT_EQ(client.sent[0].id, 0u);
}

TEST(DatagramSocketTest, WithoutTheKernelsStampsThereAreOurOwn) {
  struct Case {
    int option;
    StampSource source;
    size_t sent;
    const char* what;
  };
  const Case cases[] = {
      {-1, StampSource::kUser, 0, "no option at all"},
      {SO_TIMESTAMPNS, StampSource::kUser, 1, "no receive stamps"},
      {SO_TIMESTAMPING, StampSource::kKernel, 0, "no send stamps"},
  };
  const LoopbackUdp peer;
  for (const Case& c : cases) {
    const int64_t thread = NewThread();
    RunOnNtpQueue(
        [&] { EXPECT_TRUE(skorra::RefuseSystemCallOnThisThread(SYS_setsockopt, ENOPROTOOPT, c.option, 2)); },
        thread);
    Client client(peer.local(), thread);
    ASSERT_TRUE(client.is_open()) << c.what;
    int64_t before_ticks_us = 0;
    client.Run([&] {
      before_ticks_us = base::GetSteadyTimeTicks();
      EXPECT_EQ(client.Send(Bytes(48)), SocketError::kNone);
      EXPECT_TRUE(peer.Receive(skorra::kPatienceMs));
      EXPECT_TRUE(peer.SendTo(client.local, Bytes(48)));
    });
    ASSERT_TRUE(client.WaitForDatagrams(1)) << c.what;
    EXPECT_EQ(client.received[0].stamp_source, c.source) << c.what;
    EXPECT_EQ(client.received[0].sent_before, c.sent) << c.what;
    EXPECT_GE(client.received[0].receive_ticks_us, before_ticks_us) << c.what;
    EXPECT_LE(client.received[0].receive_ticks_us, base::GetSteadyTimeTicks()) << c.what;
    EXPECT_EQ(client.error_count, 0) << c.what;
  }
}

// Expects `count` errors, and no more although the queue's loop serves its sockets many times.
void ExpectErrors(Client& client, int count) {
  EXPECT_TRUE(client.WaitForErrors(count));
  for (int i = 0; i < 100; ++i) {
    client.Run([] {});
  }
  EXPECT_EQ(client.error_count, count);
}

TEST(DatagramSocketTest, AReadThatFailsForGoodIsReportedAndTriedAgainAfterTheNextSend) {
  const LoopbackUdp peer;
  for (const Refusal& refusal : kRefusals) {
    if (refusal.system_error == EAGAIN) {
      continue;  // means that there is nothing to read
    }
    Client client(peer.local(), NewThread());
    client.Run([&] {
      EXPECT_TRUE(skorra::RefuseSystemCallOnThisThread(SYS_recvmsg, refusal.system_error, 0, 2));
      EXPECT_TRUE(peer.SendTo(client.local, Bytes(48)));
    });
    ExpectErrors(client, 16);
    client.Run([&] { EXPECT_EQ(client.Send(Bytes(48)), SocketError::kNone); });
    EXPECT_TRUE(client.WaitForErrors(32));
    EXPECT_EQ(client.errors.front(), refusal.error) << refusal.system_error;
    EXPECT_EQ(client.errors.back(), refusal.error) << refusal.system_error;
  }
}

TEST(DatagramSocketTest, ASocketThatTheLoopDoesNotWatchSaysSoAfterEachSend) {
  const LoopbackUdp peer;
  const int64_t thread = NewThread();
  RunOnNtpQueue([&] { EXPECT_TRUE(skorra::RefuseSystemCallOnThisThread(SYS_epoll_ctl, EPERM)); }, thread);
  Client client(peer.local(), thread);
  ASSERT_TRUE(client.is_open());
  ExpectErrors(client, 1);
  client.Run([&] { EXPECT_EQ(client.Send(Bytes(48)), SocketError::kNone); });
  ExpectErrors(client, 2);
  EXPECT_EQ(client.errors, (std::vector<SocketError>{SocketError::kOther, SocketError::kOther}));
}

TEST(DatagramSocketTest, AnErrorQueueThatCannotBeReadCostsNoDatagrams) {
  const LoopbackUdp peer;
  Client client(peer.local(), NewThread());
  client.Run([&] {
    EXPECT_TRUE(skorra::RefuseSystemCallOnThisThread(SYS_recvmsg, EPERM, MSG_ERRQUEUE, 2));
    EXPECT_EQ(client.Send(Bytes(48)), SocketError::kNone);
  });
  ExpectErrors(client, 16);
  client.Run([&] {
    EXPECT_TRUE(peer.SendTo(client.local, Bytes(60)));
    EXPECT_EQ(client.Send(Bytes(48)), SocketError::kNone);
  });
  ASSERT_TRUE(client.WaitForDatagrams(1));
  EXPECT_EQ(client.received[0].bytes, Bytes(60));
  EXPECT_EQ(client.sent_count, 0);
}

TEST(DatagramSocketTest, ErrorsHaveStableNames) {
  std::set<std::string> names;
  for (int error = 0; error <= static_cast<int>(SocketError::kOther); ++error) {
    names.insert(SocketErrorName(static_cast<SocketError>(error)));
  }
  EXPECT_EQ(names,
            (std::set<std::string>{"none", "refused", "host_unreachable", "network_unreachable",
                                   "network_down", "no_address", "no_buffers", "would_block",
                                   "no_descriptors", "interrupted", "denied", "unsupported", "other"}));
}

}  // namespace
}  // namespace net
