// SPDX-License-Identifier: Apache-2.0
#include "testing/loopback_udp.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cstring>

#include "testing/addresses.h"

namespace skorra {
namespace {

using Family = net::IPEndPoint::Family;

struct SocketAddress {
  sockaddr_storage storage{};
  socklen_t size = 0;

  const sockaddr* get() const { return reinterpret_cast<const sockaddr*>(&storage); }
  sockaddr* get() { return reinterpret_cast<sockaddr*>(&storage); }
};

SocketAddress ToAddress(const net::IPEndPoint& endpoint) {
  SocketAddress address;
  if (endpoint.family() == Family::kIPv6) {
    sockaddr_in6 in6{};
    in6.sin6_family = AF_INET6;
    in6.sin6_port = htons(endpoint.port());
    std::memcpy(&in6.sin6_addr, endpoint.bytes().data(), 16);
    std::memcpy(&address.storage, &in6, sizeof in6);
    address.size = sizeof in6;
  } else {
    sockaddr_in in{};
    in.sin_family = AF_INET;
    in.sin_port = htons(endpoint.port());
    std::memcpy(&in.sin_addr, endpoint.bytes().data(), 4);
    std::memcpy(&address.storage, &in, sizeof in);
    address.size = sizeof in;
  }
  return address;
}

net::IPEndPoint ToEndPoint(const SocketAddress& address) {
  if (address.storage.ss_family == AF_INET6) {
    sockaddr_in6 in6{};
    std::memcpy(&in6, &address.storage, sizeof in6);
    std::array<uint8_t, 16> bytes{};
    std::memcpy(bytes.data(), &in6.sin6_addr, bytes.size());
    return net::IPEndPoint::FromIPv6(bytes, ntohs(in6.sin6_port));
  }
  sockaddr_in in{};
  std::memcpy(&in, &address.storage, sizeof in);
  std::array<uint8_t, 4> bytes{};
  std::memcpy(bytes.data(), &in.sin_addr, bytes.size());
  return net::IPEndPoint::FromIPv4(bytes, ntohs(in.sin_port));
}

net::IPEndPoint BoundEndPoint(int fd) {
  SocketAddress address;
  address.size = sizeof address.storage;
  getsockname(fd, address.get(), &address.size);
  return ToEndPoint(address);
}

}  // namespace

LoopbackUdp::LoopbackUdp(Family family) : LoopbackUdp(AnyLoopbackPort(family)) {}

LoopbackUdp::LoopbackUdp(const net::IPEndPoint& address)
    : fd_(socket(address.family() == Family::kIPv6 ? AF_INET6 : AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0)) {
  const SocketAddress wanted = ToAddress(address);
  if (fd_ >= 0 && bind(fd_, wanted.get(), wanted.size) != 0) {
    close(fd_);
    fd_ = -1;
  }
  if (fd_ >= 0) {
    local_ = BoundEndPoint(fd_);
  }
}

LoopbackUdp::~LoopbackUdp() {
  if (fd_ >= 0) {
    close(fd_);
  }
}

bool LoopbackUdp::SendTo(const net::IPEndPoint& to, std::span<const uint8_t> bytes) const {
  const SocketAddress address = ToAddress(to);
  return sendto(fd_, bytes.data(), bytes.size(), 0, address.get(), address.size) ==
         static_cast<ssize_t>(bytes.size());
}

std::optional<std::vector<uint8_t>> LoopbackUdp::Receive(int timeout_ms, net::IPEndPoint* source) const {
  pollfd readable{fd_, POLLIN, 0};
  if (poll(&readable, 1, timeout_ms) != 1) {
    return std::nullopt;
  }
  std::vector<uint8_t> bytes(2048);
  SocketAddress sender;
  sender.size = sizeof sender.storage;
  const ssize_t size = recvfrom(fd_, bytes.data(), bytes.size(), MSG_DONTWAIT, sender.get(), &sender.size);
  if (size < 0) {
    return std::nullopt;
  }
  bytes.resize(static_cast<size_t>(size));
  if (source != nullptr) {
    *source = ToEndPoint(sender);
  }
  return bytes;
}

net::IPEndPoint UnusedEndPoint(Family family) { return LoopbackUdp(family).local(); }

}  // namespace skorra
