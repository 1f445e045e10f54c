// SPDX-License-Identifier: Apache-2.0
#include "platform/net/datagram_socket.h"
#include "platform/net/host_resolver.h"

namespace net {
inline namespace skorra_ntp {

const char* SocketErrorName(SocketError error) {
  switch (error) {
    case SocketError::kNone:
      return "none";
    case SocketError::kRefused:
      return "refused";
    case SocketError::kHostUnreachable:
      return "host_unreachable";
    case SocketError::kNetworkUnreachable:
      return "network_unreachable";
    case SocketError::kNetworkDown:
      return "network_down";
    case SocketError::kNoAddress:
      return "no_address";
    case SocketError::kNoBuffers:
      return "no_buffers";
    case SocketError::kWouldBlock:
      return "would_block";
    case SocketError::kNoDescriptors:
      return "no_descriptors";
    case SocketError::kInterrupted:
      return "interrupted";
    case SocketError::kDenied:
      return "denied";
    case SocketError::kUnsupported:
      return "unsupported";
    case SocketError::kOther:
      return "other";
  }
  return "unknown";
}

const char* StampSourceName(StampSource source) {
  switch (source) {
    case StampSource::kKernel:
      return "kernel";
    case StampSource::kUser:
      return "user";
    case StampSource::kImplausible:
      return "implausible";
  }
  return "unknown";
}

const char* ResolveErrorName(ResolveError error) {
  switch (error) {
    case ResolveError::kNone:
      return "none";
    case ResolveError::kNotFound:
      return "not_found";
    case ResolveError::kTimedOut:
      return "timed_out";
    case ResolveError::kFailed:
      return "failed";
  }
  return "unknown";
}

}  // namespace skorra_ntp
}  // namespace net
