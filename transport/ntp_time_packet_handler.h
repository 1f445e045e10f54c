// SPDX-License-Identifier: Apache-2.0

// Sends NTP requests and reports each genuine reply as a sample.
//
// A request carries nothing of the host: every field but version and mode is zero, and the transmit time
// stamp is a fresh random number, the nonce that the reply must return as its origin time stamp. A reply that
// fails a check is dropped and counted under its reason. A rejected reply never consumes a nonce. A sample
// consumes its nonce, and so does a refusal (RATE, DENY, RSTR); what answers the same request later is a
// duplicate. A nonce is accepted for 3 s and remembered for 10 s, so that late and duplicate replies can be
// counted as such.
//
// Once every nonce that a server got is used up or expired, the first rejected datagram or error is the last
// one read from its socket until the next request: a flood then costs no more than a full receive buffer.
//
// The address ledger (ntp_address_ledger.h) decides which calls of `SendPacket` become requests, as calls of
// bursts or as single ones. A refusal by the server ends the burst to its address at once.
//
// Threads: everything, the client's callbacks included, runs on the time manager's queue. A client callback
// runs inside a socket's own callback: it may send, but it may not close sockets, that is, call
// `PrepareForSendPackets` or `Clean` or destroy the handler. Post a task for that.
//
// Counters: the ntp.* names of docs/counters.md, except those of domains.
#pragma once

#include <cstdint>
#include <deque>
#include <map>
#include <memory>
#include <string>
#include <utility>

#include "platform/base/weak_ptr.h"
#include "platform/net/datagram_socket.h"
#include "platform/net/ip_endpoint.h"
#include "transport/ntp_exchange.h"
#include "transport/ntp_packet.h"

namespace skorra {

class NtpTimePacketHandler {
 public:
  class Client {
   public:
    // The offset of the first reply since `PrepareForSendPackets`, before the sample itself is reported.
    virtual void OnFirstPacketReceived(int64_t offset_us) = 0;
    // One sample; `server` is the end point that answered.
    virtual void OnPacketReceived(NtpResultData data, const net::IPEndPoint& server) = 0;
    virtual ~Client() = default;
    // All that the sample's exchange tells, its domain aside: called directly before the sample itself is
    // reported, and after `OnFirstPacketReceived`.
    virtual void OnExchange(const NtpExchange& /*exchange*/) {}
    // A reply that brought no sample. `counter` is the name that it was counted under: ntp.rejected.<reason>,
    // or ntp.kiss.<code>.
    virtual void OnReplyRejected(const net::IPEndPoint& /*server*/, const std::string& /*counter*/) {}
  };

  // What the ledger is told about the requests.
  enum class Requests {
    kOfBursts,
    kSingle,  // what becomes of them says nothing about the bursts to the same address, refusals aside
  };

  // `client` outlives the handler. `system_offset_from_steady_us` is the wall clock (microseconds since
  // 1601) minus the steady ticks: samples are measured against steady ticks plus this value.
  NtpTimePacketHandler(Client* client, int64_t system_offset_from_steady_us,
                       Requests requests = Requests::kOfBursts);
  virtual ~NtpTimePacketHandler();
  NtpTimePacketHandler(const NtpTimePacketHandler&) = delete;
  NtpTimePacketHandler& operator=(const NtpTimePacketHandler&) = delete;

  // Begins an attempt: forgets earlier requests, closes their sockets (each attempt uses fresh ports) and
  // lets sends through. Not to be called from a client callback.
  void PrepareForSendPackets();

  // The offset that later samples are measured against; requests under way keep working.
  void UpdateSystemTimeOffsetFromSteady(int64_t system_offset_from_steady_us);
  int64_t GetSystemTimeOffsetFromSteady() const { return system_offset_from_steady_us_; }

  // Sends one request to `server`, which is not empty, or counts why not: the ledger withholds it or thins
  // it out, or the system fails to send it (also when there is no socket; the next call tries again). Does
  // nothing after `Clean`.
  void SendPacket(const net::IPEndPoint& server);

  // Closes the sockets and forgets every request; replies under way are lost. Sends do nothing until the
  // next `PrepareForSendPackets`. Not to be called from a client callback.
  void Clean();

  base::WeakPtr<NtpTimePacketHandler> GetWeakPtr() const { return weak_owner_.GetWeakPtr(); }

 private:
  struct Request {
    net::IPEndPoint server;
    uint64_t nonce = 0;
    uint32_t send_id = 0;
    int64_t send_ticks_us = 0;
    bool has_kernel_stamp = false;
    bool is_answered = false;
  };

  // One server in this attempt.
  struct Peer {
    std::unique_ptr<net::DatagramSocket> socket;
    std::deque<Request> requests;  // in the order of their sends
  };

  // Opens the peer's socket unless it is open. Returns why it cannot be.
  net::SocketError OpenSocket(const net::IPEndPoint& server, Peer& peer);
  bool Admit(const net::IPEndPoint& server, int64_t now_ticks_us) const;
  // `group` is send_error or receive_error.
  void OnSocketError(const char* group, const net::IPEndPoint& server, net::SocketError error) const;
  static void OnSent(Peer& peer, uint32_t send_id, int64_t send_ticks_us);
  // Call it for a rejected datagram or an error, with the time of its arrival: stops reading when no reply
  // from then on could be the first to a request.
  static void StopReadingIfDone(Peer& peer, int64_t arrival_ticks_us);
  void OnDatagram(const net::IPEndPoint& server, Peer& peer, const net::ReceivedDatagram& datagram);
  // Finds the request that the datagram answers.
  ReplyRejection FindRequest(const net::IPEndPoint& server, const net::ReceivedDatagram& datagram,
                             NtpPacket* reply, Request** request);
  void OnKissCode(KissCode code, Request& request);
  // Judges what the reply says and writes down the exchange, its sample first of all.
  ReplyRejection Measure(const NtpPacket& reply, const Request& request,
                         const net::ReceivedDatagram& datagram, NtpExchange* exchange) const;
  void ForgetOldRequests(int64_t now_ticks_us);
  int64_t ToLocalTimestampUs(int64_t steady_ticks_us) const;

  Client* const client_;
  const Requests kind_;
  int64_t system_offset_from_steady_us_;
  bool is_prepared_ = false;
  bool is_first_packet_reported_ = false;
  // The configuration as it was when the attempt began.
  uint32_t requests_per_burst_ = 0;
  int64_t max_root_distance_us_ = 0;
  int64_t max_round_trip_us_ = 0;
  std::map<net::IPEndPoint, Peer> peers_;  // by server
  std::map<uint64_t, Request*> requests_;  // of all peers, by nonce
  // Of each request the steady ticks of its send and its peer, in the order of the sends.
  std::deque<std::pair<int64_t, Peer*>> send_order_;
  base::WeakPtrOwner<NtpTimePacketHandler> weak_owner_{this};
};

}  // namespace skorra
