// UDP to one server: a seam with a real and a simulated implementation.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <span>

#include "platform/net/ip_endpoint.h"

namespace net {

// Why a datagram could not be sent or received. None is fatal: a later `Send` may succeed.
enum class SocketError {
  kNone,
  kRefused,      // the peer answered that nobody listens on the port (ICMP; may be forged)
  kUnreachable,  // no route to host or network, or the network is down
  kNoResources,  // out of buffers, descriptors or ports
  kDenied,       // forbidden by the system (firewall, broadcast address, sandbox)
  kUnsupported,  // the address family is not available here
  kOther,
};

// A stable name for counters and messages: "refused", "unreachable", ...
const char* SocketErrorName(SocketError error);

struct ReceivedDatagram {
  std::span<const uint8_t> bytes;  // valid during the callback only
  IPEndPoint source;
  // Steady ticks (base/clock.h, microseconds) when the datagram arrived: the kernel's receive time stamp
  // mapped to the steady clock where it is there and plausible, otherwise the moment it was read.
  int64_t receive_ticks_us = 0;
};

// A socket on a fresh ephemeral port, connected to one end point, so that the system itself drops what
// comes from elsewhere. It belongs to the task queue on which it was connected: all calls are made there
// and the callbacks run there. Destroying it closes it, and no callback runs after that; it may not be
// destroyed inside its own callbacks.
class DatagramSocket {
 public:
  struct Callbacks {
    std::function<void(const ReceivedDatagram&)> on_datagram;
    // An error that the system reported between sends (for example kRefused after an ICMP message).
    std::function<void(SocketError)> on_error;
  };

  // Null with `*error` set when no socket can be had. `remote` must not be empty and the caller must run on
  // a task queue; kOther otherwise.
  static std::unique_ptr<DatagramSocket> Connect(const IPEndPoint& remote, Callbacks callbacks,
                                                 SocketError* error);
  ~DatagramSocket();
  DatagramSocket(const DatagramSocket&) = delete;
  DatagramSocket& operator=(const DatagramSocket&) = delete;

  // Sends one datagram now, without blocking.
  SocketError Send(std::span<const uint8_t> bytes);

  IPEndPoint local() const;

 private:
  struct Impl;
  explicit DatagramSocket(std::unique_ptr<Impl> impl);

  std::unique_ptr<Impl> impl_;
};

}  // namespace net
