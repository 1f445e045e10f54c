// SPDX-License-Identifier: Apache-2.0
#include "bench/many_domains.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "netmodel/server.h"
#include "ntp/ntp_time_manager.h"
#include "platform/base/time.h"
#include "testing/fresh_ledger.h"
#include "testing/ntp_queue.h"
#include "testing/ntp_time_manager_peer.h"
#include "testing/wait_until.h"

namespace skorra {
namespace {

// The program's own descriptors, and the queue's.
constexpr rlim_t kOtherDescriptors = 64;
constexpr size_t kBatch = 64;

int64_t ThreadCpuNs() {
  timespec used{};
  clock_gettime(CLOCK_THREAD_CPUTIME_ID, &used);
  return int64_t{used.tv_sec} * 1'000'000'000 + used.tv_nsec;
}

// Domain n is asked at 127.1.0.0 + n.
constexpr uint32_t kFirstAddress = 0x7f010001;

// Answers at all loopback addresses through one socket, in a thread of its own, and notes when requests came.
// It answers what has come since the last millisecond: if each request woke it up, that would cost the sender
// more than the request does.
class Server {
 public:
  explicit Server(int domains) : arrivals_(static_cast<size_t>(domains)) {
    for (int i = 0; i < domains; ++i) {
      // Offsets 200 ms apart are never graded as good.
      servers_.emplace_back(netmodel::ServerOptions{.script = [](netmodel::Exchange& exchange) {
        exchange.clock_error_us = exchange.index % 2 == 0 ? 100000 : -100000;
      }});
    }
    Open();
    thread_ = std::thread([this] { Run(); });
  }
  ~Server() { Stop(); }
  Server(const Server&) = delete;
  Server& operator=(const Server&) = delete;

  std::string Name(int domain) const {
    const uint32_t address = kFirstAddress + static_cast<uint32_t>(domain);
    return std::to_string(address >> 24) + '.' + std::to_string(address >> 16 & 255) + '.' +
           std::to_string(address >> 8 & 255) + '.' + std::to_string(address & 255) + ':' +
           std::to_string(port_);
  }

  // Ends the thread when it has read everything. After that, `arrivals` may be read.
  void Stop() {
    if (thread_.joinable()) {
      is_ending_ = true;
      thread_.join();
      close(fd_);
    }
  }

  // By domain, microseconds of the wall clock.
  const std::vector<std::vector<int64_t>>& arrivals() const { return arrivals_; }

 private:
  void Open() {
    fd_ = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    const int on = 1;
    const int bytes = 64 << 20;
    setsockopt(fd_, IPPROTO_IP, IP_PKTINFO, &on, sizeof on);
    setsockopt(fd_, SOL_SOCKET, SO_TIMESTAMPNS, &on, sizeof on);
    setsockopt(fd_, SOL_SOCKET, SO_RCVBUF, &bytes, sizeof bytes);
    setsockopt(fd_, SOL_SOCKET, SO_RCVBUFFORCE, &bytes, sizeof bytes);  // as root
    sockaddr_in any{};
    any.sin_family = AF_INET;
    socklen_t size = sizeof any;
    if (bind(fd_, reinterpret_cast<const sockaddr*>(&any), size) != 0 ||
        getsockname(fd_, reinterpret_cast<sockaddr*>(&any), &size) != 0) {
      std::perror("scale_bench: cannot open the server's socket");
    }
    port_ = ntohs(any.sin_port);
  }

  void Run() {
    std::array<Slot, kBatch> slots;
    std::array<mmsghdr, kBatch> messages{};
    for (;;) {
      for (size_t i = 0; i < kBatch; ++i) {
        slots[i].Prepare(messages[i].msg_hdr);
      }
      const int count = recvmmsg(fd_, messages.data(), kBatch, MSG_DONTWAIT, nullptr);
      if (count <= 0 && is_ending_) {
        return;
      }
      if (count <= 0) {
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
        continue;
      }
      size_t answered = 0;
      for (size_t i = 0; i < static_cast<size_t>(count); ++i) {
        if (Answer(slots[i], messages[i])) {
          messages[answered++] = messages[i];
        }
      }
      sendmmsg(fd_, messages.data(), static_cast<unsigned>(answered), 0);
    }
  }

  struct Slot {
    std::array<uint8_t, 512> bytes;
    alignas(cmsghdr) std::array<unsigned char, 128> control;
    sockaddr_in client;
    iovec part;

    void Prepare(msghdr& message) {
      part = {bytes.data(), bytes.size()};
      message = {};
      message.msg_name = &client;
      message.msg_namelen = sizeof client;
      message.msg_iov = &part;
      message.msg_iovlen = 1;
      message.msg_control = control.data();
      message.msg_controllen = control.size();
    }
  };

  // Turns a request into its reply, from the address that was asked.
  bool Answer(Slot& slot, mmsghdr& message) {
    in_pktinfo asked{};
    timespec stamp{};
    for (cmsghdr* part = CMSG_FIRSTHDR(&message.msg_hdr); part != nullptr;
         part = CMSG_NXTHDR(&message.msg_hdr, part)) {
      if (part->cmsg_level == IPPROTO_IP && part->cmsg_type == IP_PKTINFO) {
        std::memcpy(&asked, CMSG_DATA(part), sizeof asked);
      } else if (part->cmsg_level == SOL_SOCKET && part->cmsg_type == SCM_TIMESTAMPNS) {
        std::memcpy(&stamp, CMSG_DATA(part), sizeof stamp);
      }
    }
    const uint32_t domain = ntohl(asked.ipi_addr.s_addr) - kFirstAddress;
    if (domain >= arrivals_.size()) {
      return false;
    }
    arrivals_[domain].push_back(int64_t{stamp.tv_sec} * base::kUsPerSecond + stamp.tv_nsec / 1000);
    const auto reply =
        servers_[domain].Answer(std::span(slot.bytes).first(message.msg_len), net::IPEndPoint(),
                                base::Time::Now().ToDeltaSinceWindowsEpoch().InMicroseconds(), 0, random_);
    if (!reply) {
      return false;
    }
    std::copy(reply->bytes.begin(), reply->bytes.end(), slot.bytes.begin());
    slot.part.iov_len = reply->bytes.size();
    auto* const header = reinterpret_cast<cmsghdr*>(slot.control.data());
    header->cmsg_level = IPPROTO_IP;
    header->cmsg_type = IP_PKTINFO;
    header->cmsg_len = CMSG_LEN(sizeof asked);
    const in_pktinfo source{.ipi_ifindex = 0, .ipi_spec_dst = asked.ipi_addr, .ipi_addr = {}};
    std::memcpy(CMSG_DATA(header), &source, sizeof source);
    message.msg_hdr.msg_controllen = CMSG_SPACE(sizeof source);
    message.msg_hdr.msg_flags = 0;
    return true;
  }

  int fd_ = -1;
  uint16_t port_ = 0;
  std::vector<netmodel::Server> servers_;
  netmodel::Random random_{1};
  std::vector<std::vector<int64_t>> arrivals_;
  std::atomic<bool> is_ending_{false};
  std::thread thread_;
};

// Notes what the attempt has cost at its outcome, on the manager's queue.
class Waiter : public NtpTimeManager::Observer {
 public:
  void OnNtpResult(NtpResult result, const std::string&, const net::IPEndPoint&) override {
    is_expected = result == NtpResult::kMaybeInaccurate;
    end_ns = ThreadCpuNs();
    is_told = true;
  }

  bool is_expected = false;
  int64_t end_ns = 0;
  std::atomic<bool> is_told{false};
};

void NoteDistances(const std::vector<std::vector<int64_t>>& arrivals, ManyDomainsRun* run) {
  std::vector<int64_t> distances_us;
  for (const std::vector<int64_t>& domain : arrivals) {
    run->requests += domain.size();
    for (size_t i = 1; i < domain.size(); ++i) {
      distances_us.push_back(domain[i] - domain[i - 1]);
    }
  }
  if (distances_us.empty()) {
    return;
  }
  std::sort(distances_us.begin(), distances_us.end());
  run->low_us = distances_us[distances_us.size() * 5 / 100];
  run->median_us = distances_us[distances_us.size() / 2];
  run->high_us = distances_us[distances_us.size() * 95 / 100];
}

}  // namespace

bool HasDescriptorsFor(int domains) {
  const rlim_t needed = static_cast<rlim_t>(domains) + kOtherDescriptors;
  rlimit limit{};
  getrlimit(RLIMIT_NOFILE, &limit);
  if (limit.rlim_cur >= needed) {
    return true;
  }
  if (limit.rlim_max >= needed) {
    limit.rlim_cur = needed;
    return setrlimit(RLIMIT_NOFILE, &limit) == 0;
  }
  std::fprintf(
      stderr,
      "scale_bench: %d domains need %llu descriptors, and this process may have %llu: raise the limit "
      "with 'ulimit -n', or ask root to\n",
      domains, static_cast<unsigned long long>(needed), static_cast<unsigned long long>(limit.rlim_max));
  return false;
}

ManyDomainsRun AskManyDomains(int domains) {
  const FreshLedger fresh_ledger;
  Server server(domains);
  NtpTimeManager& manager = MakeManager().manager();
  std::vector<std::string> names;
  for (int i = 0; i < domains; ++i) {
    names.push_back(server.Name(i));
  }
  const auto waiter = std::make_shared<Waiter>();
  manager.AddObserver(waiter);
  manager.UpdateNtpTimeDomain(names);
  ManyDomainsRun run;
  const int64_t begin_ns = RunOnNtpQueue([] { return ThreadCpuNs(); });
  manager.Start();
  run.has_ended = WaitUntil([&] { return waiter->is_told.load(); }) && waiter->is_expected;
  run.queue_ns = waiter->end_ns - begin_ns;
  DrainNtpQueue(200);  // where the queue is late, requests are still to leave
  manager.Stop();
  DrainNtpQueue();
  server.Stop();
  NoteDistances(server.arrivals(), &run);
  return run;
}

}  // namespace skorra
