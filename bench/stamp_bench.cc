// SPDX-License-Identifier: Apache-2.0

// What the kernel's time stamps are worth: the offsets that exchanges with a server on this machine measure
// while busy loops compete for every core, with the stamps of the socket and with times taken in user space,
// in the same exchanges. The true offset is zero: chronyd serves the clock that it is measured with. The
// verdict is that of stamp_verdict.h; the rows with the worst offsets are for people, and differ from run to
// run.
//
//   stamp_bench [--requests N] [--tiny]
#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <future>
#include <list>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <thread>
#include <utility>
#include <vector>

#include "bench/stamp_verdict.h"
#include "platform/base/clock.h"
#include "platform/base/log.h"
#include "platform/base/random.h"
#include "platform/core/thread_manager.h"
#include "platform/net/datagram_socket.h"
#include "testing/child_process.h"
#include "testing/chronyd.h"
#include "transport/ntp_packet.h"

namespace {

constexpr base::Location kHere = base::Location::CreateFromHere("bench/stamp_bench", 1);
constexpr int kLoopsPerCore = 2;
constexpr int64_t kSpacingMs = 5;
// At most this many rounds, until enough exchanges were disturbed.
constexpr int kRounds = 4;
// As many samples as one attempt of the time manager may have.
constexpr size_t kAttemptSamples = 20;
// The exit status where there is nothing to judge.
constexpr int kNoVerdict = 77;

// Between the wall clock and the steady one. Of many readings the middle one, since any may be disturbed.
int64_t WallMinusSteadyUs() {
  std::vector<int64_t> readings(101);
  std::generate(readings.begin(), readings.end(), base::GetSystemTimeOffsetFromSteady);
  std::sort(readings.begin(), readings.end());
  return readings[readings.size() / 2];
}

// Everything on the queue, but for what is read after `Wait`.
class Exchanges {
 public:
  Exchanges(const net::IPEndPoint& server, int count) : server_(server), count_(count) {}

  // Any thread but the queue's. False when the exchanges could not be made.
  bool Run() {
    queue_->PostTask(kHere, base::BindOnce([this] { Connect(); }));
    const auto patience = std::chrono::milliseconds(count_ * kSpacingMs) + std::chrono::seconds(60);
    if (done_.get_future().wait_for(patience) != std::future_status::ready) {
      std::fputs("stamp_bench: the exchanges did not end in time\n", stderr);
      std::_Exit(1);  // the queue still works on what this function's callers own
    }
    return !samples.empty();
  }

  std::vector<skorra::StampSample> samples;
  int kernel_sends = 0;
  int kernel_receives = 0;

 private:
  struct Request {
    uint32_t send_id = 0;
    int64_t user_send_ticks_us = 0;
    std::optional<int64_t> kernel_send_ticks_us;
  };

  void Connect() {
    net::SocketError error = net::SocketError::kNone;
    socket_ = net::DatagramSocket::Connect(
        server_,
        {.on_datagram = [this](const net::ReceivedDatagram& datagram) { OnDatagram(datagram); },
         .on_sent = [this](uint32_t id, int64_t send_ticks_us) { OnSent(id, send_ticks_us); }},
        &error);
    if (socket_ == nullptr) {
      std::fprintf(stderr, "stamp_bench: no socket: %s\n", net::SocketErrorName(error));
      done_.set_value();
      return;
    }
    SendNext();
  }

  void SendNext() {
    if (sent_++ == count_) {
      socket_ = nullptr;
      done_.set_value();
      return;
    }
    const uint64_t nonce = base::RandUint64();
    const auto bytes = skorra::EncodePacket(skorra::MakeRequest(nonce));
    Request request;
    request.user_send_ticks_us = base::GetSteadyTimeTicks();
    if (socket_->Send(bytes, &request.send_id) == net::SocketError::kNone) {
      requests_.emplace(nonce, request);
    }
    // The last one gets a second for its answer.
    queue_->PostDelayedTask(kHere, base::BindOnce([this] { SendNext(); }),
                            base::TimeDelta::FromMilliseconds(sent_ < count_ ? kSpacingMs : 1000));
  }

  void OnSent(uint32_t send_id, int64_t send_ticks_us) {
    for (auto& [nonce, request] : requests_) {
      if (request.send_id == send_id) {
        request.kernel_send_ticks_us = send_ticks_us;
      }
    }
  }

  void OnDatagram(const net::ReceivedDatagram& datagram) {
    const int64_t user_receive_ticks_us = base::GetSteadyTimeTicks();
    const std::optional<skorra::NtpPacket> reply = skorra::DecodePacket(datagram.bytes);
    const auto found = reply ? requests_.find(reply->origin_timestamp) : requests_.end();
    if (found == requests_.end()) {
      return;
    }
    const Request request = found->second;
    requests_.erase(found);
    kernel_sends += request.kernel_send_ticks_us ? 1 : 0;
    kernel_receives += datagram.stamp_source == net::StampSource::kKernel ? 1 : 0;
    samples.push_back({OffsetUs(*reply, request.kernel_send_ticks_us.value_or(request.user_send_ticks_us),
                                datagram.receive_ticks_us),
                       OffsetUs(*reply, request.user_send_ticks_us, user_receive_ticks_us)});
  }

  int64_t OffsetUs(const skorra::NtpPacket& reply, int64_t send_ticks_us, int64_t receive_ticks_us) const {
    const int64_t receive_us = receive_ticks_us + wall_minus_steady_us_;
    const skorra::ServerTimes server = skorra::ReadServerTimes(reply);
    return skorra::ComputeSample({.send_local_us = send_ticks_us + wall_minus_steady_us_,
                                  .server_receive_ntp_us = server.receive_ntp_us,
                                  .server_transmit_ntp_us = server.transmit_ntp_us,
                                  .receive_local_us = receive_us})
        .offset_us;
  }

  const net::IPEndPoint server_;
  const int count_;
  const int64_t wall_minus_steady_us_ = WallMinusSteadyUs();
  const std::shared_ptr<core::TaskQueue> queue_ =
      core::ThreadManager::GetTaskQueue(core::BusinessID::kNtpTime, -1, std::nullopt);
  std::promise<void> done_;
  std::unique_ptr<net::DatagramSocket> socket_;
  std::map<uint64_t, Request> requests_;  // by nonce
  int sent_ = 0;
};

// What an attempt makes of its samples: sorted by offset, without the lowest and the highest quarter,
// averaged.
std::vector<int64_t> Attempts(const std::vector<int64_t>& offsets_us) {
  std::vector<int64_t> attempts;
  for (size_t begin = 0; begin + kAttemptSamples <= offsets_us.size(); begin += kAttemptSamples) {
    std::vector<int64_t> samples(kAttemptSamples);
    std::copy_n(offsets_us.begin() + static_cast<ptrdiff_t>(begin), kAttemptSamples, samples.begin());
    std::sort(samples.begin(), samples.end());
    int64_t sum_us = 0;
    for (size_t i = kAttemptSamples / 4; i < kAttemptSamples - kAttemptSamples / 4; ++i) {
      sum_us += samples[i];
    }
    attempts.push_back(sum_us / static_cast<int64_t>(kAttemptSamples - kAttemptSamples / 4 * 2));
  }
  return attempts;
}

struct Spread {
  int64_t median_us = 0;
  int64_t percentile_99_us = 0;
  int64_t worst_us = 0;
};

// Of the offsets without their signs; none: all zero.
Spread SpreadOf(std::vector<int64_t> offsets_us) {
  if (offsets_us.empty()) {
    return {};
  }
  std::transform(offsets_us.begin(), offsets_us.end(), offsets_us.begin(),
                 [](int64_t offset_us) { return std::abs(offset_us); });
  std::sort(offsets_us.begin(), offsets_us.end());
  const auto at = [&](size_t percent) { return offsets_us[(offsets_us.size() - 1) * percent / 100]; };
  return {at(50), at(99), at(100)};
}

void PrintRows(const char* what, const std::vector<int64_t>& kernel_us, const std::vector<int64_t>& user_us) {
  std::printf("\n%-24s %10s %10s %10s   |offset| in us\n", what, "median", "99 %", "worst");
  for (const auto& [name, spread] :
       {std::pair{"kernel stamps", SpreadOf(kernel_us)}, {"user-space stamps", SpreadOf(user_us)}}) {
    std::printf("%-24s %10lld %10lld %10lld\n", name, (long long)spread.median_us,
                (long long)spread.percentile_99_us, (long long)spread.worst_us);
  }
}

void PrintJudgement(const skorra::StampJudgement& judgement) {
  std::printf("\ndisturbed exchanges: %zu (a stamp of one kind is off by %lld us or more)\n",
              judgement.disturbed, (long long)skorra::kDisturbedUs);
  std::printf("mended by the kernel's stamps: %zu (off by a tenth of the user-space stamps at most)\n",
              judgement.mended);
  if (judgement.verdict == skorra::StampVerdict::kTooFewDisturbed) {
    std::printf("no verdict: it needs %zu disturbed exchanges\n", skorra::kLeastDisturbed);
  } else {
    std::printf("mended / disturbed: %zu %%   target %zu %%\n", judgement.mended * 100 / judgement.disturbed,
                skorra::kTargetPercent);
  }
}

// Exchanges with `server` until enough of them were disturbed. Empty when they could not be made.
std::vector<skorra::StampSample> Sample(const net::IPEndPoint& server, int count, int rounds) {
  std::vector<skorra::StampSample> samples;
  for (int round = 0; round < rounds; ++round) {
    Exchanges exchanges(server, count);
    if (!exchanges.Run()) {
      std::fputs("stamp_bench: no exchange was answered\n", stderr);
      return {};
    }
    std::printf(
        "%zu of %d exchanges with chronyd on loopback, %lld ms apart; with the kernel's send stamp: %d, "
        "with its receive stamp: %d\n",
        exchanges.samples.size(), count, (long long)kSpacingMs, exchanges.kernel_sends,
        exchanges.kernel_receives);
    if (exchanges.kernel_sends == 0 || exchanges.kernel_receives == 0) {
      std::fprintf(stderr, "stamp_bench: the kernel's %s stamps never came: there is nothing to compare\n",
                   exchanges.kernel_sends == 0 ? "send" : "receive");
      return {};
    }
    samples.insert(samples.end(), exchanges.samples.begin(), exchanges.samples.end());
    if (skorra::JudgeStamps(samples).verdict != skorra::StampVerdict::kTooFewDisturbed) {
      break;
    }
  }
  return samples;
}

int Measure(int count, bool must_reach_target) {
  if (const std::string reason = skorra::Chronyd::WhyNotHere(); !reason.empty()) {
    std::printf("no comparison of time stamps: %s\n", reason.c_str());
    return kNoVerdict;
  }
  const skorra::Chronyd server;
  if (!server.IsUp()) {
    std::fputs("stamp_bench: chronyd did not come up\n", stderr);
    return 1;
  }
  const int cores = static_cast<int>(std::max(1u, std::thread::hardware_concurrency()));
  std::list<skorra::ChildProcess> loops;
  for (int i = 0; i < cores * kLoopsPerCore; ++i) {
    loops.emplace_back(std::vector<std::string>{"/proc/self/exe", "--loop"});
  }
  std::printf("busy loops: %d on %d cores\n", cores * kLoopsPerCore, cores);
  const std::vector<skorra::StampSample> samples =
      Sample(server.endpoint(), count, must_reach_target ? kRounds : 1);
  loops.clear();
  if (samples.empty()) {
    return 1;
  }

  std::vector<int64_t> kernel_us;
  std::vector<int64_t> user_us;
  for (const skorra::StampSample& sample : samples) {
    kernel_us.push_back(sample.kernel_offset_us);
    user_us.push_back(sample.user_offset_us);
  }
  PrintRows("single exchanges", kernel_us, user_us);
  PrintRows("attempts of 20 samples", Attempts(kernel_us), Attempts(user_us));
  const skorra::StampJudgement judgement = skorra::JudgeStamps(samples);
  PrintJudgement(judgement);
  std::fflush(stdout);
  if (!must_reach_target || judgement.verdict == skorra::StampVerdict::kGood) {
    return 0;
  }
  if (judgement.verdict == skorra::StampVerdict::kBad) {
    std::fputs(
        "stamp_bench: below the target: stamps of the kernel are missing or badly converted, or the "
        "kernel itself was late\n",
        stderr);
    return 1;
  }
  return kNoVerdict;
}

}  // namespace

int main(int argc, char** argv) {
  int count = 6000;
  bool must_reach_target = true;
  for (int i = 1; i < argc; ++i) {
    const std::string_view option = argv[i];
    if (option == "--loop") {
      while (true) {
        base::GetSteadyTimeTicks();
      }
    }
    if (option == "--tiny") {
      // Too few for a busy core to be hit for certain.
      count = 40;
      must_reach_target = false;
    } else if (option == "--requests" && i + 1 < argc && std::atoi(argv[i + 1]) > 0) {
      count = std::atoi(argv[++i]);
    } else {
      std::fputs("usage: stamp_bench [--requests N] [--tiny]\n", stderr);
      return 64;
    }
  }
  base::SetLogThreshold(base::kLogNothing);
  return Measure(count, must_reach_target);
}
