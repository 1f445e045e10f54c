// SPDX-License-Identifier: Apache-2.0

// The packet handler as a state machine. The input is a program of sends, replies genuine and forged, errors
// and pauses; it runs in a simulated world, and each step is compared with the model in handler_model.h.
//
// Input: steps. The high four bits of a step's first byte say what is done (`Step`), the low four how; some
// steps take further bytes. With SKORRA_FUZZ_TRACE in the environment each step is printed.
//
// The ledger and the counters belong to the process. Each run uses addresses that no earlier run has used, at
// a time when every hold of earlier runs is over, and compares only what the counters gain. So an input does
// the same wherever it stands in a row of runs.
#include <algorithm>
#include <array>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <optional>
#include <span>
#include <vector>

#include "fuzz/check.h"
#include "fuzz/handler_model.h"
#include "fuzz/packet_reference.h"
#include "platform/base/log.h"
#include "platform/base/time.h"
#include "platform/config/config_center.h"
#include "platform/metrics/key_metrics.h"
#include "sim/world.h"
#include "testing/config_scope.h"
#include "transport/ntp_time_packet_handler.h"

namespace skorra::fuzz {
namespace {

using net::IPEndPoint;
using net::SocketError;

constexpr int kMaxCalls = 100;  // of SendPacket in one run
constexpr int64_t kSecondUs = base::kUsPerSecond;
constexpr int64_t kMinuteUs = 60 * kSecondUs;
constexpr int64_t kHourUs = 60 * kMinuteUs;
constexpr int64_t kDayUs = 24 * kHourUs;
constexpr int64_t kYearUs = 365 * kDayUs;

// The pauses between steps: short of, at and beyond every limit.
constexpr int64_t kPauses[16] = {1000,
                                 20000,
                                 400000,
                                 kSecondUs - 1,
                                 kSecondUs,
                                 1500000,
                                 3 * kSecondUs,
                                 3 * kSecondUs + 1,
                                 10 * kSecondUs,
                                 10 * kSecondUs + 1,
                                 2 * kMinuteUs - 1,
                                 2 * kMinuteUs,
                                 151 * kSecondUs,
                                 20 * kMinuteUs,
                                 2 * kHourUs,
                                 4 * kHourUs};
constexpr int64_t kServerErrors[4] = {0, 20000, -kDayUs, 70 * kYearUs};
// Added to the wall clock's offset from the steady clock.
constexpr int64_t kClockErrors[8] = {0, kSecondUs, -kSecondUs, -kDayUs, 30 * kYearUs, -60 * kYearUs, 0, 0};
constexpr const char* kCodes[16] = {"RATE", "RATE", "RATE",     "RATE",  "DENY", "RSTR", "INIT", "STEP",
                                    "XFUN", "rate", "\0\0\0\0", "GPS\0", "RATE", "DENY", "RSTR", "A CD"};

uint64_t MakeTimestamp(int64_t us) {
  return static_cast<uint64_t>(((us - kNtpEpochUs) * kTwoTo32 + kUsPerSecond / 2) / kUsPerSecond);
}

void Put(std::vector<uint8_t>& bytes, size_t position, uint64_t number, size_t size) {
  for (size_t i = 0; i < size; ++i) {
    bytes[position + i] = static_cast<uint8_t>(number >> (8 * (size - 1 - i)));
  }
}

// One well-formed extension field.
void AppendField(std::vector<uint8_t>& bytes, size_t size) {
  const size_t begin = bytes.size();
  bytes.resize(begin + size);
  Put(bytes, begin, 0x0104, 2);
  Put(bytes, begin + 2, size, 2);
}

// Shared by all runs of the process.
struct Process {
  Process() {
    base::SetLogThreshold(base::kLogNothing);
    is_traced = std::getenv("SKORRA_FUZZ_TRACE") != nullptr;
  }

  bool is_traced = false;
  ExpectedCounters counters;
  uint32_t runs = 0;
  int64_t steady_ticks_us = kHourUs;  // where the next run begins
};

// Two ports of an IPv4 address and an IPv6 address, all new: the 24 bits come round long after the ledger has
// forgotten them.
std::array<IPEndPoint, kServerCount> MakeServers(uint32_t run) {
  const auto high = static_cast<uint8_t>(run >> 16);
  const auto middle = static_cast<uint8_t>(run >> 8);
  const auto low = static_cast<uint8_t>(run);
  return {IPEndPoint::FromIPv4({10, high, middle, low}, kNtpPort),
          IPEndPoint::FromIPv4({10, high, middle, low}, 4123),
          IPEndPoint::FromIPv6({0x20, 1, 0xd, 0xb8, 0, 0, 0, 0, 0, 0, 0, 0, 0, high, middle, low}, kNtpPort)};
}

sim::World::Options WorldOptions(int64_t steady_ticks_us) {
  sim::World::Options options;
  options.wall_us = base::kWindowsToUnixEpochUs + int64_t{20754} * kDayUs;
  options.steady_ticks_us = steady_ticks_us;
  return options;
}

class Run : public NtpTimePacketHandler::Client {
 public:
  Run(Process* process, std::span<const uint8_t> program)
      : process_(process),
        program_(program),
        world_(WorldOptions(process->steady_ticks_us)),
        servers_(MakeServers(process->runs++)),
        model_(servers_, sim::World::Options().seed, &process->counters) {
    world_.SetNetwork([this](const sim::SentDatagram& sent) { sent_ = sent; });
    NewHandler();
  }
  ~Run() override {
    handler_.reset();
    // Four hours end every hold.
    process_->steady_ticks_us = world_.steady_ticks_us() + 5 * kHourUs;
  }
  Run(const Run&) = delete;
  Run& operator=(const Run&) = delete;

  void Play();

  void OnFirstPacketReceived(int64_t offset_us) override;
  void OnExchange(const NtpExchange& exchange) override;
  void OnPacketReceived(NtpResultData data, const IPEndPoint& server) override;

 private:
  enum class Step : uint8_t {
    kPrepare,
    kClean,
    kSend,
    kGenuineReply,
    kMutatedReply,
    kDuplicate,
    kOtherSource,
    kOtherSocket,
    kOtherSize,
    kKiss,
    kPause,
    kSendStamp,
    kReceiveError,
    kSendError,
    kSettings,
    kClient,
  };

  void Do(Step step, uint8_t how);
  void NewHandler();
  void Send(size_t server);
  void SendMany(uint8_t how);
  void CheckSent(size_t server, uint64_t nonce, SocketError error);
  void SetSendError(uint8_t how);
  void ChangeSettings(uint8_t how);
  void ChangeClient(uint8_t how);
  void StampSend(uint8_t how);
  // One of the requests that the next byte names; null when there is none yet.
  HandlerModel::Request* NextRequest();
  std::vector<uint8_t> MakeReply(const HandlerModel::Request& request, uint8_t how) const;
  void Mutate(std::vector<uint8_t>& bytes, int count);
  void Resize(std::vector<uint8_t>& bytes, uint8_t how);
  void Reply(Step step, uint8_t how);
  void Deliver(const IPEndPoint& source, const IPEndPoint& client, const std::vector<uint8_t>& bytes);
  void ReadResumed();
  template <class Function>
  void AsTask(const Function& function) {
    world_.RunAsTask(core::BusinessID::kNtpTime, function);
  }

  Process* const process_;
  Input program_;
  sim::World world_;
  const std::array<IPEndPoint, kServerCount> servers_;
  HandlerModel model_;
  std::unique_ptr<NtpTimePacketHandler> handler_;
  int calls_ = 0;
  Limits limits_;
  ConfigScope config_;
  std::array<SocketError, kServerCount> connect_errors_{};
  std::array<SocketError, kServerCount> send_errors_{};
  std::optional<sim::SentDatagram> sent_;
  // The last datagram delivered, for duplicates.
  struct {
    IPEndPoint source;
    IPEndPoint client;
    std::vector<uint8_t> bytes;
  } last_;
  int64_t waiting_us_ = 0;  // how long the next datagram waits before it is read
  bool is_first_told_ = false;
  bool is_exchange_told_ = false;
  // Only when the program asks for it: the ledger hands out the counts of all addresses, those of earlier
  // runs too.
  bool is_ledger_checked_ = false;
  std::optional<size_t> callback_server_;  // asked from inside the client's callback
};

void Run::NewHandler() {
  handler_ = std::make_unique<NtpTimePacketHandler>(this, world_.wall_us() - world_.steady_ticks_us());
  model_.SetClockOffset(world_.wall_us() - world_.steady_ticks_us());
}

void Run::Play() {
  while (!program_.empty() && calls_ < kMaxCalls) {
    const uint8_t byte = program_.Byte();
    if (process_->is_traced) {
      static constexpr const char* kNames[16] = {
          "prepare",       "clean",        "send",       "reply",     "mutated reply", "duplicate",
          "other source",  "other socket", "other size", "kiss code", "pause",         "send stamp",
          "receive error", "send error",   "settings",   "client"};
      std::fprintf(stderr, "%12lld us: %s %d\n",
                   static_cast<long long>(world_.steady_ticks_us() - world_.begin_ticks_us()),
                   kNames[byte >> 4], byte & 15);
    }
    Do(static_cast<Step>(byte >> 4), byte & 15);
    process_->counters.CheckMoved();
  }
  process_->counters.CheckAll();
  if (is_ledger_checked_) {
    model_.CheckLedger();
  }
}

void Run::Do(Step step, uint8_t how) {
  switch (step) {
    case Step::kPrepare:
      AsTask([&] { handler_->PrepareForSendPackets(); });
      model_.Prepare(limits_);
      SKORRA_FUZZ_CHECK(world_.open_socket_count() == 0);
      return;
    case Step::kClean:
      is_ledger_checked_ = is_ledger_checked_ || how == 8;
      AsTask([&] { handler_->Clean(); });
      model_.Clean();
      SKORRA_FUZZ_CHECK(world_.open_socket_count() == 0);
      return;
    case Step::kSend:
      SendMany(how);
      return;
    case Step::kPause:
      world_.RunFor(base::TimeDelta::FromMicroseconds(kPauses[how]));
      return;
    case Step::kSendStamp:
      StampSend(how);
      return;
    case Step::kReceiveError:
      if (const HandlerModel::Request* const request = NextRequest(); request != nullptr) {
        const auto error = static_cast<SocketError>(1 + how % static_cast<int>(SocketError::kOther));
        if (const auto server = model_.FindSocket(request->client)) {
          model_.OnReceiveError(*server, error, world_.steady_ticks_us());
        }
        world_.ReportError(request->client, error);
      }
      return;
    case Step::kSendError:
      SetSendError(how);
      return;
    case Step::kSettings:
      ChangeSettings(how);
      return;
    case Step::kClient:
      ChangeClient(how);
      return;
    case Step::kDuplicate:
      Deliver(last_.source, last_.client, last_.bytes);
      return;
    default:
      Reply(step, how);
  }
}

// Once, five times at once, 20 times at once, or 20 times 10 ms apart as the time manager does.
void Run::SendMany(uint8_t how) {
  const int count = how < 4 ? 1 : how < 8 ? 5 : 20;
  const int64_t gap_us = how < 12 ? 0 : 10000;
  for (int i = 0; i < count; ++i) {
    Send(how % 4 % kServerCount);
    ReadResumed();
    world_.RunFor(base::TimeDelta::FromMicroseconds(gap_us));
  }
}

void Run::Send(size_t server) {
  ++calls_;
  const bool leaves = model_.Call(server, world_.steady_ticks_us());
  sent_.reset();
  AsTask([&] { handler_->SendPacket(servers_[server]); });
  if (!leaves) {
    SKORRA_FUZZ_CHECK(!sent_);
    return;
  }
  uint64_t nonce = 0;
  SocketError error = model_.has_socket(server) ? SocketError::kNone : connect_errors_[server];
  if (error == SocketError::kNone) {
    model_.OnConnected(server);
    nonce = model_.NextNonce();
    error = send_errors_[server];
  }
  CheckSent(server, nonce, error);
  if (nonce != 0) {
    model_.ResumeReading(server);
  }
}

void Run::CheckSent(size_t server, uint64_t nonce, SocketError error) {
  SKORRA_FUZZ_CHECK(sent_.has_value() == (error == SocketError::kNone));
  if (error != SocketError::kNone) {
    model_.OnSendError(error);
    return;
  }
  // Version 4, mode 3, the nonce at the end, and nothing of this host.
  const std::vector<uint8_t>& bytes = sent_->bytes;
  SKORRA_FUZZ_CHECK(sent_->server == servers_[server] && bytes.size() == 48 && bytes[0] == 0x23);
  SKORRA_FUZZ_CHECK(
      std::all_of(bytes.begin() + 1, bytes.begin() + 40, [](uint8_t byte) { return byte == 0; }));
  SKORRA_FUZZ_CHECK(NumberAt(bytes, 40, 8) == nonce);
  model_.OnLeft(server, sent_->client, nonce, world_.steady_ticks_us());
}

void Run::SetSendError(uint8_t how) {
  const uint8_t where = program_.Byte();
  const size_t server = where % kServerCount;
  const auto error = static_cast<SocketError>(how % (static_cast<int>(SocketError::kOther) + 1));
  if (where < 128) {
    send_errors_[server] = error;
    world_.SetSendError(servers_[server], error);
  } else {
    connect_errors_[server] = error;
    world_.SetConnectError(servers_[server], error);
  }
}

// The configuration, which the next attempt reads, and the offset of the clock, which counts at once.
void Run::ChangeSettings(uint8_t how) {
  const config::BaseConfig& entries = config::BaseCfg();
  if (how >= 8) {
    int64_t offset_us = world_.wall_us() - world_.steady_ticks_us() + kClockErrors[how - 8];
    if (how >= 14) {
      offset_us = program_.Signed64();
    }
    handler_->UpdateSystemTimeOffsetFromSteady(offset_us);
    SKORRA_FUZZ_CHECK(handler_->GetSystemTimeOffsetFromSteady() == offset_us);
    model_.SetClockOffset(offset_us);
  } else if (how < 4) {
    limits_.requests_per_burst = 3 + program_.Byte() % 18;
    config_.Set(entries.ntp_requests_per_burst, static_cast<uint64_t>(limits_.requests_per_burst));
  } else {
    const uint64_t limit_ms = 1 + program_.Number(2) % 60000;
    (how < 6 ? limits_.max_root_distance_us : limits_.max_round_trip_us) =
        static_cast<int64_t>(limit_ms) * 1000;
    config_.Set(how < 6 ? entries.ntp_max_root_distance_ms : entries.ntp_max_round_trip_ms, limit_ms);
  }
}

void Run::ChangeClient(uint8_t how) {
  if (how < 8) {
    callback_server_ = how < kServerCount ? std::optional<size_t>(how) : std::nullopt;
  } else if (how < 12) {
    constexpr int64_t kWaits[4] = {0, 1000, kSecondUs, 4 * kSecondUs};
    waiting_us_ = kWaits[how - 8];
  } else {
    NewHandler();
    model_.Clean();
    is_first_told_ = false;
  }
}

void Run::StampSend(uint8_t how) {
  HandlerModel::Request* const request = NextRequest();
  if (request == nullptr) {
    return;
  }
  const int64_t stamp_ticks_us =
      std::min(request->send_ticks_us + int64_t{how} * how * 37, world_.steady_ticks_us());
  model_.OnSendStamp(*request, stamp_ticks_us);
  world_.ReportSent(request->client, request->send_id, stamp_ticks_us);
  world_.ReportSent(request->client, 1000000, stamp_ticks_us);  // no datagram of that number has left
}

HandlerModel::Request* Run::NextRequest() {
  const uint8_t byte = program_.Byte();
  std::vector<HandlerModel::Request>& requests = model_.requests();
  // From the back: the last requests are those that a program has most to do with.
  return requests.empty() ? nullptr : &requests[requests.size() - 1 - byte % requests.size()];
}

// A reply that a server would send: `how` chooses its clock's error and how long it worked on the request.
std::vector<uint8_t> Run::MakeReply(const HandlerModel::Request& request, uint8_t how) const {
  const int64_t clock_offset_us = world_.wall_us() - world_.steady_ticks_us();
  const int64_t exchange_us = world_.steady_ticks_us() - request.send_ticks_us;
  const int64_t works[4] = {std::min<int64_t>(exchange_us, 100), exchange_us, exchange_us + 1,
                            exchange_us / 2};
  const int64_t work_us = works[how % 4];
  const int64_t receive_us =
      request.send_ticks_us + clock_offset_us + (exchange_us - work_us) / 2 + kServerErrors[how / 4];
  std::vector<uint8_t> bytes(48);
  Put(bytes, 0, 0x240206ec, 4);
  Put(bytes, 4, 0x00000400, 4);
  Put(bytes, 8, 0x00000200, 4);
  Put(bytes, 12, 0xc0000201, 4);
  Put(bytes, 16, MakeTimestamp(receive_us - 60 * kSecondUs), 8);
  Put(bytes, 24, request.nonce, 8);
  Put(bytes, 32, MakeTimestamp(receive_us), 8);
  Put(bytes, 40, MakeTimestamp(receive_us + work_us), 8);
  return bytes;
}

void Run::Mutate(std::vector<uint8_t>& bytes, int count) {
  for (int i = 0; i < count; ++i) {
    const size_t position = program_.Byte() % 48;
    bytes[position] = program_.Byte();
  }
}

void Run::Resize(std::vector<uint8_t>& bytes, uint8_t how) {
  if (how < 4) {
    bytes.resize(program_.Byte() % 48);
  } else if (how < 8) {
    bytes.resize(bytes.size() + how - 3);
  } else if (how < 12) {
    AppendField(bytes, 16);
    AppendField(bytes, size_t{16} + (how - 8u) * 4);
  } else if (how == 12) {
    AppendField(bytes, net::kMaxDatagramBytes - 48);
  } else if (how == 13) {
    AppendField(bytes, net::kMaxDatagramBytes - 44);
  } else {
    AppendField(bytes, 28);
    bytes[50 + how % 2] = program_.Byte();
  }
}

void Run::Reply(Step step, uint8_t how) {
  const HandlerModel::Request* const request = NextRequest();
  if (request == nullptr) {
    return;
  }
  std::vector<uint8_t> bytes = MakeReply(*request, step == Step::kGenuineReply ? how : 0);
  IPEndPoint source = servers_[request->server];
  IPEndPoint client = request->client;
  if (step == Step::kMutatedReply) {
    Mutate(bytes, 1 + how % 8);
  } else if (step == Step::kOtherSize) {
    Resize(bytes, how);
  } else if (step == Step::kKiss) {
    bytes[1] = 0;
    const char* const code = kCodes[how];
    std::copy(code, code + 4, bytes.begin() + 12);
    bytes[0] = how >= 12 ? 0xe4 : 0x24;  // some say as well that they are not synchronised
  } else if (step == Step::kOtherSource) {
    source = how < 8 ? servers_[(request->server + 1 + how) % kServerCount]
                     : IPEndPoint::FromIPv4({10, 0, 0, how}, source.port());
  } else if (step == Step::kOtherSocket) {
    const std::vector<HandlerModel::Request>& requests = model_.requests();
    const HandlerModel::Request& other = requests[requests.size() - 1 - how % requests.size()];
    source = servers_[other.server];
    client = other.client;
  }
  Deliver(source, client, bytes);
}

// Each is an event of the world. A callback that sends may resume more.
void Run::ReadResumed() {
  while (model_.ReadResumed(world_.steady_ticks_us())) {
    SKORRA_FUZZ_CHECK(world_.RunOne());
  }
  SKORRA_FUZZ_CHECK(world_.pending_count() == 0);
}

void Run::Deliver(const IPEndPoint& source, const IPEndPoint& client, const std::vector<uint8_t>& bytes) {
  last_ = {source, client, bytes};
  const std::optional<size_t> server = model_.FindSocket(client);
  if (server) {
    // Only the system's own test of the source may be left out, not the handler's.
    const int64_t waiting_us = source == servers_[*server] ? waiting_us_ : 0;
    const int64_t arrival_ticks_us = world_.steady_ticks_us() - waiting_us;
    model_.OnDatagram(*server, source, bytes, arrival_ticks_us, world_.steady_ticks_us());
    if (waiting_us != 0) {
      world_.DeliverAt(source, client, bytes, arrival_ticks_us);
    } else {
      world_.DeliverFromAnywhere(source, client, bytes, base::TimeDelta());
    }
  } else {
    world_.DeliverFromAnywhere(source, client, bytes, base::TimeDelta());
  }
  SKORRA_FUZZ_CHECK(world_.RunOne());
  ReadResumed();
  SKORRA_FUZZ_CHECK(model_.reports().empty());
  SKORRA_FUZZ_CHECK(!is_first_told_ && !is_exchange_told_);
}

void Run::OnFirstPacketReceived(int64_t offset_us) {
  SKORRA_FUZZ_CHECK(!is_first_told_ && !model_.reports().empty() && model_.reports()[0].is_first);
  SKORRA_FUZZ_CHECK(model_.reports()[0].exchange.sample.offset_us == offset_us);
  is_first_told_ = true;
  if (callback_server_) {
    Send(*callback_server_);
  }
}

void Run::OnExchange(const NtpExchange& exchange) {
  SKORRA_FUZZ_CHECK(!is_exchange_told_ && !model_.reports().empty());
  SKORRA_FUZZ_CHECK(model_.reports()[0].is_first == is_first_told_);
  SKORRA_FUZZ_CHECK(model_.reports()[0].exchange == exchange);
  is_exchange_told_ = true;
}

void Run::OnPacketReceived(NtpResultData data, const IPEndPoint& server) {
  SKORRA_FUZZ_CHECK(is_exchange_told_ && !model_.reports().empty());
  is_exchange_told_ = false;
  const SampleReport expected = model_.reports()[0];
  model_.reports().erase(model_.reports().begin());
  SKORRA_FUZZ_CHECK(expected.is_first == is_first_told_);
  SKORRA_FUZZ_CHECK(data == expected.exchange.sample);
  SKORRA_FUZZ_CHECK(server == servers_[expected.server]);
  is_first_told_ = false;
  if (callback_server_) {
    Send(*callback_server_);
  }
}

}  // namespace
}  // namespace skorra::fuzz

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  static skorra::fuzz::Process process;
  skorra::fuzz::Run run(&process, {data, size});
  run.Play();
  return 0;
}
