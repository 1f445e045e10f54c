// SPDX-License-Identifier: Apache-2.0
// Plain UDP sockets on the host's loop. Both ends of an exchange are stamped here, next to the system calls:
// what the loop does meanwhile counts as delay, which costs accuracy and nothing else.
#include "platform/net/datagram_socket.h"

#include <errno.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cstring>
#include <utility>

#include "./host_loop.h"
#include "./host_queue.h"
#include "platform/base/clock.h"

namespace net {
inline namespace skorra_ntp {

namespace {

SocketError ErrorFromErrno(int error) {
  constexpr std::pair<int, SocketError> kKnown[] = {
      {ECONNREFUSED, SocketError::kRefused},
      {EHOSTUNREACH, SocketError::kHostUnreachable},
      {ENETUNREACH, SocketError::kNetworkUnreachable},
      {ENETDOWN, SocketError::kNetworkDown},
      {EADDRNOTAVAIL, SocketError::kNoAddress},
      {ENOBUFS, SocketError::kNoBuffers},
      {EAGAIN, SocketError::kWouldBlock},
      {EMFILE, SocketError::kNoDescriptors},
      {EINTR, SocketError::kInterrupted},
      {EACCES, SocketError::kDenied},
      {EPERM, SocketError::kDenied},
      {EAFNOSUPPORT, SocketError::kUnsupported},
  };
  for (const auto& [known, meaning] : kKnown) {
    if (error == known) {
      return meaning;
    }
  }
  return SocketError::kOther;
}

// Either family, as the system calls take it.
struct SocketAddress {
  SocketAddress() = default;
  explicit SocketAddress(const IPEndPoint& endpoint) {
    if (endpoint.family() == IPEndPoint::Family::kIPv4) {
      v4.sin_family = AF_INET;
      v4.sin_port = htons(endpoint.port());
      std::memcpy(&v4.sin_addr, endpoint.bytes().data(), sizeof v4.sin_addr);
      size = sizeof v4;
    } else {
      v6.sin6_family = AF_INET6;
      v6.sin6_port = htons(endpoint.port());
      v6.sin6_scope_id = endpoint.scope_id();
      std::memcpy(&v6.sin6_addr, endpoint.bytes().data(), sizeof v6.sin6_addr);
    }
  }

  IPEndPoint ToEndPoint() const {
    if (any.sa_family == AF_INET) {
      std::array<uint8_t, 4> bytes;
      std::memcpy(bytes.data(), &v4.sin_addr, bytes.size());
      return IPEndPoint::FromIPv4(bytes, ntohs(v4.sin_port));
    }
    std::array<uint8_t, 16> bytes;
    std::memcpy(bytes.data(), &v6.sin6_addr, bytes.size());
    return IPEndPoint::FromIPv6(bytes, ntohs(v6.sin6_port), v6.sin6_scope_id);
  }

  union {
    sockaddr any;
    sockaddr_in v4;
    sockaddr_in6 v6{};
  };
  socklen_t size = sizeof v6;
};

}  // namespace

struct DatagramSocket::Impl {
  ~Impl() {
    StopReading();
    close(fd);
  }

  int Open() {
    const SocketAddress address(remote);
    fd = socket(address.any.sa_family, SOCK_DGRAM, 0);
    if (fd < 0 || fcntl(fd, F_SETFL, O_NONBLOCK) != 0 || fcntl(fd, F_SETFD, FD_CLOEXEC) != 0) {
      return errno;
    }
    return connect(fd, &address.any, address.size) == 0 ? 0 : errno;
  }

  void StartReading() {
    HostLoop::Get().Watch(fd, [this] { RunOn(queue, [this] { ReadOne(); }); });
  }

  void StopReading() { HostLoop::Get().Unwatch(fd); }

  void ReadOne() {
    std::array<uint8_t, kMaxDatagramBytes + 1> buffer;  // the last byte tells a datagram that is too long
    const ssize_t received = recv(fd, buffer.data(), buffer.size(), 0);
    const int error = errno;
    const int64_t now_ticks_us = base::GetSteadyTimeTicks();
    if (received < 0) {
      if (error != EAGAIN && callbacks.on_error) {
        callbacks.on_error(ErrorFromErrno(error));
      }
      return;
    }
    const size_t size = std::min(static_cast<size_t>(received), kMaxDatagramBytes);
    if (callbacks.on_datagram) {
      callbacks.on_datagram({.bytes = std::span(buffer).first(size),
                             .source = remote,
                             .receive_ticks_us = now_ticks_us,
                             .is_truncated = static_cast<size_t>(received) > size});
    }
  }

  const IPEndPoint remote;
  const Callbacks callbacks;
  core::TaskQueue* const queue;  // never destroyed
  int fd = -1;
  uint32_t next_send_id = 0;
};

std::unique_ptr<DatagramSocket> DatagramSocket::Connect(const IPEndPoint& remote, Callbacks callbacks,
                                                        SocketError* error) {
  *error = SocketError::kOther;
  if (t_current_queue == nullptr || remote.address_empty()) {
    return nullptr;
  }
  std::unique_ptr<Impl> impl(new Impl{remote, std::move(callbacks), t_current_queue});
  if (const int status = impl->Open(); status != 0) {
    *error = ErrorFromErrno(status);
    return nullptr;
  }
  impl->StartReading();
  *error = SocketError::kNone;
  return std::unique_ptr<DatagramSocket>(new DatagramSocket(std::move(impl)));
}

DatagramSocket::DatagramSocket(std::unique_ptr<Impl> impl) : impl_(std::move(impl)) {}
DatagramSocket::~DatagramSocket() = default;

SocketError DatagramSocket::Send(std::span<const uint8_t> bytes, uint32_t* send_id) {
  impl_->StartReading();
  if (send(impl_->fd, bytes.data(), bytes.size(), 0) < 0) {
    return ErrorFromErrno(errno);
  }
  const uint32_t id = impl_->next_send_id++;
  if (send_id != nullptr) {
    *send_id = id;
  }
  return SocketError::kNone;
}

void DatagramSocket::StopReading() { impl_->StopReading(); }

IPEndPoint DatagramSocket::local() const {
  SocketAddress address;
  getsockname(impl_->fd, &address.any, &address.size);
  return address.ToEndPoint();
}

}  // namespace skorra_ntp
}  // namespace net
