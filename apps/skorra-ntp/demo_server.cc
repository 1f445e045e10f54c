// SPDX-License-Identifier: Apache-2.0
#include "apps/skorra-ntp/demo_server.h"

#include <algorithm>
#include <array>
#include <asio.hpp>
#include <atomic>
#include <chrono>
#include <span>
#include <system_error>
#include <thread>

#include "netmodel/random.h"
#include "platform/base/time.h"

namespace skorra {
namespace {

using asio::ip::udp;

// The packet header of RFC 5905, section 7.3: all that is needed of it here.
constexpr size_t kPacketSize = 48;
constexpr size_t kPollAt = 2;
constexpr size_t kPrecisionAt = 3;
constexpr size_t kRootDelayAt = 4;
constexpr size_t kRootDispersionAt = 8;
constexpr size_t kReferenceIdAt = 12;
constexpr size_t kReferenceTimeAt = 16;
constexpr size_t kOriginTimeAt = 24;
constexpr size_t kReceiveTimeAt = 32;
constexpr size_t kTransmitTimeAt = 40;
constexpr uint8_t kClientMode = 3;
constexpr uint8_t kServerMode = 4;

constexpr uint64_t kMillion = 1'000'000;
constexpr int64_t kSecondsFrom1900To1970 = 2208988800;
// The clock pretends to have been set this long ago.
constexpr int64_t kReferenceAgeUs = 8'000'000;
// More requests than this at a time are a flood; each holds a timer and a packet.
constexpr int kMaxPending = 1024;
constexpr std::chrono::milliseconds kReceivePause{100};

using Packet = std::array<uint8_t, kPacketSize>;

int64_t WallSince1970Us() {
  return base::Time::Now().ToDeltaSinceWindowsEpoch().InMicroseconds() - base::kWindowsToUnixEpochUs;
}

void WriteUint32(std::span<uint8_t> to, uint32_t value) {
  for (size_t i = 0; i < 4; ++i) {
    to[i] = static_cast<uint8_t>(value >> (24 - 8 * i));
  }
}

// Seconds since 1900 modulo 2^32 (the era is not transmitted) and a 32-bit fraction.
void WriteTimestamp(std::span<uint8_t> to, int64_t wall_us) {
  int64_t seconds = wall_us / base::kUsPerSecond;
  int64_t rest_us = wall_us % base::kUsPerSecond;
  if (rest_us < 0) {
    rest_us += base::kUsPerSecond;
    --seconds;
  }
  WriteUint32(to, static_cast<uint32_t>(seconds + kSecondsFrom1900To1970));
  WriteUint32(to.subspan(4),
              static_cast<uint32_t>((static_cast<uint64_t>(rest_us) << 32) / base::kUsPerSecond));
}

bool IsAnswerable(std::span<const uint8_t> request) {
  if (request.size() < kPacketSize) {
    return false;
  }
  const int version = request[0] >> 3 & 7;
  return (request[0] & 7) == kClientMode && (version == 3 || version == 4);
}

// The answer to `request`, but for its transmit time stamp.
Packet BeginReply(std::span<const uint8_t> request, int64_t receive_wall_us) {
  Packet reply{};
  const std::span<uint8_t> bytes(reply);
  reply[0] = static_cast<uint8_t>((request[0] & 0x38) | kServerMode);  // leap indicator 0, the same version
  reply[1] = 1;                                                        // stratum: a primary server
  reply[kPollAt] = request[kPollAt];
  reply[kPrecisionAt] = static_cast<uint8_t>(-20);         // 2^-20 s, about a microsecond
  WriteUint32(bytes.subspan(kRootDelayAt), 0x10);          // 16 / 65536 s
  WriteUint32(bytes.subspan(kRootDispersionAt), 0x20);     // 32 / 65536 s
  std::copy_n("LOCL", 4, reply.begin() + kReferenceIdAt);  // an undisciplined local clock
  WriteTimestamp(bytes.subspan(kReferenceTimeAt), receive_wall_us - kReferenceAgeUs);
  std::copy_n(request.begin() + kTransmitTimeAt, 8, reply.begin() + kOriginTimeAt);
  WriteTimestamp(bytes.subspan(kReceiveTimeAt), receive_wall_us);
  return reply;
}

udp::endpoint ToAsio(const net::IPEndPoint& endpoint) {
  if (endpoint.family() == net::IPEndPoint::Family::kIPv6) {
    return {asio::ip::address_v6(endpoint.bytes(), endpoint.scope_id()), endpoint.port()};
  }
  asio::ip::address_v4::bytes_type address{};
  std::copy_n(endpoint.bytes().begin(), address.size(), address.begin());
  return {asio::ip::address_v4(address), endpoint.port()};
}

net::IPEndPoint FromAsio(const udp::endpoint& endpoint) {
  if (endpoint.address().is_v6()) {
    const auto address = endpoint.address().to_v6();
    return net::IPEndPoint::FromIPv6(address.to_bytes(), endpoint.port(),
                                     static_cast<uint32_t>(address.scope_id()));
  }
  return net::IPEndPoint::FromIPv4(endpoint.address().to_v4().to_bytes(), endpoint.port());
}

}  // namespace

class DemoServer::Impl {
 public:
  explicit Impl(const DemoServerOptions& options) : options_(options), random_(options.seed) {}

  std::string Open() {
    asio::error_code error;
    const udp::endpoint endpoint = ToAsio(options_.listen);
    socket_.open(endpoint.protocol(), error);
    if (!error) {
      socket_.bind(endpoint, error);
    }
    if (!error) {
      local_ = FromAsio(socket_.local_endpoint(error));
    }
    return error ? error.message() : std::string();
  }

  void Start() {
    Receive();
    thread_ = std::thread([this] { context_.run(); });
  }

  void Stop() {
    context_.stop();
    if (thread_.joinable()) {
      thread_.join();
    }
  }

  net::IPEndPoint local() const { return local_; }

  DemoServerCounts counts() const {
    return {.received = received_.load(std::memory_order_relaxed),
            .answered = answered_.load(std::memory_order_relaxed),
            .lost = lost_.load(std::memory_order_relaxed),
            .ignored = ignored_.load(std::memory_order_relaxed),
            .failed = failed_.load(std::memory_order_relaxed)};
  }

 private:
  using Counter = std::atomic<uint64_t>;

  // One request on its way: the timer stands for the network, first to the server and then back.
  struct Exchange {
    explicit Exchange(asio::io_context& context) : timer(context) {}

    asio::steady_timer timer;
    udp::endpoint client;
    Packet request{};
    Packet reply{};
  };

  static void Count(Counter& counter) { counter.fetch_add(1, std::memory_order_relaxed); }

  int64_t ServerWallUs() const { return WallSince1970Us() + options_.clock_error_us; }

  std::chrono::microseconds DrawOneWayDelay() {
    const auto extra_us = random_.Below(static_cast<uint64_t>(options_.jitter_us) + 1);
    return std::chrono::microseconds(options_.delay_us / 2 + static_cast<int64_t>(extra_us));
  }

  void Receive() {
    socket_.async_receive_from(asio::buffer(buffer_), sender_, [this](asio::error_code error, size_t size) {
      if (error == asio::error::operation_aborted) {
        return;
      }
      if (error) {
        Count(failed_);
        return ReceiveAfterPause();
      }
      HandleDatagram(std::span<const uint8_t>(buffer_.data(), size));
      Receive();
    });
  }

  // An error that stays must not keep the thread busy.
  void ReceiveAfterPause() {
    pause_.expires_after(kReceivePause);
    pause_.async_wait([this](asio::error_code error) {
      if (!error) {
        Receive();
      }
    });
  }

  void HandleDatagram(std::span<const uint8_t> datagram) {
    Count(received_);
    if (!IsAnswerable(datagram)) {
      return Count(ignored_);
    }
    // Always drawn, so that a seed gives the same jitter whatever the loss.
    const bool is_lost = static_cast<double>(random_.Below(kMillion)) < options_.loss * double{kMillion};
    const auto way_there = DrawOneWayDelay();
    const auto way_back = DrawOneWayDelay();
    if (is_lost) {
      return Count(lost_);
    }
    if (pending_ == kMaxPending) {
      return Count(failed_);
    }
    ++pending_;
    const auto exchange = std::make_shared<Exchange>(context_);
    exchange->client = sender_;
    std::copy_n(datagram.begin(), kPacketSize, exchange->request.begin());
    After(way_there, exchange, [this, exchange, way_back] {
      exchange->reply = BeginReply(exchange->request, ServerWallUs());
      WriteTimestamp(std::span(exchange->reply).subspan(kTransmitTimeAt), ServerWallUs());
      After(way_back, exchange, [this, exchange] { Answer(*exchange); });
    });
  }

  template <class Step>
  void After(std::chrono::microseconds delay, const std::shared_ptr<Exchange>& exchange, Step step) {
    if (delay.count() == 0) {
      return step();
    }
    exchange->timer.expires_after(delay);
    exchange->timer.async_wait([step](asio::error_code error) {
      if (!error) {
        step();
      }
    });
  }

  void Answer(const Exchange& exchange) {
    --pending_;
    asio::error_code error;
    socket_.send_to(asio::buffer(exchange.reply), exchange.client, 0, error);
    Count(error ? failed_ : answered_);
  }

  const DemoServerOptions options_;
  net::IPEndPoint local_;
  Counter received_{0}, answered_{0}, lost_{0}, ignored_{0}, failed_{0};

  // Only on the server's thread once it runs.
  asio::io_context context_{1};
  udp::socket socket_{context_};
  asio::steady_timer pause_{context_};
  udp::endpoint sender_;
  std::array<uint8_t, 512> buffer_{};
  netmodel::Random random_;
  int pending_ = 0;

  std::thread thread_;
};

DemoServer::DemoServer(std::unique_ptr<Impl> impl) : impl_(std::move(impl)) {}

DemoServer::~DemoServer() { Stop(); }

void DemoServer::Stop() { impl_->Stop(); }

std::unique_ptr<DemoServer> DemoServer::Open(const DemoServerOptions& options, std::string* error) {
  try {
    auto impl = std::make_unique<Impl>(options);
    *error = impl->Open();
    if (!error->empty()) {
      return nullptr;
    }
    impl->Start();
    return std::unique_ptr<DemoServer>(new DemoServer(std::move(impl)));
  } catch (const std::system_error& failure) {  // no thread or no descriptor is left
    *error = failure.what();
    return nullptr;
  }
}

net::IPEndPoint DemoServer::local() const { return impl_->local(); }

DemoServerCounts DemoServer::counts() const { return impl_->counts(); }

}  // namespace skorra
