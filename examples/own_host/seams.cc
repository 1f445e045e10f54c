// SPDX-License-Identifier: Apache-2.0
// All seams of the library but the sockets, as this host has them. docs/porting.md tells what each promises.
//
// This host does not fork while the loop runs, so nothing here looks at base::ForkGeneration.
#include <net/if.h>
#include <time.h>
#include <unistd.h>

#include <cstdlib>
#include <memory>
#include <mutex>
#include <tuple>

#include "./host_loop.h"
#include "./host_queue.h"
#include "platform/base/clock.h"
#include "platform/base/environment.h"
#include "platform/base/log.h"
#include "platform/base/random.h"
#include "platform/base/time.h"
#include "platform/core/machine_watch.h"
#include "platform/core/thread_manager.h"
#include "platform/metrics/key_metrics.h"
#include "platform/net/host_resolver.h"
#include "platform/net/interface_index.h"

thread_local core::TaskQueue* t_current_queue = nullptr;

std::map<std::string, std::string>& HostConfiguration() {
  static auto& table = *new std::map<std::string, std::string>;
  return table;
}

namespace {

constexpr char kSourcePath[] = "examples/own_host/seams";

int64_t ReadNs(clockid_t clock) {
  timespec now;
  clock_gettime(clock, &now);
  return int64_t{now.tv_sec} * 1000000000 + now.tv_nsec;
}

class HostQueue : public core::TaskQueue {
 public:
  void PostTask(const base::Location& from, base::OnceCallback<void()>&& task) override {
    PostDelayedTask(from, std::move(task), base::TimeDelta());
  }

  void PostDelayedTask(const base::Location&, base::OnceCallback<void()>&& task,
                       base::TimeDelta delay) override {
    // The loop's work can be copied and a task cannot: the task waits in shared storage.
    const auto waiting = std::make_shared<base::OnceCallback<void()>>(std::move(task));
    HostLoop::Get().Post(delay.InMicroseconds(), [this, waiting] {
      if (!waiting->IsCancelled()) {
        RunOn(this, [&] { std::move(*waiting).Run(); });
      }
    });
  }

  bool IsCurrent() const override { return t_current_queue == this; }
};

}  // namespace

namespace base {
inline namespace skorra_ntp {

Time Time::Now() { return Time::UnixEpoch() + TimeDelta::FromMicroseconds(ReadNs(CLOCK_REALTIME) / 1000); }

int64_t GetSteadyTimeTicks() { return HostLoop::NowUs(); }

int64_t GetSystemTimeOffsetFromSteady() {
  const int64_t before_ticks_us = GetSteadyTimeTicks();
  const int64_t wall_us = Time::Now().ToDeltaSinceWindowsEpoch().InMicroseconds();
  return wall_us - (before_ticks_us + (GetSteadyTimeTicks() - before_ticks_us) / 2);
}

MachineClocks ReadMachineClocks() {
  const int64_t boot_ns = ReadNs(CLOCK_BOOTTIME);
  const int64_t raw_ns = ReadNs(CLOCK_MONOTONIC_RAW);
  return {boot_ns, raw_ns, ReadNs(CLOCK_MONOTONIC)};
}

int64_t GetKernelFrequencyPpb() { return 0; }  // this host does not ask

uint64_t GetClockSource() { return 0; }

uint64_t RandUint64() {
  uint64_t number;
  if (getentropy(&number, sizeof number) != 0) {
    std::abort();  // with nonces that can be guessed, anyone could set this clock
  }
  return number;
}

Optional<std::string> GetEnvironmentVariable(const char* name) {
  const auto found = HostConfiguration().find(name);
  return found == HostConfiguration().end() ? Optional<std::string>() : found->second;
}

}  // namespace skorra_ntp
}  // namespace base

namespace core {
inline namespace skorra_ntp {

std::shared_ptr<TaskQueue> ThreadManager::GetTaskQueue(BusinessID business, int64_t instance,
                                                       base::Optional<ThreadOption>) {
  static std::mutex& mutex = *new std::mutex;
  static auto& queues = *new std::map<std::tuple<BusinessID, int64_t>, std::shared_ptr<HostQueue>>;
  const std::lock_guard<std::mutex> lock(mutex);
  std::shared_ptr<HostQueue>& queue = queues[{business, instance}];
  if (queue == nullptr) {
    queue = std::make_shared<HostQueue>();
  }
  return queue;
}

// This host is not told when its clock is set or its network comes up, and says so once. The library then
// notices both later.
struct MachineWatch::Impl {};

std::unique_ptr<MachineWatch> MachineWatch::Open(Callbacks) {
  if (t_current_queue == nullptr) {
    return nullptr;
  }
  base::KeyMetrics::Count("core.machine_watch.clock_failed");
  base::KeyMetrics::Count("core.machine_watch.network_failed");
  static bool is_logged = false;
  if (!std::exchange(is_logged, true)) {
    base::LocalLog(base::kLogFailure, kSourcePath, __LINE__, "this host watches neither clock nor network");
  }
  return std::unique_ptr<MachineWatch>(new MachineWatch(std::make_unique<Impl>()));
}

MachineWatch::MachineWatch(std::unique_ptr<Impl> impl) : impl_(std::move(impl)) {}
MachineWatch::~MachineWatch() = default;

}  // namespace skorra_ntp
}  // namespace core

namespace net {
inline namespace skorra_ntp {

uint32_t GetInterfaceIndex(const std::string& name) {
  return name.find(':') == std::string::npos ? if_nametoindex(name.c_str()) : 0;
}

// This host has no name service: it knows addresses, and itself.
std::vector<ResolveResult> ResolveHosts(const std::vector<HostPort>& hosts, base::TimeDelta) {
  std::vector<ResolveResult> results;
  for (const HostPort& host : hosts) {
    const auto address =
        IPEndPoint::FromLiteral(host.host == "localhost" ? "127.0.0.1" : host.host, host.port);
    results.push_back(
        address ? ResolveResult{.addresses = {*address}}
                : ResolveResult{.error = ResolveError::kNotFound,
                                .detail = "'" + host.host + "' is no address, and names are unknown here"});
  }
  return results;
}

void ResolveHostInBackground(const std::string& host, uint16_t port, base::TimeDelta timeout,
                             std::function<void(ResolveResult)> done) {
  core::ThreadManager::GetTaskQueue(core::BusinessID::kNames, -1, {})
      ->PostTask(base::Location::CreateFromHere(kSourcePath, __LINE__),
                 base::BindOnce([=] { done(ResolveHost(host, port, timeout)); }));
}

}  // namespace skorra_ntp
}  // namespace net
