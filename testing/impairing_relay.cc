// SPDX-License-Identifier: Apache-2.0
#include "testing/impairing_relay.h"

#include <poll.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <utility>

#include "platform/base/clock.h"
#include "platform/base/time.h"
#include "testing/environment_number.h"

namespace skorra {
namespace {

// More clients than a test ever has; a stray flood must not use up the process's sockets.
constexpr size_t kMaxClients = 64;

bool IsReadable(int fd) {
  pollfd readable{fd, POLLIN, 0};
  return poll(&readable, 1, 0) == 1;
}

}  // namespace

uint64_t RelaySeed() {
  const uint64_t seed = EnvironmentNumber("SKORRA_RELAY_SEED").value_or(1);
  std::printf("relay with seed %llu (SKORRA_RELAY_SEED)\n", static_cast<unsigned long long>(seed));
  std::fflush(stdout);
  return seed;
}

ImpairingRelay::ImpairingRelay(const net::IPEndPoint& server, Options options)
    : server_(server),
      front_(server.family()),
      end_fd_(eventfd(0, EFD_CLOEXEC)),
      to_server_{netmodel::Link(std::move(options.to_server), base::GetSteadyTimeTicks()),
                 netmodel::Random(options.seed)},
      to_client_{netmodel::Link(std::move(options.to_client), base::GetSteadyTimeTicks()),
                 netmodel::Random(~options.seed)},
      thread_([this] { Run(); }) {
  // Its start allocates. A child that is forked meanwhile would find the allocator of AddressSanitizer
  // locked.
  is_waiting_.wait(false);
}

ImpairingRelay::~ImpairingRelay() {
  eventfd_write(end_fd_, 1);
  thread_.join();
  close(end_fd_);
}

ImpairingRelay::Counts ImpairingRelay::to_server() const {
  const base::AutoLock guard(to_server_.lock);
  return to_server_.counts;
}

ImpairingRelay::Counts ImpairingRelay::to_client() const {
  const base::AutoLock guard(to_client_.lock);
  return to_client_.counts;
}

void ImpairingRelay::Run() {
  while (!IsReadable(end_fd_)) {
    TakeFromClients();
    for (const auto& [address, client] : clients_) {
      TakeFromServer(client);
    }
    PassOnWhatIsDue();
    WaitForWork();
  }
}

void ImpairingRelay::TakeFromClients() {
  net::IPEndPoint source;
  while (const auto bytes = front_.Receive(0, &source)) {
    auto found = clients_.find(source);
    if (found == clients_.end()) {
      if (clients_.size() == kMaxClients) {
        continue;
      }
      found = clients_.try_emplace(source, source).first;
    }
    Accept(to_server_, found->second, *bytes);
  }
}

void ImpairingRelay::TakeFromServer(const Client& client) {
  net::IPEndPoint source;
  while (const auto bytes = client.socket.Receive(0, &source)) {
    if (source == server_) {
      Accept(to_client_, client, *bytes);
    }
  }
}

void ImpairingRelay::Accept(Direction& direction, const Client& client, const std::vector<uint8_t>& bytes) {
  netmodel::LinkFate fate{};
  auto arrivals = direction.link.Transmit(bytes, base::GetSteadyTimeTicks(), direction.random, &fate);
  const base::AutoLock guard(direction.lock);
  const uint64_t number = ++direction.counts.received;
  direction.counts.lost += arrivals.empty() ? 1 : 0;
  direction.counts.duplicated += arrivals.size() > 1 ? 1 : 0;
  for (netmodel::Arrival& arrival : arrivals) {
    under_way_.emplace(arrival.at_ticks_us, Parcel{&direction, &client, number, std::move(arrival.bytes)});
  }
}

void ImpairingRelay::PassOnWhatIsDue() {
  while (!under_way_.empty()) {
    const auto first = under_way_.begin();
    const int64_t late_us = base::GetSteadyTimeTicks() - first->first;
    if (late_us < 0) {
      return;
    }
    const Parcel& parcel = first->second;
    Direction& direction = *parcel.direction;
    {
      // Counted before it can have an effect, so that who sees the effect sees the count.
      const base::AutoLock guard(direction.lock);
      ++direction.counts.carried;
      direction.counts.overtaken += parcel.number < direction.newest ? 1 : 0;
      direction.counts.latest_us = std::max(direction.counts.latest_us, late_us);
    }
    direction.newest = std::max(direction.newest, parcel.number);
    if (&direction == &to_server_) {
      parcel.client->socket.SendTo(server_, parcel.bytes);
    } else {
      front_.SendTo(parcel.client->address, parcel.bytes);
    }
    under_way_.erase(first);
  }
}

void ImpairingRelay::WaitForWork() const {
  std::vector<pollfd> sources{{end_fd_, POLLIN, 0}, {front_.fd(), POLLIN, 0}};
  for (const auto& [address, client] : clients_) {
    sources.push_back({client.socket.fd(), POLLIN, 0});
  }
  timespec until_due{};
  if (!under_way_.empty()) {
    const int64_t wait_us = std::max<int64_t>(0, under_way_.begin()->first - base::GetSteadyTimeTicks());
    until_due.tv_sec = static_cast<time_t>(wait_us / base::kUsPerSecond);
    until_due.tv_nsec = static_cast<long>(wait_us % base::kUsPerSecond * 1000);
  }
  is_waiting_ = true;
  is_waiting_.notify_one();
  ppoll(sources.data(), sources.size(), under_way_.empty() ? nullptr : &until_due, nullptr);
}

}  // namespace skorra
