// SPDX-License-Identifier: Apache-2.0

// What this library does about forks, so that a process may fork at any moment, on a thread that knows
// nothing of the library.
//
// A fork waits until no thread is inside a NoForkScope or holds a base::Lock (lock.h), and no thread gets
// inside until the fork is over: in the child all data that they guard is whole. The wait ends after 100 ms
// (a thread may be inside a function of the host program that does not return). The data that this thread was
// changing may then be half changed in the child, but its locks can be taken there.
//
// The objects that live as long as the process are made at their first use. A fork at the very moment when
// another thread makes one leaves it half made in the child, and the child waits for it forever.
//
// A pthread_atfork handler of the host program must not call this library.
#pragma once

#include <cstdint>

namespace base {
inline namespace skorra_ntp {

class Lock;

// Different in a child from what it is in its parent.
uint32_t ForkGeneration();

// While one exists on a thread, forks by other threads wait. May be nested.
class NoForkScope {
 public:
  NoForkScope();
  ~NoForkScope();
  NoForkScope(const NoForkScope&) = delete;
  NoForkScope& operator=(const NoForkScope&) = delete;
};

// Lets forks pass while a thread inside a NoForkScope waits for the outside world. Hold no lock meanwhile.
class ForkAllowedScope {
 public:
  ForkAllowedScope();
  ~ForkAllowedScope();
  ForkAllowedScope(const ForkAllowedScope&) = delete;
  ForkAllowedScope& operator=(const ForkAllowedScope&) = delete;

 private:
  const int depth_;  // how many scopes and locks this thread was inside
};

namespace internal {

bool IsForkComing();

// For Lock. A thread enters before it changes anything that a fork must find whole, and leaves afterwards.
// While a fork is coming, only a thread that is inside already can enter (again); any other gets false and
// yields.
bool TryEnter();
void Leave();
void YieldToFork();

// The list of all locks. A child of fork resets those whose holders are threads that it does not have.
class AllLocks {
 public:
  static void Add(Lock* lock);
  static void Remove(Lock* lock);
  static void ResetOrphaned();

 private:
  static bool HeldByThisThread(const Lock& lock);
};

}  // namespace internal

}  // namespace skorra_ntp
}  // namespace base
