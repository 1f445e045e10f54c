// Sends NTP requests, one per call, and reports each genuine reply as a sample.
//
// A request carries nothing of the host: every field but version and mode is zero, and the transmit time
// stamp is a fresh random number, the nonce that the reply must return as its origin time stamp. A reply
// that fails a check is dropped and counted under "ntp.rejected.<reason>"; it never uses up the nonce that
// it guessed at.
//
// Threads: everything, the client's callbacks included, runs on the time manager's queue. A client callback
// runs inside a socket's own callback: it may send, but it may not close sockets, that is, call
// `PrepareForSendPackets` or `Clean` or destroy the handler. Post a task for that.
//
// Counters (platform/metrics/key_metrics.h): "ntp.requests_sent", "ntp.samples_received",
// "ntp.rejected.<reason>" (ReplyRejectionName in ntp_packet.h), "ntp.send_error.<reason>" and
// "ntp.receive_error.<reason>" (net::SocketErrorName), "ntp.send_skipped" for sends after `Clean`.
#pragma once

#include <cstdint>
#include <map>
#include <memory>
#include <vector>

#include "ntp/ntp_sync_records.h"
#include "platform/base/weak_ptr.h"
#include "platform/net/datagram_socket.h"
#include "platform/net/ip_endpoint.h"
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

  // Sends one request to `server`, which is not empty. A send that fails, also for want of a socket, is
  // counted and forgotten: call again to try again. A send after `Clean` does nothing.
  void SendPacket(const net::IPEndPoint& server);

  // Closes the sockets and forgets every request; replies under way are lost. Sends do nothing until the
  // next `PrepareForSendPackets`. Not to be called from a client callback.
  void Clean();

  base::WeakPtr<NtpTimePacketHandler> GetWeakPtr() const { return weak_owner_.GetWeakPtr(); }

 private:
  struct Outstanding {
    net::IPEndPoint server;
    int64_t send_ticks_us = 0;
  };

  // The socket connected to `server`, opened on first use; null with `*error` set when there is none.
  net::DatagramSocket* GetSocket(const net::IPEndPoint& server, net::SocketError* error);
  void OnDatagram(const net::ReceivedDatagram& datagram);
  // Judges one datagram; kNone closes the request that it answers and fills in both records.
  ReplyRejection AcceptReply(const net::ReceivedDatagram& datagram, NtpPacket* reply, Outstanding* request);
  int64_t ToLocalTimestampUs(int64_t ticks_us) const;

  Client* const client_;
  int64_t system_offset_from_steady_us_;
  bool is_prepared_ = false;
  bool is_first_packet_reported_ = false;
  std::map<uint64_t, Outstanding> outstanding_;  // by nonce
  std::map<net::IPEndPoint, std::unique_ptr<net::DatagramSocket>> sockets_;
  base::WeakPtrOwner<NtpTimePacketHandler> weak_owner_{this};
};

}  // namespace skorra
