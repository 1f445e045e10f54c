// SPDX-License-Identifier: Apache-2.0

// The contracts of the seams, held against the world that the program is linked with.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <cstdlib>
#include <functional>
#include <limits>
#include <memory>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "platform/base/clock.h"
#include "platform/base/environment.h"
#include "platform/base/lock.h"
#include "platform/base/random.h"
#include "platform/base/thread_annotations.h"
#include "platform/core/machine_watch.h"
#include "platform/core/thread_manager.h"
#include "platform/net/datagram_socket.h"
#include "platform/net/host_resolver.h"
#include "platform/net/interface_index.h"
#include "testing/addresses.h"
#include "testing/seam_world.h"

namespace skorra {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;

using Bytes = std::vector<uint8_t>;

constexpr base::Location kHere = base::Location::CreateFromHere("tests/seam_conformance_test", 1);

base::TimeDelta Ms(int64_t ms) { return base::TimeDelta::FromMilliseconds(ms); }

// What tasks and callbacks noted, in order. Any thread.
template <class Entry>
class Notes {
 public:
  void Add(Entry entry) {
    const base::AutoLock lock(lock_);
    entries_.push_back(std::move(entry));
  }
  std::vector<Entry> All() const {
    const base::AutoLock lock(lock_);
    return entries_;
  }
  size_t size() const {
    const base::AutoLock lock(lock_);
    return entries_.size();
  }

 private:
  mutable base::Lock lock_;
  std::vector<Entry> entries_ SKORRA_GUARDED_BY(lock_);
};

class SeamTest : public ::testing::Test {
 protected:
  static std::shared_ptr<core::TaskQueue> Queue(int64_t instance = -1) {
    return core::ThreadManager::GetTaskQueue(core::BusinessID::kNtpTime, instance, std::nullopt);
  }

  // Runs `function` as a task, on the common queue unless told, and waits for its end.
  template <class Function>
  void RunAsTask(Function function, int64_t instance = -1) {
    std::atomic<bool> is_done{false};
    Queue(instance)->PostTask(kHere, base::BindOnce([&] {
                                function();
                                is_done = true;
                              }));
    ASSERT_TRUE(world_.WaitUntil([&] { return is_done.load(); }));
  }

  SeamWorld world_;
};

// --- Clocks

using ClockSeamTest = SeamTest;

TEST_F(ClockSeamTest, SteadyTicksNeverGoBack) {
  int64_t last_ticks_us = base::GetSteadyTimeTicks();
  EXPECT_GT(last_ticks_us, 0);
  for (int i = 0; i < 100000; ++i) {
    const int64_t now_ticks_us = base::GetSteadyTimeTicks();
    ASSERT_GE(now_ticks_us, last_ticks_us);
    last_ticks_us = now_ticks_us;
  }
}

TEST_F(ClockSeamTest, SteadyTicksGoOnWithTime) {
  const int64_t start_ticks_us = base::GetSteadyTimeTicks();
  std::atomic<bool> has_run{false};
  Queue()->PostDelayedTask(kHere, base::BindOnce([&] { has_run = true; }), Ms(2));
  EXPECT_TRUE(world_.WaitUntil([&] { return has_run.load(); }));
  EXPECT_LE(start_ticks_us + 2000, base::GetSteadyTimeTicks());
}

TEST_F(ClockSeamTest, TheWallClockIsSteadyTicksPlusTheOffset) {
  // A thread may be delayed between two readings, so the best of a few counts.
  int64_t smallest_error_us = std::numeric_limits<int64_t>::max();
  for (int i = 0; i < 100; ++i) {
    const int64_t wall_minus_steady_us = base::GetSystemTimeOffsetFromSteady();
    const int64_t wall_us = base::Time::Now().ToDeltaSinceWindowsEpoch().InMicroseconds();
    smallest_error_us =
        std::min(smallest_error_us, std::abs(wall_us - (base::GetSteadyTimeTicks() + wall_minus_steady_us)));
  }
  EXPECT_LE(smallest_error_us, 1000);
}

TEST_F(ClockSeamTest, TheWallClockShowsACivilDateOfTheseDecades) {
  EXPECT_GT(base::Time::Now().ToString(), "2024");
  EXPECT_LT(base::Time::Now().ToString(), "2100");
}

TEST_F(ClockSeamTest, TheThreeClocksOfAReadingNeverGoBackAndTheFirstIsTheSteadyOne) {
  base::MachineClocks last = base::ReadMachineClocks();
  for (int i = 0; i < 10000; ++i) {
    const int64_t before_ticks_us = base::GetSteadyTimeTicks();
    const base::MachineClocks now = base::ReadMachineClocks();
    ASSERT_LE(before_ticks_us, now.boot_ns / 1000);
    ASSERT_LE(now.boot_ns / 1000, base::GetSteadyTimeTicks());
    ASSERT_GE(now.raw_ns, last.raw_ns);
    ASSERT_GE(now.monotonic_ns, last.monotonic_ns);
    // Steady ticks count suspends, too.
    ASSERT_GE(now.boot_ns, last.monotonic_ns);
    last = now;
  }
}

TEST_F(ClockSeamTest, TheThreeClocksGoOnTogether) {
  const base::MachineClocks begin = base::ReadMachineClocks();
  const int64_t after_begin_ns = base::GetSteadyTimeTicks() * 1000;
  std::atomic<bool> has_run{false};
  Queue()->PostDelayedTask(kHere, base::BindOnce([&] { has_run = true; }), Ms(20));
  ASSERT_TRUE(world_.WaitUntil([&] { return has_run.load(); }));
  const base::MachineClocks end = base::ReadMachineClocks();
  // A thread may be delayed inside a reading: these are the limits of what can have passed. A real clock is
  // slewed by less than a hundredth.
  const int64_t longest_ns = (base::GetSteadyTimeTicks() + 1) * 1000 - begin.boot_ns;
  const int64_t shortest_ns = end.boot_ns - after_begin_ns - 1000;
  EXPECT_GE(shortest_ns, 0);
  for (const int64_t passed_ns : {end.raw_ns - begin.raw_ns, end.monotonic_ns - begin.monotonic_ns}) {
    EXPECT_LE(passed_ns, longest_ns + longest_ns / 100);
    EXPECT_GE(passed_ns, shortest_ns - shortest_ns / 100);
  }
}

TEST_F(ClockSeamTest, TheKernelCorrectsTheOscillatorByAtMost500PartsPerMillion) {
  EXPECT_LE(std::abs(base::GetKernelFrequencyPpb()), 500000);
}

TEST_F(ClockSeamTest, TheClockSourceIsTheSameWhileNobodyChangesIt) {
  EXPECT_EQ(base::GetClockSource(), base::GetClockSource());
}

TEST_F(ClockSeamTest, RandomNumbersDiffer) {
  std::set<uint64_t> numbers;
  for (int i = 0; i < 1000; ++i) {
    numbers.insert(base::RandUint64());
  }
  EXPECT_EQ(numbers.size(), 1000u);
}

// --- Task queue

using QueueSeamTest = SeamTest;

TEST_F(QueueSeamTest, OneBusinessAndInstanceHasOneQueue) {
  ASSERT_NE(Queue(), nullptr);
  EXPECT_EQ(Queue(), Queue());
  EXPECT_EQ(Queue(), core::ThreadManager::GetTaskQueue(core::BusinessID::kNtpTime, -1,
                                                       core::ThreadOption{"another name"}));
  EXPECT_NE(Queue(), Queue(1));
  EXPECT_EQ(Queue(1), Queue(1));
}

TEST_F(QueueSeamTest, TasksRunInPostingOrder) {
  Notes<int> notes;
  for (int i = 0; i < 1000; ++i) {
    Queue()->PostTask(kHere, base::BindOnce([&notes, i] { notes.Add(i); }));
  }
  ASSERT_TRUE(world_.WaitUntil([&] { return notes.size() == 1000; }));
  const std::vector<int> order = notes.All();
  for (int i = 0; i < 1000; ++i) {
    ASSERT_EQ(order[static_cast<size_t>(i)], i);
  }
}

TEST_F(QueueSeamTest, ATaskPostedByATaskRunsAfterIt) {
  Notes<std::string> notes;
  Queue()->PostTask(kHere, base::BindOnce([&] {
                      Queue()->PostTask(kHere, base::BindOnce([&] { notes.Add("inner"); }));
                      notes.Add("outer");
                    }));
  ASSERT_TRUE(world_.WaitUntil([&] { return notes.size() == 2; }));
  EXPECT_THAT(notes.All(), ElementsAre("outer", "inner"));
}

TEST_F(QueueSeamTest, NoTaskRunsInsideAPost) {
  Notes<std::string> notes;
  RunAsTask([&] {
    Queue()->PostTask(kHere, base::BindOnce([&] { notes.Add("task"); }));
    Queue()->PostDelayedTask(kHere, base::BindOnce([&] { notes.Add("delayed"); }), Ms(-1));
    EXPECT_EQ(notes.size(), 0u);
  });
  ASSERT_TRUE(world_.WaitUntil([&] { return notes.size() == 2; }));
}

TEST_F(QueueSeamTest, ADelayOfZeroOrLessIsThatOfAnOrdinaryPost) {
  Notes<int> notes;
  const auto note = [&notes](int number) { return base::BindOnce([&notes, number] { notes.Add(number); }); };
  RunAsTask([&] {
    Queue()->PostTask(kHere, note(1));
    Queue()->PostDelayedTask(kHere, note(2), base::TimeDelta());
    Queue()->PostDelayedTask(kHere, note(3), Ms(-5));
    Queue()->PostDelayedTask(kHere, note(4), base::TimeDelta::Min());
    Queue()->PostTask(kHere, note(5));
  });
  ASSERT_TRUE(world_.WaitUntil([&] { return notes.size() == 5; }));
  EXPECT_THAT(notes.All(), ElementsAre(1, 2, 3, 4, 5));
}

TEST_F(QueueSeamTest, DelayedTasksRunInTheOrderOfTheirDeadlinesAndNeverEarly) {
  struct Run {
    int64_t delay_ms;
    int64_t late_us;
  };
  Notes<Run> notes;
  const int64_t delays_ms[] = {20, 5, 15, 1, 10};
  RunAsTask([&] {
    for (const int64_t delay_ms : delays_ms) {
      const int64_t posted_ticks_us = base::GetSteadyTimeTicks();
      Queue()->PostDelayedTask(
          kHere, base::BindOnce([&notes, delay_ms, posted_ticks_us] {
            notes.Add({delay_ms, base::GetSteadyTimeTicks() - posted_ticks_us - delay_ms * 1000});
          }),
          Ms(delay_ms));
    }
  });
  ASSERT_TRUE(world_.WaitUntil([&] { return notes.size() == 5; }));
  std::vector<int64_t> order;
  for (const Run& run : notes.All()) {
    EXPECT_GE(run.late_us, 0) << run.delay_ms;
    order.push_back(run.delay_ms);
  }
  EXPECT_THAT(order, ElementsAre(1, 5, 10, 15, 20));
}

TEST_F(QueueSeamTest, ManyShortDelaysAreNeverCutShort) {
  Notes<int64_t> late_us;
  RunAsTask([&] {
    for (int i = 0; i < 200; ++i) {
      const int64_t delay_us = 1 + i * 37;
      const int64_t posted_ticks_us = base::GetSteadyTimeTicks();
      Queue()->PostDelayedTask(kHere, base::BindOnce([&late_us, delay_us, posted_ticks_us] {
                                 late_us.Add(base::GetSteadyTimeTicks() - posted_ticks_us - delay_us);
                               }),
                               base::TimeDelta::FromMicroseconds(delay_us));
    }
  });
  ASSERT_TRUE(world_.WaitUntil([&] { return late_us.size() == 200; }));
  const std::vector<int64_t> all = late_us.All();
  EXPECT_GE(*std::min_element(all.begin(), all.end()), 0);
}

TEST_F(QueueSeamTest, EqualDelaysRunInPostingOrder) {
  Notes<int> notes;
  RunAsTask([&] {
    for (int i = 0; i < 100; ++i) {
      Queue()->PostDelayedTask(kHere, base::BindOnce([&notes, i] { notes.Add(i); }), Ms(3));
    }
  });
  ASSERT_TRUE(world_.WaitUntil([&] { return notes.size() == 100; }));
  const std::vector<int> order = notes.All();
  EXPECT_TRUE(std::is_sorted(order.begin(), order.end()));
}

TEST_F(QueueSeamTest, AnEndlessDelayNeverPasses) {
  std::atomic<bool> has_run_endless{false};
  std::atomic<bool> has_run{false};
  Queue()->PostDelayedTask(kHere, base::BindOnce([&] { has_run_endless = true; }), base::TimeDelta::Max());
  Queue()->PostDelayedTask(kHere, base::BindOnce([&] { has_run = true; }), Ms(2));
  EXPECT_TRUE(world_.WaitUntil([&] { return has_run.load(); }));
  EXPECT_FALSE(has_run_endless);
}

TEST_F(QueueSeamTest, OnlyATaskOfTheQueueIsOnIt) {
  EXPECT_FALSE(Queue()->IsCurrent());
  RunAsTask([&] {
    EXPECT_TRUE(Queue()->IsCurrent());
    EXPECT_FALSE(Queue(1)->IsCurrent());
  });
  EXPECT_FALSE(Queue()->IsCurrent());
}

class Receiver {
 public:
  explicit Receiver(Notes<int>* notes) : notes_(notes) {}
  void Note(std::shared_ptr<int> number) { notes_->Add(*number); }
  base::WeakPtr<Receiver> GetWeakPtr() { return weak_owner_.GetWeakPtr(); }

 private:
  Notes<int>* const notes_;
  base::WeakPtrOwner<Receiver> weak_owner_{this};
};

TEST_F(QueueSeamTest, ATaskCancelledBeforeItsTurnIsDroppedAndItsArgumentsReleased) {
  Notes<int> notes;
  const auto argument = std::make_shared<int>(7);
  std::weak_ptr<int> watch;
  RunAsTask([&] {
    auto receiver = std::make_unique<Receiver>(&notes);
    auto cancelled_argument = std::make_shared<int>(8);
    watch = cancelled_argument;
    Queue()->PostTask(kHere, base::BindOnce(&Receiver::Note, receiver->GetWeakPtr(), cancelled_argument));
    Queue()->PostDelayedTask(
        kHere, base::BindOnce(&Receiver::Note, receiver->GetWeakPtr(), std::move(cancelled_argument)), Ms(1));
  });
  const auto living = std::make_unique<Receiver>(&notes);
  RunAsTask([&] {
    Queue()->PostDelayedTask(kHere, base::BindOnce(&Receiver::Note, living->GetWeakPtr(), argument), Ms(3));
  });
  EXPECT_TRUE(world_.WaitUntil([&] { return notes.size() == 1; }));
  EXPECT_THAT(notes.All(), ElementsAre(7));
  EXPECT_TRUE(watch.expired());
}

// --- Datagrams

class DatagramSeamTest : public SeamTest {
 protected:
  DatagramSeamTest() = default;
  ~DatagramSeamTest() override { Close(); }

  // The queue that connects from now on.
  void UseQueue(int64_t instance) { instance_ = instance; }

  void Connect(const net::IPEndPoint& remote) {
    RunAsTask([&] {
      net::SocketError error = net::SocketError::kOther;
      socket_ =
          net::DatagramSocket::Connect(remote,
                                       {[this](const net::ReceivedDatagram& datagram) {
                                          on_queue_count_ += Queue(instance_)->IsCurrent() ? 1 : 0;
                                          source_.Add(datagram.source);
                                          receive_ticks_us_.Add(datagram.receive_ticks_us);
                                          is_truncated_.Add(datagram.is_truncated);
                                          received_.Add(Bytes(datagram.bytes.begin(), datagram.bytes.end()));
                                          if (on_received_) {
                                            on_received_();
                                          }
                                        },
                                        [this](net::SocketError reported) {
                                          on_queue_count_ += Queue(instance_)->IsCurrent() ? 1 : 0;
                                          errors_.Add(reported);
                                        }},
                                       &error);
      ASSERT_NE(socket_, nullptr);
      EXPECT_EQ(error, net::SocketError::kNone);
      local_ = socket_->local();
    });
  }
  template <class Function>
  void RunAsTask(Function function) {
    SeamTest::RunAsTask(function, instance_);
  }
  void Close() {
    RunAsTask([&] { socket_ = nullptr; });
  }
  void Send(const Bytes& bytes) {
    RunAsTask([&] { EXPECT_EQ(socket_->Send(bytes), net::SocketError::kNone); });
  }

  int64_t instance_ = -1;

  std::function<void()> on_received_;
  std::unique_ptr<net::DatagramSocket> socket_;
  net::IPEndPoint local_;
  Notes<Bytes> received_;
  Notes<net::IPEndPoint> source_;
  Notes<int64_t> receive_ticks_us_;
  Notes<bool> is_truncated_;
  Notes<net::SocketError> errors_;
  std::atomic<int> on_queue_count_{0};
};

TEST_F(DatagramSeamTest, ADatagramReachesTheServerAndItsReplyComesBackOnTheQueue) {
  const net::IPEndPoint server = world_.AddServer();
  Connect(server);
  EXPECT_FALSE(local_.address_empty());
  EXPECT_NE(local_.port(), 0);
  const int64_t start_ticks_us = base::GetSteadyTimeTicks();
  Send({1, 2, 3});
  EXPECT_EQ(world_.ReceiveAt(server), (Bytes{1, 2, 3}));
  world_.SendFrom(server, local_, {4, 5});
  ASSERT_TRUE(world_.WaitUntil([&] { return received_.size() == 1; }));
  EXPECT_THAT(received_.All(), ElementsAre(Bytes{4, 5}));
  EXPECT_THAT(source_.All(), ElementsAre(server));
  EXPECT_EQ(on_queue_count_, 1);
  const int64_t receive_ticks_us = receive_ticks_us_.All()[0];
  EXPECT_GE(receive_ticks_us, start_ticks_us - 1000);
  EXPECT_LE(receive_ticks_us, base::GetSteadyTimeTicks());
}

TEST_F(DatagramSeamTest, DatagramsFromElsewhereAreNotHeard) {
  const net::IPEndPoint server = world_.AddServer();
  const net::IPEndPoint stranger = world_.AddServer();
  Connect(server);
  world_.SendFrom(stranger, local_, {6, 6, 6});
  world_.SendFrom(server, local_, {1});
  ASSERT_TRUE(world_.WaitUntil([&] { return received_.size() >= 1; }));
  EXPECT_THAT(received_.All(), ElementsAre(Bytes{1}));
}

TEST_F(DatagramSeamTest, AClosedPortIsReportedOnTheQueueAndTheSocketStaysUsable) {
  Connect(world_.RefusingEndPoint());
  Send({1});
  ASSERT_TRUE(world_.WaitUntil([&] { return errors_.size() == 1; }));
  EXPECT_EQ(errors_.All()[0], net::SocketError::kRefused);
  EXPECT_EQ(on_queue_count_, 1);
  Send({2});
  EXPECT_TRUE(world_.WaitUntil([&] { return errors_.size() == 2; }));
}

TEST_F(DatagramSeamTest, CallbacksRunOnTheQueueThatConnected) {
  UseQueue(1);
  const net::IPEndPoint server = world_.AddServer();
  Connect(server);
  world_.SendFrom(server, local_, {1});
  ASSERT_TRUE(world_.WaitUntil([&] { return received_.size() == 1; }));
  EXPECT_EQ(on_queue_count_, 1);
  Close();
  Connect(world_.RefusingEndPoint());
  Send({1});
  ASSERT_TRUE(world_.WaitUntil([&] { return errors_.size() == 1; }));
  EXPECT_EQ(on_queue_count_, 2);
}

TEST_F(DatagramSeamTest, NothingIsHeardAfterTheSocketIsGone) {
  const net::IPEndPoint server = world_.AddServer();
  Connect(server);
  RunAsTask([&] {
    // A datagram that is under way when the socket closes is lost.
    EXPECT_EQ(socket_->Send(Bytes{1}), net::SocketError::kNone);
    world_.SendFrom(server, local_, {2});
    socket_ = nullptr;
    world_.SendFrom(server, local_, {3});
  });
  Connect(server);
  world_.SendFrom(server, local_, {4});
  ASSERT_TRUE(world_.WaitUntil([&] { return received_.size() >= 1; }));
  EXPECT_THAT(received_.All(), ElementsAre(Bytes{4}));
}

TEST_F(DatagramSeamTest, ASocketThatStoppedReadingReadsAgainWithItsNextSend) {
  const net::IPEndPoint server = world_.AddServer();
  const net::IPEndPoint other_server = world_.AddServer();
  Connect(server);
  Send({1});
  ASSERT_TRUE(world_.ReceiveAt(server));
  RunAsTask([&] { socket_->StopReading(); });
  world_.SendFrom(server, local_, {2});
  world_.SendFrom(server, local_, {3});
  // Another socket's datagram comes through meanwhile: the first ones have had their time.
  auto stopped = std::move(socket_);
  const net::IPEndPoint stopped_at = local_;
  Connect(other_server);
  world_.SendFrom(other_server, local_, {4});
  EXPECT_TRUE(world_.WaitUntil([&] { return received_.size() >= 1; }));
  EXPECT_THAT(received_.All(), ElementsAre(Bytes{4}));
  RunAsTask([&] { EXPECT_EQ(stopped->Send(Bytes{5}), net::SocketError::kNone); });
  EXPECT_TRUE(world_.WaitUntil([&] { return received_.size() >= 3; }));
  world_.SendFrom(server, stopped_at, {6});
  EXPECT_TRUE(world_.WaitUntil([&] { return received_.size() >= 4; }));
  EXPECT_THAT(received_.All(), ElementsAre(Bytes{4}, Bytes{2}, Bytes{3}, Bytes{6}));
  RunAsTask([&] { stopped = nullptr; });
}

TEST_F(DatagramSeamTest, ASocketMayStopReadingInsideItsOwnCallback) {
  const net::IPEndPoint server = world_.AddServer();
  on_received_ = [this] { socket_->StopReading(); };
  Connect(server);
  world_.SendFrom(server, local_, {1});
  world_.SendFrom(server, local_, {2});
  ASSERT_TRUE(world_.WaitUntil([&] { return received_.size() >= 1; }));
  EXPECT_THAT(received_.All(), ElementsAre(Bytes{1}));
  Send({3});
  ASSERT_TRUE(world_.WaitUntil([&] { return received_.size() >= 2; }));
  EXPECT_THAT(received_.All(), ElementsAre(Bytes{1}, Bytes{2}));
}

TEST_F(DatagramSeamTest, EachSocketNumbersItsSendsFromZero) {
  const net::IPEndPoint server = world_.AddServer();
  for (int socket = 0; socket < 2; ++socket) {
    Connect(server);
    RunAsTask([&] {
      for (uint32_t i = 0; i < 3; ++i) {
        uint32_t id = 99;
        EXPECT_EQ(socket_->Send(Bytes{1}, &id), net::SocketError::kNone);
        EXPECT_EQ(id, i) << socket;
      }
    });
    Close();
  }
}

TEST_F(DatagramSeamTest, ADatagramThatIsTooLongIsCutAndSaysSo) {
  const net::IPEndPoint server = world_.AddServer();
  Connect(server);
  for (const size_t size : {net::kMaxDatagramBytes, net::kMaxDatagramBytes + 1}) {
    world_.SendFrom(server, local_, Bytes(size, 7));
  }
  ASSERT_TRUE(world_.WaitUntil([&] { return received_.size() == 2; }));
  EXPECT_THAT(received_.All(),
              ElementsAre(Bytes(net::kMaxDatagramBytes, 7), Bytes(net::kMaxDatagramBytes, 7)));
  EXPECT_THAT(is_truncated_.All(), ElementsAre(false, true));
}

TEST_F(DatagramSeamTest, ConnectingOutsideATaskQueueFails) {
  net::SocketError error = net::SocketError::kNone;
  EXPECT_EQ(net::DatagramSocket::Connect(world_.AddServer(), {}, &error), nullptr);
  EXPECT_EQ(error, net::SocketError::kOther);
}

TEST_F(DatagramSeamTest, ConnectingToTheEmptyEndPointFails) {
  RunAsTask([] {
    net::SocketError error = net::SocketError::kNone;
    EXPECT_EQ(net::DatagramSocket::Connect(net::IPEndPoint(), {}, &error), nullptr);
    EXPECT_EQ(error, net::SocketError::kOther);
  });
}

TEST_F(DatagramSeamTest, TwoSocketsToOneServerHaveTheirOwnPorts) {
  const net::IPEndPoint server = world_.AddServer();
  Connect(server);
  const net::IPEndPoint first = local_;
  auto kept = std::move(socket_);
  Connect(server);
  EXPECT_NE(local_, first);
  RunAsTask([&] { kept = nullptr; });
}

// --- The watch of the machine

using WatchSeamTest = SeamTest;

TEST_F(WatchSeamTest, AWatchIsOpenedOnATaskQueueOnly) {
  EXPECT_EQ(core::MachineWatch::Open({}), nullptr);
  for (const int64_t instance : {-1, 1}) {
    RunAsTask([] { EXPECT_NE(core::MachineWatch::Open({}), nullptr); }, instance);
  }
}

TEST_F(WatchSeamTest, AQuietMachineReportsNothingInsideTheOpeningOfAWatch) {
  RunAsTask([] {
    bool is_opening = true;
    int inside = 0;
    const auto note = [&] { inside += is_opening ? 1 : 0; };
    std::vector<std::unique_ptr<core::MachineWatch>> watches;
    for (int i = 0; i < 10; ++i) {
      watches.push_back(core::MachineWatch::Open({note, note}));
      EXPECT_NE(watches.back(), nullptr);
    }
    is_opening = false;
    watches.clear();
    EXPECT_EQ(inside, 0);
  });
}

// --- Names

using NameSeamTest = SeamTest;

TEST_F(NameSeamTest, LiteralsAreTheirOwnAddress) {
  for (const char* literal : {"192.0.2.1", "2001:db8::1"}) {
    const net::ResolveResult result = net::ResolveHost(literal, 4123, Ms(1));
    EXPECT_EQ(result.error, net::ResolveError::kNone) << literal;
    EXPECT_THAT(result.addresses, ElementsAre(*net::IPEndPoint::FromLiteral(literal, 4123))) << literal;
  }
}

TEST_F(NameSeamTest, LocalhostIsThisMachine) {
  const net::ResolveResult result = net::ResolveHost("localhost", skorra::kNtpPort, Ms(5000));
  ASSERT_EQ(result.error, net::ResolveError::kNone) << result.detail;
  ASSERT_FALSE(result.addresses.empty());
  for (const net::IPEndPoint& address : result.addresses) {
    EXPECT_TRUE(address == Address("127.0.0.1") || address == Address("::1")) << address.ToString();
  }
}

TEST_F(NameSeamTest, AnUnknownNameIsNotFoundWithTheReasonInWords) {
  const net::ResolveResult result = world_.ResolveUnknownName(Ms(20000));
  EXPECT_EQ(result.error, net::ResolveError::kNotFound);
  EXPECT_THAT(result.addresses, IsEmpty());
  EXPECT_NE(result.detail.find("unknown.example."), std::string::npos) << result.detail;
}

TEST_F(NameSeamTest, ASilentNameServerEndsTheLookupAtTheDeadline) {
  const int64_t start_ticks_us = base::GetSteadyTimeTicks();
  const net::ResolveResult result = world_.ResolveSilentName(Ms(100));
  EXPECT_EQ(result.error, net::ResolveError::kTimedOut);
  EXPECT_THAT(result.addresses, IsEmpty());
  EXPECT_NE(result.detail.find("silent.example."), std::string::npos) << result.detail;
  EXPECT_GE(base::GetSteadyTimeTicks() - start_ticks_us, 100000);
  EXPECT_LT(base::GetSteadyTimeTicks() - start_ticks_us, 2000000);
}

TEST_F(NameSeamTest, NamesOfOneCallAreLookedUpAtTheSameTimeAndEachHasItsOwnResult) {
  const std::vector<net::HostPort> hosts = {
      {"silent.a.example.", 1}, {"good.example.", 2}, {"192.0.2.7", 3},
      {"silent.b.example.", 4}, {"localhost", 5},     {"silent.c.example.", 6},
      {"silent.d.example.", 7}, {"good.example.", 8}, {"silent.e.example.", 9}};
  const int64_t start_ticks_us = base::GetSteadyTimeTicks();
  const std::vector<net::ResolveResult> results = world_.ResolveTogether(hosts, Ms(500));
  const int64_t taken_us = base::GetSteadyTimeTicks() - start_ticks_us;
  EXPECT_GE(taken_us, 500000);
  EXPECT_LT(taken_us, 2000000);  // one after the other they would take 2.5 s
  ASSERT_EQ(results.size(), hosts.size());
  for (size_t i = 0; i < hosts.size(); ++i) {
    const auto& [host, port] = hosts[i];
    SCOPED_TRACE(host);
    if (host.starts_with("silent.")) {
      EXPECT_EQ(results[i].error, net::ResolveError::kTimedOut);
      EXPECT_THAT(results[i].addresses, IsEmpty());
      EXPECT_NE(results[i].detail.find(host), std::string::npos) << results[i].detail;
      continue;
    }
    EXPECT_EQ(results[i].error, net::ResolveError::kNone) << results[i].detail;
    ASSERT_FALSE(results[i].addresses.empty());
    const char* const expected = host == "good.example." ? "192.0.2.1"
                                 : host == "localhost"   ? "127.0.0.1"
                                                         : "192.0.2.7";
    EXPECT_EQ(results[i].addresses.front(), *net::IPEndPoint::FromLiteral(expected, port));
  }
}

TEST_F(NameSeamTest, ALookupOfNoNameEndsAtOnce) {
  const int64_t start_ticks_us = base::GetSteadyTimeTicks();
  EXPECT_THAT(world_.ResolveTogether({}, Ms(10000)), IsEmpty());
  EXPECT_LT(base::GetSteadyTimeTicks() - start_ticks_us, 5000000);
}

TEST_F(NameSeamTest, AnAddressHoldsAsLongAsItsRecordSays) {
  for (const int64_t ttl_s : {0, 1, 300, 604800}) {
    const net::ResolveResult result = world_.ResolveNameWithTtl(base::TimeDelta::FromSeconds(ttl_s));
    EXPECT_EQ(result.error, net::ResolveError::kNone) << result.detail;
    EXPECT_EQ(result.ttl, base::TimeDelta::FromSeconds(ttl_s));
  }
}

TEST_F(NameSeamTest, AnAddressThatNoNameServerGaveHoldsForever) {
  for (const char* host : {"192.0.2.1", "2001:db8::1", "localhost"}) {
    EXPECT_EQ(net::ResolveHost(host, skorra::kNtpPort, Ms(5000)).ttl, base::TimeDelta::Max()) << host;
  }
}

TEST_F(NameSeamTest, ALookupInTheBackgroundReportsOnceOnTheQueueOfNamesAndNeverInsideTheCall) {
  struct Report {
    std::string host;
    bool is_inside_call;
    bool is_on_queue_of_names;
    net::ResolveResult result;
  };
  thread_local bool is_calling = false;
  const auto names = core::ThreadManager::GetTaskQueue(core::BusinessID::kNames, -1, std::nullopt);
  Notes<Report> reports;
  const char* const hosts[] = {"192.0.2.1", "2001:db8::1", "localhost", "unknown.invalid", "192.0.2.2"};
  for (const char* host : hosts) {
    is_calling = true;
    net::ResolveHostInBackground(host, 4123, Ms(5000), [&, host](const net::ResolveResult& result) {
      reports.Add({host, is_calling, names->IsCurrent(), result});
    });
    is_calling = false;
  }
  ASSERT_TRUE(world_.WaitUntil([&] { return reports.size() == std::size(hosts); }));
  // One more lookup, so that a second report of an earlier one would be seen.
  net::ResolveHostInBackground("192.0.2.3", 4123, Ms(5000), [&](const net::ResolveResult& result) {
    reports.Add({"192.0.2.3", false, names->IsCurrent(), result});
  });
  ASSERT_TRUE(world_.WaitUntil([&] { return reports.size() > std::size(hosts); }));
  std::set<std::string> seen;
  for (const Report& report : reports.All()) {
    SCOPED_TRACE(report.host);
    EXPECT_TRUE(seen.insert(report.host).second);
    EXPECT_FALSE(report.is_inside_call);
    EXPECT_TRUE(report.is_on_queue_of_names);
    // It is what the blocking lookup returns.
    const net::ResolveResult expected = net::ResolveHost(report.host, 4123, Ms(5000));
    EXPECT_EQ(report.result.addresses, expected.addresses);
    EXPECT_EQ(report.result.error, expected.error);
    EXPECT_EQ(report.result.detail, expected.detail);
    EXPECT_EQ(report.result.ttl, expected.ttl);
  }
  EXPECT_EQ(seen.size(), std::size(hosts) + 1);
}

// --- The machine

using MachineSeamTest = SeamTest;

TEST_F(MachineSeamTest, AnEnvironmentVariableHasTheValueThatItWasGivenLast) {
  constexpr const char* kName = "SKORRA_SEAM_TEST";
  EXPECT_EQ(base::GetEnvironmentVariable(kName), std::nullopt);
  world_.SetEnvironmentVariable(kName, "first");
  world_.SetEnvironmentVariable(kName, "two words");
  EXPECT_EQ(base::GetEnvironmentVariable(kName), "two words");
  world_.SetEnvironmentVariable(kName, "");
  EXPECT_EQ(base::GetEnvironmentVariable(kName), "") << "an empty value is a value";
  world_.SetEnvironmentVariable(kName, std::nullopt);
  EXPECT_EQ(base::GetEnvironmentVariable(kName), std::nullopt);
}

TEST_F(MachineSeamTest, OnlyTheWholeNameOfAnInterfaceHasAnIndex) {
  EXPECT_EQ(net::GetInterfaceIndex("lo"), 1u);
  for (const char* name :
       {"", "l", "lo:1", "lo ", "LO", "no-such-interface", "a name longer than any interface has"}) {
    EXPECT_EQ(net::GetInterfaceIndex(name), 0u) << name;
  }
}

}  // namespace
}  // namespace skorra
