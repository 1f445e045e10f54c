// Sends NTP requests, one per call, and reports each genuine reply as a sample.
//
// A request carries nothing of the host: every field but version and mode is zero, and the transmit time
// stamp is a fresh random number, the nonce that the reply must return as its origin time stamp. A reply
// that fails a check is dropped and counted under its reason; it never uses up the nonce that it guessed at.
// A nonce is used up by the first sample, or the first refusal (RATE, DENY, RSTR), that answers it; what
// comes later is a duplicate. More than 3 s after its request a nonce is worth nothing any more, and the
// first send more than 10 s after it makes it forgotten.
//
// Bursts: a call for an address begins a burst when the one before began a second ago or more, or 195 ms ago
// and has had its 20 calls; all others belong to the burst under way, whatever domain or attempt they come
// from. Of a burst's first 20 calls as many requests leave, evenly spread, as the configuration entry
// `ntp_requests_per_burst`, read at `PrepareForSendPackets`, and the address ledger (ntp_address_ledger.h)
// allow when it begins; later calls are left out. A refusal by the server ends the burst to its address at
// once.
//
// Threads: everything, the client's callbacks included, runs on the time manager's queue. A client callback
// runs inside a socket's own callback: it may send, but it may not close sockets, that is, call
// `PrepareForSendPackets` or `Clean` or destroy the handler. Post a task for that.
//
// Counters (platform/metrics/key_metrics.h):
//   ntp.requests_sent            requests handed to the system
//   ntp.samples_received         replies that passed every check
//   ntp.rejected.<reason>        ReplyRejectionName in ntp_packet.h
//   ntp.kiss.<code>              kiss codes with a good nonce, KissCodeName in ntp_packet.h; "repeated" are
//                                refusals of requests that left before the first refusal came
//   ntp.send_thinned             calls that are not among the burst's requests
//   ntp.send_refused.<reason>    calls that the ledger refused, SendRefusalName in ntp_address_ledger.h
//   ntp.send_skipped             calls after `Clean`
//   ntp.send_error.<reason>, ntp.receive_error.<reason>   net::SocketErrorName
//   ntp.send_stamp.<source>, ntp.receive_stamp.<source>   where the samples' T1 and T4 come from: "kernel",
//                                "user" or, of T4, "implausible" (user, since the kernel's could not be)
#pragma once

#include <cstdint>
#include <deque>
#include <map>
#include <memory>
#include <optional>
#include <utility>

#include "ntp/ntp_sync_records.h"
#include "platform/base/weak_ptr.h"
#include "platform/net/datagram_socket.h"
#include "platform/net/ip_endpoint.h"
#include "transport/ntp_address_ledger.h"
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
  };

  // `client` outlives the handler. `system_offset_from_steady_us` is the wall clock (microseconds since
  // 1601) minus the steady ticks: samples are measured against steady ticks plus this value.
  NtpTimePacketHandler(Client* client, int64_t system_offset_from_steady_us);
  virtual ~NtpTimePacketHandler();
  NtpTimePacketHandler(const NtpTimePacketHandler&) = delete;
  NtpTimePacketHandler& operator=(const NtpTimePacketHandler&) = delete;

  // Begins an attempt: forgets earlier requests, closes their sockets (each attempt uses fresh ports) and
  // lets sends through. Not to be called from a client callback.
  void PrepareForSendPackets();

  // The offset that later samples are measured against; requests under way keep working.
  void UpdateSystemTimeOffsetFromSteady(int64_t system_offset_from_steady_us);
  int64_t GetSystemTimeOffsetFromSteady() const { return system_offset_from_steady_us_; }

  // Sends one request to `server`, which is not empty, or counts why not: the burst is thinned, the ledger
  // refuses, or the system does (also for want of a socket: call again to try again). After `Clean` it does
  // nothing.
  void SendPacket(const net::IPEndPoint& server);

  // Closes the sockets and forgets every request; replies under way are lost. Sends do nothing until the
  // next `PrepareForSendPackets`. Not to be called from a client callback.
  void Clean();

  base::WeakPtr<NtpTimePacketHandler> GetWeakPtr() const { return weak_owner_.GetWeakPtr(); }

 private:
  // One server address: its socket in this attempt, and its last burst.
  struct Peer {
    std::unique_ptr<net::DatagramSocket> socket;
    std::optional<int64_t> burst_us;  // when the burst began
    uint32_t call_count = 0;          // in this burst
    uint32_t request_limit = 0;       // of this burst
    SendRefusal refusal = SendRefusal::kNone;
  };

  struct Request {
    net::IPEndPoint server;
    uint32_t send_id = 0;
    int64_t send_ticks_us = 0;
    bool has_kernel_stamp = false;
    bool is_answered = false;
  };

  // Whether this call's request leaves; counts the reason when not.
  bool MayLeave(const net::IPEndPoint& server, Peer& peer, int64_t now_us);
  // False, with `*error` set, when the peer has no socket and can have none.
  bool OpenSocket(const net::IPEndPoint& server, Peer& peer, net::SocketError* error);
  void OnSent(const net::IPEndPoint& server, uint32_t send_id, int64_t send_ticks_us);
  void OnDatagram(const net::IPEndPoint& server, const net::ReceivedDatagram& datagram);
  // Finds the request that the datagram answers.
  ReplyRejection FindRequest(const net::IPEndPoint& server, const net::ReceivedDatagram& datagram,
                             NtpPacket* reply, Request** request);
  void OnKiss(KissCode code, Request& request);
  // Judges what the reply says and computes its sample.
  ReplyRejection Measure(const NtpPacket& reply, const Request& request, int64_t receive_ticks_us,
                         NtpResultData* sample) const;
  void ForgetOldRequests(int64_t now_us);
  int64_t ToLocalTimestampUs(int64_t ticks_us) const;

  Client* const client_;
  int64_t system_offset_from_steady_us_;
  bool is_prepared_ = false;
  bool is_first_packet_reported_ = false;
  // The configuration as it was when the attempt began.
  uint32_t requests_per_burst_ = 0;
  int64_t max_root_distance_us_ = 0;
  int64_t max_round_trip_us_ = 0;
  std::map<uint64_t, Request> requests_;             // by nonce
  std::deque<std::pair<int64_t, uint64_t>> by_age_;  // the same nonces behind the ticks of their sends
  std::map<net::IPEndPoint, Peer> peers_;
  base::WeakPtrOwner<NtpTimePacketHandler> weak_owner_{this};
};

}  // namespace skorra
