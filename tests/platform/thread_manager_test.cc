// SPDX-License-Identifier: Apache-2.0

// What only real threads have: names, signal masks, starts that fail, and tasks that take time.
#include "platform/core/thread_manager.h"

#include <errno.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <pthread.h>
#include <sched.h>
#include <signal.h>
#include <sys/syscall.h>

#include <atomic>
#include <future>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "platform/base/clock.h"
#include "platform/base/lock.h"
#include "platform/base/log.h"
#include "platform/metrics/key_metrics.h"
#include "testing/log_recorder.h"
#include "testing/ntp_queue.h"
#include "testing/refuse_system_call.h"
#include "testing/wait_until.h"

namespace core {
namespace {

using skorra::RunOn;
using ::testing::AllOf;
using ::testing::ElementsAre;
using ::testing::HasSubstr;

constexpr base::Location kHere = base::Location::CreateFromHere("tests/thread_manager_test", 1);

std::shared_ptr<TaskQueue> Queue(int64_t instance, base::Optional<ThreadOption> option = {}) {
  return ThreadManager::GetTaskQueue(BusinessID::kNtpTime, instance, std::move(option));
}

std::string CurrentThreadName() {
  char name[16] = "";
  pthread_getname_np(pthread_self(), name, sizeof name);
  return name;
}

TEST(ThreadManagerTest, AQueuesThreadHasTheNameAskedForCutTo15Bytes) {
  EXPECT_EQ(RunOn(*Queue(1), CurrentThreadName), "skorra-701");
  EXPECT_EQ(RunOn(*Queue(2, ThreadOption{"ntp"}), CurrentThreadName), "ntp");
  EXPECT_EQ(RunOn(*Queue(3, ThreadOption{"a-name-of-many-bytes"}), CurrentThreadName), "a-name-of-many-");
  EXPECT_EQ(RunOn(*Queue(2, ThreadOption{"other"}), CurrentThreadName), "ntp")
      << "only the first call counts";
}

TEST(ThreadManagerTest, SignalsStayWithTheHostProgramsThreads) {
  const sigset_t mask = RunOn(*Queue(-1), [] {
    sigset_t current;
    pthread_sigmask(SIG_SETMASK, nullptr, &current);
    return current;
  });
  for (const int number : {SIGTERM, SIGINT, SIGHUP, SIGUSR1, SIGCHLD, SIGALRM, SIGPIPE}) {
    EXPECT_EQ(sigismember(&mask, number), 1) << number;
  }
  EXPECT_EQ(sigismember(&mask, SIGSEGV), 0) << "a crash must reach the host's handler";
  sigset_t own;
  pthread_sigmask(SIG_SETMASK, nullptr, &own);
  EXPECT_EQ(sigismember(&own, SIGTERM), 0) << "the creator's mask is restored";
}

TEST(ThreadManagerTest, TasksOfTwoQueuesRunAtTheSameTime) {
  struct Meeting {
    std::atomic<int> begun{0};
    std::atomic<int> met{0};
    std::atomic<int> over{0};
  };
  const auto meeting = std::make_shared<Meeting>();  // a task that is late must find it
  for (const int64_t instance : {4, 5}) {
    Queue(instance)->PostTask(
        kHere, base::BindOnce([meeting] {
          ++meeting->begun;
          // Each task waits for the other one, and gives up before the test does.
          meeting->met +=
              skorra::WaitUntil([&] { return meeting->begun == 2; }, skorra::kPatienceMs / 4) ? 1 : 0;
          ++meeting->over;
        }));
  }
  EXPECT_TRUE(skorra::WaitUntil([&] { return meeting->over == 2; }));
  EXPECT_EQ(meeting->met, 2);
}

TEST(ThreadManagerTest, ADelayThatPassedWhileATaskRanComesBeforeWhatIsPostedAfterIt) {
  const auto queue = Queue(-1);
  std::vector<std::string> order;  // touched on the queue only, until `is_done`
  std::promise<void> done;
  queue->PostTask(kHere, base::BindOnce([&] {
                    queue->PostDelayedTask(kHere, base::BindOnce([&] { order.push_back("delayed"); }),
                                           base::TimeDelta::FromMilliseconds(1));
                    queue->PostTask(kHere, base::BindOnce([&] { order.push_back("at once"); }));
                    const int64_t start_ticks_us = base::GetSteadyTimeTicks();
                    skorra::WaitUntil([&] { return base::GetSteadyTimeTicks() > start_ticks_us + 2000; });
                    queue->PostTask(kHere, base::BindOnce([&] {
                                      order.push_back("later");
                                      done.set_value();
                                    }));
                  }));
  done.get_future().wait();
  EXPECT_THAT(order, ElementsAre("at once", "delayed", "later"));
}

TEST(ThreadManagerTest, AnEndlessDelayDoesNotDisturbTheOthers) {
  const auto queue = Queue(-1);
  std::atomic<bool> has_run_endless{false};
  std::promise<void> done;
  queue->PostDelayedTask(kHere, base::BindOnce([&] { has_run_endless = true; }), base::TimeDelta::Max());
  queue->PostDelayedTask(kHere, base::BindOnce([&] { done.set_value(); }),
                         base::TimeDelta::FromMilliseconds(1));
  done.get_future().wait();
  EXPECT_FALSE(has_run_endless);
}

TEST(ThreadManagerTest, EveryThreadsOrderIsKept) {
  constexpr int kThreads = 3;
  constexpr int kTasks = 2000;
  const auto queue = Queue(-1);
  std::vector<std::vector<int>> seen(kThreads);  // touched on the queue only, until all have run
  std::atomic<int> count{0};
  std::vector<std::thread> threads;
  for (size_t t = 0; t < kThreads; ++t) {
    threads.emplace_back([&, t] {
      for (int i = 0; i < kTasks; ++i) {
        queue->PostTask(kHere, base::BindOnce([&, t, i] {
                          seen[t].push_back(i);
                          ++count;
                        }));
      }
    });
  }
  for (std::thread& thread : threads) {
    thread.join();
  }
  ASSERT_TRUE(skorra::WaitUntil([&] { return count == kThreads * kTasks; }));
  for (const std::vector<int>& numbers : seen) {
    for (int i = 0; i < kTasks; ++i) {
      ASSERT_EQ(numbers[static_cast<size_t>(i)], i);
    }
  }
}

TEST(ThreadManagerTest, TasksOfAThreadThatCannotStartWaitUntilALaterCallStartsIt) {
  const skorra::LogRecorder log;
  std::atomic<int> run_count{0};
  const auto count = [&] { return base::BindOnce([&] { ++run_count; }); };
  std::shared_ptr<TaskQueue> refused;
  for (const int number : {SYS_epoll_create1, SYS_timerfd_create, SYS_clone3}) {
    std::thread([&] {
      ASSERT_TRUE(skorra::RefuseSystemCallOnThisThread(number, EMFILE));
      refused = Queue(6);
      ASSERT_NE(refused, nullptr) << number;
      refused->PostTask(kHere, count());
      refused->PostDelayedTask(kHere, count(), base::TimeDelta::FromMilliseconds(1));
    }).join();
  }
  // Logged once, not at every call.
  ASSERT_EQ(log.lines.size(), 1u);
  EXPECT_EQ(log.lines[0].level, 1);
  EXPECT_THAT(log.lines[0].text, HasSubstr("skorra-701"));
  EXPECT_EQ(run_count, 0);

  const auto granted = Queue(6);
  EXPECT_EQ(granted, refused);
  EXPECT_TRUE(RunOn(*granted, [&] { return granted->IsCurrent(); }));
  EXPECT_TRUE(skorra::WaitUntil([&] { return run_count == 6; }));
}

TEST(ThreadManagerTest, ASandboxWithoutTheSchedulingCallHasThreadsAllTheSame) {
  const skorra::LogRecorder log;
  for (const int error : {EPERM, ENOSYS}) {
    std::thread([&] {
      ASSERT_TRUE(skorra::RefuseSystemCallOnThisThread(SYS_sched_setscheduler, error));
      const auto queue = Queue(error == EPERM ? 7 : 8);
      EXPECT_TRUE(RunOn(*queue, [&] { return queue->IsCurrent(); }));
      EXPECT_EQ(RunOn(*queue, [] { return sched_getscheduler(0); }), SCHED_OTHER);
    }).join();
  }
  EXPECT_TRUE(log.lines.empty());
}

TEST(ThreadManagerTest, ATimerThatTheSystemDoesNotSetIsLoggedOnceAndCounted) {
  base::Lock lock;
  std::vector<std::string> failures;
  const skorra::LogSinkScope sink(
      [&](const base::LogLine& line) {
        const base::AutoLock guard(lock);
        failures.push_back(std::to_string(line.level) + ' ' + line.text);
      },
      base::kLogFailure);
  const uint64_t before = base::KeyMetrics::GetCount("core.queue.timer_failed");
  std::atomic<int> run_count{0};
  std::thread([&] {
    ASSERT_TRUE(skorra::RefuseSystemCallOnThisThread(SYS_timerfd_settime, EPERM));
    const auto queue = Queue(9);
    // Too far ahead to be due already on a busy machine: then no timer would be set.
    for (const int64_t delay_ms : {20000, 10000}) {
      queue->PostDelayedTask(kHere, base::BindOnce([&] { ++run_count; }),
                             base::TimeDelta::FromMilliseconds(delay_ms));
    }
    // What needs no timer runs. The line is logged before this task.
    EXPECT_TRUE(RunOn(*queue, [&] { return queue->IsCurrent(); }));
  }).join();
  EXPECT_GE(base::KeyMetrics::GetCount("core.queue.timer_failed"), before + 2);
  const base::AutoLock guard(lock);
  ASSERT_EQ(failures.size(), 1u);
  EXPECT_THAT(failures[0], AllOf(HasSubstr("1 cannot set a timer"), HasSubstr("timerfd_settime"),
                                 HasSubstr("Operation not permitted"), HasSubstr("sandbox")));
}

}  // namespace
}  // namespace core
