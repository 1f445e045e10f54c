#include "platform/net/datagram_socket.h"
#include "platform/net/host_resolver.h"

namespace net {

const char* SocketErrorName(SocketError error) {
  switch (error) {
    case SocketError::kNone:
      return "none";
    case SocketError::kRefused:
      return "refused";
    case SocketError::kUnreachable:
      return "unreachable";
    case SocketError::kNoResources:
      return "no_resources";
    case SocketError::kDenied:
      return "denied";
    case SocketError::kUnsupported:
      return "unsupported";
    case SocketError::kOther:
      return "other";
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

}  // namespace net
