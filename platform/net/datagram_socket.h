// SPDX-License-Identifier: Apache-2.0

// UDP to one server: a seam with a real and a simulated implementation.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <span>

#include "../net/ip_endpoint.h"

namespace net {
inline namespace skorra_ntp {

// Why a datagram could not be sent or received. None is fatal: a later `Send` may succeed.
enum class SocketError {
  kNone,
  kRefused,             // the peer answered that nobody listens on the port (ICMP; may be forged)
  kHostUnreachable,     // no way to the host (may be forged)
  kNetworkUnreachable,  // no route to the network (may be forged)
  kNetworkDown,         // the interface is down or gone
  kNoAddress,           // no local address to send from, or no free port
  kNoBuffers,           // out of memory for datagrams
  kWouldBlock,          // the send buffer is full
  kNoDescriptors,       // the process or the system is out of file descriptors
  kInterrupted,         // by a signal, time and again
  kDenied,              // forbidden by the system (firewall, broadcast address, sandbox)
  kUnsupported,         // the address family is not available here
  kOther,
};

// A stable name for counters and messages: "refused", "host_unreachable", ...
const char* SocketErrorName(SocketError error);

// Where a time stamp comes from.
enum class StampSource {
  kKernel,
  kUser,         // read by us next to the system call: the kernel gave none
  kImplausible,  // the same, because the kernel's stamp was rejected
};

// A stable name for counters: "kernel", "user", "implausible".
const char* StampSourceName(StampSource source);

// At most this much of a datagram is read: longer than any NTP packet in use, extension fields included.
inline constexpr size_t kMaxDatagramBytes = 1024;

struct ReceivedDatagram {
  std::span<const uint8_t> bytes;  // valid during the callback only
  IPEndPoint source;
  // Steady ticks (base/clock.h) of the arrival: the kernel's receive time stamp mapped to the steady clock,
  // or the time of reading where that is missing or implausible.
  int64_t receive_ticks_us = 0;
  StampSource stamp_source = StampSource::kUser;
  bool is_truncated = false;  // it was longer than kMaxDatagramBytes; `bytes` is its beginning
};

// A socket on a fresh ephemeral port, connected to one end point, so that the system itself drops datagrams
// from elsewhere. It belongs to the task queue on which it was connected: all calls are made there and the
// callbacks run there. Destroying it closes it, and no callback runs after that; its own callbacks must not
// destroy it. In a forked child, a socket of the parent sends nothing (kOther) and reads nothing.
class DatagramSocket {
 public:
  struct Callbacks {
    std::function<void(const ReceivedDatagram&)> on_datagram = nullptr;
    // An error that the system reported between sends (for example kRefused after an ICMP message).
    std::function<void(SocketError)> on_error = nullptr;
    // The departure of an earlier datagram: the kernel's time stamp mapped to the steady clock. Called where
    // the kernel gives a plausible one, never inside `Send`, and before any later datagram is delivered.
    std::function<void(uint32_t send_id, int64_t send_ticks_us)> on_sent = nullptr;
  };

  // Returns null and sets `*error` if no socket can be opened. `remote` must not be empty and the caller must
  // run on a task queue; kOther otherwise.
  static std::unique_ptr<DatagramSocket> Connect(const IPEndPoint& remote, Callbacks callbacks,
                                                 SocketError* error);
  ~DatagramSocket();
  DatagramSocket(const DatagramSocket&) = delete;
  DatagramSocket& operator=(const DatagramSocket&) = delete;

  // Sends one datagram now, without blocking. After a success `*send_id`, unless null, is the number by which
  // `on_sent` names it.
  SocketError Send(std::span<const uint8_t> bytes, uint32_t* send_id = nullptr);

  // Reads nothing more until the next `Send`, not even what has arrived already. It waits in the system's
  // receive buffer, and what arrives once that is full is lost. May be called in a callback of the socket.
  void StopReading();

  IPEndPoint local() const;

 private:
  struct Impl;
  explicit DatagramSocket(std::unique_ptr<Impl> impl);

  std::unique_ptr<Impl> impl_;
};

}  // namespace skorra_ntp
}  // namespace net
