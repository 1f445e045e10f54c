// The packet handler and the address ledger once more, written from their headers alone: what must be
// counted, reported and refused. It is slow and keeps everything; the fuzz target walks it alongside the real
// ones.
//
// Three things are left to the real ones, and only held within their bounds: which of a burst's calls are
// thinned, how long a back-off's jitter is, and the nonces.
#pragma once

#include <array>
#include <cstdint>
#include <map>
#include <optional>
#include <span>
#include <string>
#include <vector>

#include "platform/net/datagram_socket.h"
#include "platform/net/ip_endpoint.h"
#include "transport/ntp_address_ledger.h"
#include "transport/ntp_packet.h"

namespace skorra::fuzz {

inline constexpr size_t kServerCount = 3;

// The counters as they should stand, over all runs of the process.
class ExpectedCounters {
 public:
  ExpectedCounters();

  void Count(const std::string& name);
  // Those that have moved since the last call, each by its own number; and, slower, that no other has.
  void CheckMoved();
  void CheckAll() const;

 private:
  std::map<std::string, uint64_t> counts_;
  std::vector<const std::string*> moved_;
};

struct Limits {
  uint32_t requests_per_burst = 20;
  int64_t max_root_distance_us = 5000000;
  int64_t max_round_trip_us = 1500000;
};

struct SampleReport {
  NtpResultData data;
  size_t server = 0;
  bool is_first = false;
};

class HandlerModel {
 public:
  struct Request {
    uint64_t nonce = 0;
    size_t server = 0;
    net::IPEndPoint client;
    uint32_t send_id = 0;
    int64_t sent_us = 0;
    int64_t send_stamp_us = 0;  // T1: as good as it is known
    bool has_kernel_stamp = false;
    bool is_used_up = false;
    bool is_forgotten = false;
  };
  enum class SendVerdict { kSkipped, kRefused, kMayLeave };

  HandlerModel(const std::array<net::IPEndPoint, kServerCount>& servers, ExpectedCounters* counters)
      : servers_(servers), counters_(counters) {}

  void SetClockOffset(int64_t offset_us) { clock_offset_us_ = offset_us; }
  void Prepare(const Limits& limits);
  void Clean();
  // Another handler takes the place of this one.
  void OnNewHandler() {
    Clean();
    peers_ = {};
  }

  // A call of SendPacket is told in two steps: whether it may leave, and what was seen of it then.
  SendVerdict BeginSend(size_t server, int64_t now_us);
  void OnThinned(size_t server);
  void OnChosen(size_t server);
  void OnConnected(size_t server) { peers_[server].has_socket = true; }
  void OnSendError(net::SocketError error);
  void OnLeft(size_t server, const net::IPEndPoint& client, uint64_t nonce, int64_t now_us);

  void OnSendStamp(Request& request, int64_t send_ticks_us);
  void OnReceiveError(net::SocketError error);
  void OnDatagram(size_t server, const net::IPEndPoint& source, std::span<const uint8_t> bytes,
                  int64_t receive_us, int64_t now_us);
  // After a datagram: the back-off that the ledger drew must be within its bounds.
  void LearnBackOff();

  // All requests of the run, those of earlier attempts too.
  std::vector<Request>& requests() { return requests_; }
  bool has_socket(size_t server) const { return peers_[server].has_socket; }
  // The server whose open socket this is.
  std::optional<size_t> FindSocket(const net::IPEndPoint& client) const;
  // What the client has still to be told about the last datagram.
  std::vector<SampleReport>& reports() { return reports_; }
  void CheckLedger() const;

 private:
  // What the handler takes for a burst: calls for one address, whether they leave or not.
  struct CallRow {
    int64_t begin_us = 0;
    uint32_t calls = 0;
    uint32_t chosen = 0;
    uint32_t limit = 0;
    SendRefusal refusal = SendRefusal::kNone;
  };
  struct Peer {
    bool has_socket = false;
    net::IPEndPoint client{};  // once something has left
    uint32_t send_count = 0;
    std::optional<CallRow> burst;  // an attempt takes over that of the attempt before
  };
  // What the ledger takes for one: a row that it let begin.
  struct Burst {
    int64_t begin_us = 0;
    bool is_answered = false;
    bool is_limited = false;  // answered with RATE
    bool is_denied = false;   // answered with DENY or RSTR
  };
  struct Account {
    std::vector<Burst> bursts;
    bool was_limited = false;
    int64_t held_until_us = 0;
    SendRefusal held_for = SendRefusal::kNone;
    NtpAddressLedger::Counts counts;
  };

  void Reject(ReplyRejection rejection);
  ReplyRejection FindRequest(size_t server, const net::IPEndPoint& source, std::span<const uint8_t> bytes,
                             int64_t receive_us, Request** request);
  void OnKiss(KissCode code, Request& request, int64_t now_us);
  bool Hold(Account& account, size_t server, bool is_rate, int64_t now_us);
  void Measure(std::span<const uint8_t> bytes, Request& request, int64_t receive_us);
  SendRefusal Refusal(const Account& account, int64_t now_us) const;
  int64_t LocalUs(int64_t ticks_us) const;

  const std::array<net::IPEndPoint, kServerCount> servers_;
  ExpectedCounters* const counters_;
  int64_t clock_offset_us_ = 0;
  Limits limits_;
  bool is_prepared_ = false;
  bool is_first_reported_ = false;
  std::array<Peer, kServerCount> peers_;
  std::array<Account, kServerCount> accounts_;
  std::vector<Request> requests_;
  std::vector<SampleReport> reports_;
  // A back-off that has just begun, with the bounds of its length.
  struct NewBackOff {
    size_t server;
    int64_t from_us;
    int64_t shortest_us;
    int64_t longest_us;
  };
  std::optional<NewBackOff> new_back_off_;
};

}  // namespace skorra::fuzz
