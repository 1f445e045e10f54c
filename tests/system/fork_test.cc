// SPDX-License-Identifier: Apache-2.0

// A process may be forked at any moment, by any of its threads: the child reads a sane time and can work on
// its own, and neither process takes anything from the other.
#include "platform/base/fork.h"

#include <errno.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <functional>
#include <future>
#include <limits>
#include <map>
#include <thread>
#include <vector>

#include "ntp/ntp_time_manager.h"
#include "platform/base/clock.h"
#include "platform/base/lock.h"
#include "platform/base/log.h"
#include "platform/base/log_file.h"
#include "platform/base/random.h"
#include "platform/base/time.h"
#include "platform/config/base_cfg.h"
#include "platform/config/config_center.h"
#include "platform/linux/name_lookup.h"
#include "platform/metrics/key_metrics.h"
#include "platform/net/datagram_socket.h"
#include "testing/attempt_runner.h"
#include "testing/clock_reading.h"
#include "testing/counting_observer.h"
#include "testing/environment_number.h"
#include "testing/forked_child.h"
#include "testing/log_recorder.h"
#include "testing/loopback_demo_server.h"
#include "testing/loopback_udp.h"
#include "testing/ntp_queue.h"
#include "testing/refuse_system_call.h"
#include "testing/temp_dir.h"
#include "testing/wait_until.h"
#include "transport/ntp_packet.h"

namespace skorra {
namespace {

constexpr int64_t kClockErrorUs = 7000000;
// Before an outcome a reading stands on the first reply alone, which waits for its turn on a busy machine.
constexpr int64_t kBusyToleranceUs = kClockErrorUs / 7;

NtpTimeManager& Manager() { return *NtpTimeManager::GetInstance(); }

// "" when a read gives the server's time, or 0 where that is allowed.
std::string CheckRead(bool may_be_empty = false, int64_t tolerance_us = kLoopbackToleranceUs) {
  const ClockReading reading;
  const bool is_good = reading.has_result() ? reading.Shows(kClockErrorUs, tolerance_us) : may_be_empty;
  return is_good ? ""
                 : "a read gave " + std::to_string(reading.ntp_us) + " at " +
                       std::to_string(reading.wall_before_us);
}

// A sync of this process's own, after a stop that clears what a parent had begun. "" when it succeeds.
std::string SyncOnOnesOwn() {
  const auto observer = std::make_shared<CountingObserver>();
  Manager().AddObserver(observer);
  Manager().Stop();
  RunOnNtpQueue([] {});
  if (Manager().Start() != 0) {
    return "no attempt could be started";
  }
  if (!WaitUntil([&] { return observer->all() > 0; })) {
    return "the attempt has no outcome";
  }
  return observer->failures == 0 ? CheckRead() : "the attempt failed";
}

TEST(ForkTest, AChildOfAnIdleProcessGoesOnWithTheResult) {
  const auto server = OpenDemoServer({.clock_error_us = kClockErrorUs});
  const auto observer = std::make_shared<CountingObserver>();
  Manager().AddObserver(observer);
  Manager().UpdateNtpTimeDomain({server->local().ToString()});
  Manager().Start();
  ASSERT_TRUE(WaitUntil([&] { return observer->successes == 1; }));
  ASSERT_EQ(CheckRead(), "");
  // A result of this very millisecond does not count as kept: Start would sync again.
  const int64_t seen_ticks_us = base::GetSteadyTimeTicks();
  ASSERT_TRUE(WaitUntil([&] { return base::GetSteadyTimeTicks() > seen_ticks_us + 2000; }));

  EXPECT_EQ(RunInChild([&]() -> std::string {
              if (std::string error = CheckRead(); !error.empty()) {
                return error;
              }
              // The result is fresh, and the child's own queue announces it.
              if (Manager().Start() != 0 || !WaitUntil([&] { return observer->repeats == 1; })) {
                return "the result was not announced again";
              }
              // A grandchild is no different.
              return RunInChild([] { return CheckRead(); });
            }),
            "");
  EXPECT_EQ(CheckRead(), "");
  EXPECT_EQ(observer->repeats, 0u);
  EXPECT_EQ(Manager().Start(), 0);
  EXPECT_TRUE(WaitUntil([&] { return observer->repeats == 1; }));
}

TEST(ForkTest, AReadInAChildWithoutAResultStartsASyncThere) {
  const auto server = OpenDemoServer({.clock_error_us = kClockErrorUs});
  Manager().UpdateNtpTimeDomain({server->local().ToString()});
  RunOnNtpQueue([] {});
  EXPECT_EQ(RunInChild([]() -> std::string {
              if (Manager().GetNtpTimestampFrom1970() != 0) {
                return "there is a result";
              }
              if (!WaitUntil([] { return Manager().GetNtpTimestampFrom1970() != 0; })) {
                return "no result comes";
              }
              return CheckRead();
            }),
            "");
  EXPECT_EQ(base::KeyMetrics::GetCount("ntp.requests_sent"), 0u);
}

TEST(ForkTest, AForkInTheMiddleOfABurstDisturbsNeither) {
  // The answers are under way when the burst is half sent.
  const auto server = OpenDemoServer({.clock_error_us = kClockErrorUs, .delay_us = 150000});
  const auto observer = std::make_shared<CountingObserver>();
  Manager().AddObserver(observer);
  Manager().UpdateNtpTimeDomain({server->local().ToString()});
  Manager().Start();
  ASSERT_TRUE(WaitUntil([] { return base::KeyMetrics::GetCount("ntp.requests_sent") >= 8; }));
  ForkedChild child([]() -> std::string {
    if (std::string error = CheckRead(true); !error.empty()) {
      return error;
    }
    if (Manager().Start() != -1) {
      return "the parent's attempt is not noticed";
    }
    const CountsSince counts;
    if (std::string error = SyncOnOnesOwn(); !error.empty()) {
      return error;
    }
    // Its calls share the burst that the parent had begun, so that some of them may be left out.
    const bool is_answered = WaitUntil([&] {
      return counts["ntp.requests_sent"] + counts["ntp.send_thinned"] == 20 &&
             counts["ntp.requests_sent"] >= 10 &&
             counts["ntp.samples_received"] == counts["ntp.requests_sent"];
    });
    return is_answered && counts.SumOf("ntp.send_error.") == 0 ? "" : "it used another socket than its own";
  });
  // A third process whose copies of the sockets stay open for longer than the parent's.
  ForkedChild sleeper([] {
    poll(nullptr, 0, kPatienceMs);
    return std::string();
  });

  EXPECT_TRUE(WaitUntil([&] { return observer->successes == 1; }));
  EXPECT_TRUE(WaitUntil([] { return base::KeyMetrics::GetCount("ntp.samples_received") == 20; }));
  EXPECT_EQ(child.Report(), "");
  EXPECT_EQ(CheckRead(), "");
  EXPECT_EQ(base::KeyMetrics::GetCount("ntp.requests_sent"), 20u);
  EXPECT_EQ(base::KeyMetrics::GetCount("ntp.samples_received"), 20u);
  EXPECT_GE(server->counts().received, 30u);
  EXPECT_LE(server->counts().received, 40u);

  EXPECT_EQ(AttemptRunner({server->local().ToString()}).Run().result, NtpResult::kSuccess);
}

TEST(ForkTest, ASocketOfTheParentStaysTheParents) {
  const LoopbackUdp peer;
  const std::vector<uint8_t> bytes(48, 7);
  std::unique_ptr<net::DatagramSocket> socket;  // touched on the queue only
  std::atomic<int> received{0};
  net::IPEndPoint local;
  RunOnNtpQueue([&] {
    net::SocketError error = net::SocketError::kNone;
    socket = net::DatagramSocket::Connect(
        peer.local(), {.on_datagram = [&](const net::ReceivedDatagram&) { ++received; }}, &error);
    ASSERT_NE(socket, nullptr);
    local = socket->local();
  });

  EXPECT_EQ(RunInChild([&]() -> std::string {
              net::SocketError error = net::SocketError::kNone;
              RunOnNtpQueue([&] { error = socket->Send(bytes); });
              RunOnNtpQueue([&] { socket = nullptr; });
              return error == net::SocketError::kOther ? "" : "it was sent";
            }),
            "");

  EXPECT_FALSE(peer.Receive(0));
  RunOnNtpQueue([&] { EXPECT_EQ(socket->Send(bytes), net::SocketError::kNone); });
  EXPECT_EQ(peer.Receive(kPatienceMs), bytes);
  for (int i = 1; i <= 3; ++i) {
    ASSERT_TRUE(peer.SendTo(local, bytes));
    EXPECT_TRUE(WaitUntil([&] { return received == i; }));
  }
  RunOnNtpQueue([&] { socket = nullptr; });
}

// What event loops watch, by the kernel's account.
size_t WatchedDescriptors() {
  size_t count = 0;
  for (const auto& entry : std::filesystem::directory_iterator("/proc/self/fdinfo")) {
    std::ifstream file(entry.path());
    for (std::string line; std::getline(file, line);) {
      count += line.starts_with("tfd:") ? 1 : 0;
    }
  }
  return count;
}

// The parent's loop must not go on hearing of a socket that it closed only because a child has it still.
TEST(ForkTest, ASocketThatTheParentClosesIsGoneThereAlthoughAChildHasIt) {
  const LoopbackUdp peer;
  std::unique_ptr<net::DatagramSocket> socket;
  net::IPEndPoint local;
  RunOnNtpQueue([&] {
    net::SocketError error = net::SocketError::kNone;
    socket = net::DatagramSocket::Connect(peer.local(), {}, &error);
    local = socket->local();
  });
  ForkedChild child([] {
    poll(nullptr, 0, kPatienceMs);
    return std::string();
  });
  const size_t before = WatchedDescriptors();
  RunOnNtpQueue([&] { socket = nullptr; });
  EXPECT_EQ(WatchedDescriptors(), before - 1);
}

TEST(ForkTest, AChildLeavesASocketInTheParentsLoopAlsoWhenNobodyWaitsForIt) {
  const LoopbackUdp peer;
  std::unique_ptr<net::DatagramSocket> socket;
  std::atomic<int> errors{0};
  RunOnNtpQueue([&] {
    net::SocketError error = net::SocketError::kNone;
    socket =
        net::DatagramSocket::Connect(peer.local(), {.on_error = [&](net::SocketError) { ++errors; }}, &error);
    ASSERT_TRUE(RefuseSystemCallOnThisThread(SYS_recvmsg, EPERM));
    ASSERT_TRUE(peer.SendTo(socket->local(), std::vector<uint8_t>(48, 7)));
  });
  // After these the socket gives up reading.
  ASSERT_TRUE(WaitUntil([&] { return errors == 16; }));
  RunOnNtpQueue([] {});
  const size_t before = WatchedDescriptors();
  EXPECT_EQ(RunInChild([&]() -> std::string {
              // While the number is good, unregistering it here would act on the parent's loop.
              if (!RefuseSystemCallOnThisThread(SYS_close, EPERM)) {
                return "the system call cannot be refused";
              }
              socket = nullptr;
              return "";
            }),
            "");
  EXPECT_EQ(WatchedDescriptors(), before);
  RunOnNtpQueue([&] { socket = nullptr; });
}

// A change in two steps, with the fork asked for between them.
struct Change {
  void Make() {
    first = 1;
    // Without a pause between two looks: the forking thread asks for moments only, and gives up after 100 ms.
    const int64_t deadline_ticks_us = base::GetSteadyTimeTicks() + int64_t{kPatienceMs} * 1000;
    while (!base::internal::IsForkComing() && base::GetSteadyTimeTicks() < deadline_ticks_us) {
      std::this_thread::yield();
    }
    second = 1;
  }
  std::string Check() const { return first == second ? "" : "it is half made"; }

  std::atomic<int> first{0};
  std::atomic<int> second{0};
};

TEST(ForkTest, AChangeUnderALockIsWholeInTheChild) {
  Change change;
  base::Lock lock;
  std::thread changer([&] {
    const base::AutoLock guard(lock);
    change.Make();
  });
  ASSERT_TRUE(WaitUntil([&] { return change.first == 1; }));
  EXPECT_EQ(RunInChild([&] { return change.Check(); }), "");
  changer.join();
}

// The shortest of a few forks, since the machine may be busy: the wait before a fork ends after about 100 ms.
int64_t ShortestForkUs(const std::function<std::string()>& body) {
  int64_t shortest_us = std::numeric_limits<int64_t>::max();
  for (int i = 0; i < 5; ++i) {
    const int64_t before_ticks_us = base::GetSteadyTimeTicks();
    ForkedChild child(body);
    shortest_us = std::min(shortest_us, base::GetSteadyTimeTicks() - before_ticks_us);
    EXPECT_EQ(child.Report(), "");
  }
  return shortest_us;
}

TEST(ForkTest, ThreadsThatAlwaysHoldALockDoNotHoldUpTheFork) {
  std::atomic<bool> is_over{false};
  std::array<base::Lock, 2> locks;
  std::vector<std::thread> holders;
  for (base::Lock& lock : locks) {
    holders.emplace_back([&] {
      while (!is_over) {
        const base::AutoLock guard(lock);
        const int64_t until_ticks_us = base::GetSteadyTimeTicks() + 1000;
        while (base::GetSteadyTimeTicks() < until_ticks_us) {
        }
      }
    });
  }
  EXPECT_LT(ShortestForkUs([] { return CheckRead(true); }), 60000);
  is_over = true;
  for (std::thread& holder : holders) {
    holder.join();
  }
}

TEST(ForkTest, AForkUnderALockKeepsTheLockAndDoesNotWaitForThreadsThatWantIt) {
  base::Lock lock;
  std::atomic<bool> is_waiting{false};
  std::thread waiter;
  {
    const base::AutoLock guard(lock);
    waiter = std::thread([&] {
      is_waiting = true;
      const base::AutoLock also(lock);
    });
    ASSERT_TRUE(WaitUntil([&] { return is_waiting.load(); }));
    EXPECT_LT(ShortestForkUs([&]() -> std::string {
                bool is_taken = false;
                std::thread([&] { is_taken = lock.TryAcquire(); }).join();
                return is_taken ? "another thread took it" : "";
              }),
              60000);
  }
  waiter.join();
}

TEST(ForkTest, AQueueOfTheParentDropsWhatAChildPosts) {
  const auto parents = NtpQueue();
  std::atomic<int> run_count{0};
  EXPECT_EQ(RunInChild([&]() -> std::string {
              const auto token = std::make_shared<int>();
              const auto task = [&] { return base::BindOnce([&run_count, token] { ++run_count; }); };
              parents->PostTask(kTestLocation, task());
              parents->PostDelayedTask(kTestLocation, task(), base::TimeDelta::FromMicroseconds(1));
              RunOnNtpQueue([] {});
              if (token.use_count() != 1) {
                return "it keeps a task";
              }
              return run_count == 0 ? "" : "it ran a task";
            }),
            "");
  parents->PostTask(kTestLocation, base::BindOnce([&] { ++run_count; }));
  EXPECT_TRUE(WaitUntil([&] { return run_count == 1; }));
}

TEST(ForkTest, AChangeByATaskIsWholeInTheChild) {
  Change change;
  std::thread poster([&] { RunOnNtpQueue([&] { change.Make(); }); });
  ASSERT_TRUE(WaitUntil([&] { return change.first == 1; }));
  EXPECT_EQ(RunInChild([&] { return change.Check(); }), "");
  poster.join();
}

// The child has only the queue's thread, and that is not the queue's any more.
TEST(ForkTest, AnObserverMayFork) {
  class Forker : public NtpTimeManager::Observer {
   public:
    void OnNtpResult(NtpResult, const std::string&, const net::IPEndPoint&) override {
      reader_report = RunInChild([]() -> std::string {
        base::LocalLog(base::kLogFailure, "tests/fork_test", __LINE__, "from a child of an observer");
        base::KeyMetrics::Count("test.child");
        Manager().Start();
        return CheckRead();
      });
      const pid_t pid = fork();
      if (pid == 0) {
        return;  // where the loop goes on in the parent
      }
      is_done = WaitUntil([&] { return waitpid(pid, &returned_status, WNOHANG) == pid; });
    }
    std::string reader_report;
    int returned_status = -1;
    std::atomic<bool> is_done{false};
  };
  const auto server = OpenDemoServer({.clock_error_us = kClockErrorUs});
  const auto forker = std::make_shared<Forker>();
  const auto observer = std::make_shared<CountingObserver>();
  Manager().AddObserver(forker);
  Manager().AddObserver(observer);
  Manager().UpdateNtpTimeDomain({server->local().ToString()});
  Manager().Start();
  ASSERT_TRUE(WaitUntil([&] { return forker->is_done && observer->successes == 1; }));
  EXPECT_EQ(forker->reader_report, "");
  EXPECT_TRUE(WIFEXITED(forker->returned_status)) << forker->returned_status;
  EXPECT_EQ(base::KeyMetrics::GetCount("test.child"), 0u);
  EXPECT_EQ(CheckRead(), "");
}

TEST(ForkTest, ALogSinkMayFork) {
  std::string report = "never called";
  const LogSinkScope sink([&](const base::LogLine&) {
    report = RunInChild([]() -> std::string {
      base::KeyMetrics::Count("test.child");
      base::LocalLog(2, "tests/fork_test", __LINE__, "from a child of a sink");
      return CheckRead(true);
    });
  });
  base::LocalLog(2, "tests/fork_test", __LINE__, "hello");
  EXPECT_EQ(report, "");
}

// A lock whose holder does not give it up cannot be waited for, and the child must not wait for it either.
TEST(ForkTest, ASinkThatNeverReturnsHoldsUpNeitherTheForkNorTheChild) {
  static std::atomic<bool> is_in_sink{false};
  static std::atomic<bool> may_return{false};
  base::SetLogSink([](const base::LogLine&) {
    is_in_sink = true;
    WaitUntil([] { return may_return.load(); });
  });
  std::thread logger([] { base::LocalLog(2, "tests/fork_test", __LINE__, "hello"); });
  ASSERT_TRUE(WaitUntil([] { return is_in_sink.load(); }));

  const int64_t before_ticks_us = base::GetSteadyTimeTicks();
  ForkedChild child([]() -> std::string {
    base::SetLogSink({});
    base::LocalLog(2, "tests/fork_test", __LINE__, "from a child");
    return CheckRead(true);
  });
  const int64_t took_us = base::GetSteadyTimeTicks() - before_ticks_us;
  EXPECT_EQ(child.Report(), "");
  EXPECT_LT(took_us, int64_t{kPatienceMs} * 1000 / 4);
  may_return = true;
  logger.join();
  base::SetLogSink({});
}

TEST(ForkTest, AThreadThatWaitsForTheOutsideWorldHoldsUpNoForkHoweverDeepItIsInside) {
  std::atomic<bool> is_waiting{false};
  std::atomic<bool> is_over{false};
  std::thread thread([&] {
    const base::NoForkScope outer;
    const base::NoForkScope inner;
    const base::ForkAllowedScope fork_allowed;
    is_waiting = true;
    WaitUntil([&] { return is_over.load(); });
  });
  ASSERT_TRUE(WaitUntil([&] { return is_waiting.load(); }));
  EXPECT_LT(ShortestForkUs([] { return CheckRead(true); }), 60000);
  is_over = true;
  thread.join();
}

TEST(ForkTest, ALongLookupDoesNotHoldUpTheFork) {
  const LoopbackUdp name_server;
  std::promise<void> done;
  NtpQueue()->PostTask(kTestLocation, base::BindOnce([&] {
                         net::internal::LookUpHost("silent.example", kNtpPort,
                                                   base::TimeDelta::FromSeconds(2),
                                                   name_server.local().ToString());
                         done.set_value();
                       }));
  ASSERT_TRUE(name_server.Receive(kPatienceMs));
  EXPECT_LT(ShortestForkUs([] { return CheckRead(true); }), 60000);
  done.get_future().wait();
}

// Which descriptors are open, and whether a program that the process starts would get them.
std::map<std::string, bool> Descriptors() {
  std::map<std::string, bool> closes_on_exec;
  for (const auto& entry : std::filesystem::directory_iterator("/proc/self/fd")) {
    const int flags = fcntl(std::atoi(entry.path().filename().c_str()), F_GETFD);
    if (flags >= 0) {
      std::error_code ignored;
      closes_on_exec[entry.path().filename().string() + " " +
                     std::filesystem::read_symlink(entry.path(), ignored).string()] =
          (flags & FD_CLOEXEC) != 0;
    }
  }
  return closes_on_exec;
}

TEST(ForkTest, NoDescriptorOfTheLibraryOutlivesAnExec) {
  const TempDir folder;
  const auto server = OpenDemoServer({.clock_error_us = kClockErrorUs});
  const auto before = Descriptors();
  ASSERT_EQ(base::LogToFile({.path = folder / "log"}), "");
  base::LocalLog(2, "tests/fork_test", __LINE__, "hello");
  const auto observer = std::make_shared<CountingObserver>();
  Manager().AddObserver(observer);
  Manager().UpdateNtpTimeDomain({server->local().ToString()});
  Manager().Start();
  ASSERT_TRUE(WaitUntil([&] { return observer->successes == 1; }));
  size_t count = 0;
  for (const auto& [name, closes_on_exec] : Descriptors()) {
    if (!before.contains(name) && name.find("/fd") == std::string::npos) {
      EXPECT_TRUE(closes_on_exec) << name;
      ++count;
    }
  }
  EXPECT_GE(count, 4u);  // the log, the event loop, its timer, the socket
  base::SetLogSink({});
}

// Everything at once, and forks into it. SKORRA_FORK_SEED repeats the pauses of a run.
class ForkStressTest : public testing::Test {
 protected:
  template <class Step>
  void Repeat(Step step) {
    threads_.emplace_back([this, step] {
      while (!is_over_) {
        step();
      }
    });
  }

  void Finish() {
    is_over_ = true;
    for (std::thread& thread : threads_) {
      thread.join();
    }
    threads_.clear();
  }

  void TearDown() override { Finish(); }

 private:
  std::atomic<bool> is_over_{false};
  std::vector<std::thread> threads_;
};

// Every lock that the library has, on the only thread of a child.
std::string TouchEverything() {
  base::KeyMetrics::Count("test.child");
  base::KeyMetrics::CountPV(1, 1);
  const LogSilence silence;
  base::LocalLog(2, "tests/fork_test", __LINE__, "from a child");
  config::ConfigCenterImpl::GetInstance()->Set(config::BaseCfg().ntp_default_domain, std::string("x"));
  Manager().AddObserver(std::make_shared<CountingObserver>());
  Manager().GetAndResetNtpQualityStats();
  Manager().Start();
  Manager().UpdateNtpTimeDomain({"nosuch.invalid"});
  return CheckRead(true, kBusyToleranceUs);
}

TEST_F(ForkStressTest, EveryChildOfABusyProcessEnds) {
#ifdef __SANITIZE_ADDRESS__
  // A child that another thread's allocation left a locked allocator hangs in its first allocation.
  GTEST_SKIP() << "the allocator of AddressSanitizer is not made ready for a fork";
#endif
  constexpr int kForks = 100;
  const auto given_seed = EnvironmentNumber("SKORRA_FORK_SEED");
  uint64_t seed = given_seed ? *given_seed : base::RandUint64();
  std::printf("SKORRA_FORK_SEED=%llu\n", static_cast<unsigned long long>(seed));
  const auto server = OpenDemoServer({.clock_error_us = kClockErrorUs});
  config::ConfigCenterImpl::GetInstance()->Set(config::BaseCfg().ntp_sync_interval, 1);
  const LogSilence silence(base::kLogProgress);
  const auto observer = std::make_shared<CountingObserver>();
  Manager().AddObserver(observer);
  Manager().UpdateNtpTimeDomain({server->local().ToString()});
  // What lives as long as the process is made at its first use, and a fork must not meet that.
  base::LocalLog(2, "tests/fork_test", __LINE__, "hello");
  base::KeyMetrics::Count("test.parent");
  Manager().Start();
  ASSERT_TRUE(WaitUntil([&] { return observer->successes > 0; }));
  Manager().GetAndResetNtpQualityStats();

  std::atomic<int> wrong_reads{0};
  Repeat([&] { wrong_reads += CheckRead(true, kBusyToleranceUs).empty() ? 0 : 1; });
  Repeat([] {
    Manager().Start();
    Manager().GetAndResetNtpQualityStats();
    poll(nullptr, 0, 1);
  });
  Repeat([] {
    poll(nullptr, 0, 300);
    Manager().Stop();
  });
  Repeat([] { base::LocalLog(2, "tests/fork_test", __LINE__, "hello"); });
  Repeat([] { base::KeyMetrics::Count("test.parent"); });
  Repeat([] {
    Manager().AddObserver(std::make_shared<CountingObserver>());
    config::ConfigCenterImpl::GetInstance()->Set(config::BaseCfg().ntp_default_domain, std::string("y"));
  });

  for (int i = 0; i < kForks; ++i) {
    seed = seed * 6364136223846793005 + 1442695040888963407;
    poll(nullptr, 0, static_cast<int>(seed >> 33) % 20);
    const bool is_long = i % 15 == 0;
    ForkedChild child([&] {
      std::string report = TouchEverything();
      // An early child has no result to announce again, and the name without an address gives no outcome.
      Manager().UpdateNtpTimeDomain({server->local().ToString()});
      return report.empty() && is_long ? SyncOnOnesOwn() : report;
    });
    ASSERT_EQ(child.Report(), "") << "fork " << i;
  }
  Finish();
  EXPECT_EQ(wrong_reads, 0);
  EXPECT_GT(observer->successes, 0u);
}

}  // namespace
}  // namespace skorra
