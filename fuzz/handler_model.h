// SPDX-License-Identifier: Apache-2.0

// The packet handler once more, written from its headers alone: what must leave, be counted and be reported.
// The address ledger's part is tests/model/ledger_model.h. It is slow and keeps everything; the fuzz target
// walks it alongside the real handler.
#pragma once

#include <array>
#include <cstdint>
#include <deque>
#include <map>
#include <optional>
#include <span>
#include <string>
#include <utility>
#include <vector>

#include "netmodel/random.h"
#include "platform/net/datagram_socket.h"
#include "platform/net/ip_endpoint.h"
#include "tests/model/ledger_model.h"
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
  int requests_per_burst = 20;
  int64_t max_root_distance_us = 5000000;
  int64_t max_round_trip_us = 1500000;
};

struct SampleReport {
  NtpExchange exchange;
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
    int64_t send_ticks_us = 0;
    int64_t stamp_ticks_us = 0;  // of T1: the best that is known
    bool has_kernel_stamp = false;
    bool is_used_up = false;
    bool is_forgotten = false;
  };

  // `seed` is the world's: the model draws the numbers that the handler draws.
  HandlerModel(const std::array<net::IPEndPoint, kServerCount>& servers, uint64_t seed,
               ExpectedCounters* counters)
      : servers_(servers), counters_(counters), random_(seed) {}

  void SetClockOffset(int64_t offset_us) { clock_offset_us_ = offset_us; }
  void Prepare(const Limits& limits);
  void Clean();

  // One call of SendPacket: whether its request leaves, if the system lets it.
  bool Call(size_t server, int64_t now_ticks_us);
  void OnConnected(size_t server) { peers_[server].has_socket = true; }
  void OnSendError(net::SocketError error);
  // The nonce of the request that is handed to the system now.
  uint64_t NextNonce();
  void OnLeft(size_t server, const net::IPEndPoint& client, uint64_t nonce, int64_t now_ticks_us);

  void OnSendStamp(Request& request, int64_t send_ticks_us);
  void OnReceiveError(size_t server, net::SocketError error, int64_t now_ticks_us);
  void OnDatagram(size_t server, const net::IPEndPoint& source, std::span<const uint8_t> bytes,
                  int64_t receive_ticks_us, int64_t now_ticks_us);
  // The socket was told to send: what has waited unread will be read, one by one.
  void ResumeReading(size_t server);
  // Reads the next of these; false when there is none.
  bool ReadResumed(int64_t now_ticks_us);

  // All requests of the run, those of earlier attempts too.
  std::vector<Request>& requests() { return requests_; }
  bool has_socket(size_t server) const { return peers_[server].has_socket; }
  // The server whose open socket this is.
  std::optional<size_t> FindSocket(const net::IPEndPoint& client) const;
  // Those that the client has not heard yet.
  std::vector<SampleReport>& reports() { return reports_; }
  void CheckLedger() const;

 private:
  struct Datagram {
    net::IPEndPoint source;
    std::vector<uint8_t> bytes;
    int64_t receive_ticks_us = 0;
    net::SocketError error = net::SocketError::kNone;  // instead of a datagram
  };
  struct Peer {
    bool has_socket = false;
    net::IPEndPoint client{};  // once something has left
    uint32_t send_count = 0;
    bool is_reading = true;
    std::vector<Datagram> unread{};
  };

  void StopReadingIfDone(size_t server, int64_t ticks_us);
  // Rejects what `server`'s socket received.
  void Reject(size_t server, ReplyRejection rejection, int64_t receive_ticks_us);
  ReplyRejection FindRequest(size_t server, const net::IPEndPoint& source, std::span<const uint8_t> bytes,
                             int64_t receive_ticks_us, Request** request);
  void OnKissCode(KissCode code, Request& request, int64_t now_ticks_us);
  void Measure(std::span<const uint8_t> bytes, Request& request, int64_t receive_ticks_us);
  int64_t LocalUs(int64_t ticks_us) const;

  const std::array<net::IPEndPoint, kServerCount> servers_;
  ExpectedCounters* const counters_;
  int64_t clock_offset_us_ = 0;
  Limits limits_;
  bool is_prepared_ = false;
  bool is_first_reported_ = false;
  std::array<Peer, kServerCount> peers_;
  model::LedgerModel ledger_;
  netmodel::Random random_;
  std::vector<Request> requests_;
  std::vector<SampleReport> reports_;
  std::deque<std::pair<size_t, Datagram>> resumed_;  // by server
};

}  // namespace skorra::fuzz
