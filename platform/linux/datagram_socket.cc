#include "platform/net/datagram_socket.h"

#include <errno.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <asio/io_context.hpp>
#include <asio/posix/stream_descriptor.hpp>
#include <asio/post.hpp>
#include <cstdlib>
#include <cstring>
#include <optional>
#include <system_error>
#include <utility>

#include "platform/base/clock.h"
#include "platform/base/time.h"
#include "platform/linux/queue_context.h"

namespace net {

namespace {

// Longer than any NTP packet in use, so that one with extension fields comes through whole.
constexpr size_t kMaxDatagramBytes = 1024;
// After this many datagrams in a row the queue's tasks get their turn.
constexpr int kMaxDatagramsPerWakeUp = 64;
// The wall clock has been set when it moved further than this against the steady one since the last look.
// Below it lie frequency corrections and the uncertainty of reading both clocks.
constexpr int64_t kWallStepUs = 10000;

SocketError ErrorFromErrno(int error) {
  switch (error) {
    case ECONNREFUSED:
      return SocketError::kRefused;
    case ENETUNREACH:
    case EHOSTUNREACH:
    case ENETDOWN:
    case EHOSTDOWN:
    case ENONET:
    case ENODEV:
    case EADDRNOTAVAIL:  // there is no local address of the family to send from
      return SocketError::kUnreachable;
    case EAGAIN:  // of send: the buffer is full; of connect: no port is free
    case ENOBUFS:
    case ENOMEM:
    case EMFILE:
    case ENFILE:
      return SocketError::kNoResources;
    case EACCES:
    case EPERM:
      return SocketError::kDenied;
    case EAFNOSUPPORT:
    case EPFNOSUPPORT:
    case EPROTONOSUPPORT:
      return SocketError::kUnsupported;
    default:
      return SocketError::kOther;
  }
}

socklen_t ToSockaddr(const IPEndPoint& endpoint, sockaddr_storage* storage) {
  *storage = {};
  if (endpoint.family() == IPEndPoint::Family::kIPv4) {
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(endpoint.port());
    std::memcpy(&address.sin_addr, endpoint.bytes().data(), sizeof address.sin_addr);
    std::memcpy(storage, &address, sizeof address);
    return sizeof address;
  }
  sockaddr_in6 address{};
  address.sin6_family = AF_INET6;
  address.sin6_port = htons(endpoint.port());
  address.sin6_scope_id = endpoint.scope_id();
  std::memcpy(&address.sin6_addr, endpoint.bytes().data(), sizeof address.sin6_addr);
  std::memcpy(storage, &address, sizeof address);
  return sizeof address;
}

IPEndPoint FromSockaddr(const sockaddr_storage& storage) {
  if (storage.ss_family == AF_INET) {
    sockaddr_in address;
    std::memcpy(&address, &storage, sizeof address);
    std::array<uint8_t, 4> bytes;
    std::memcpy(bytes.data(), &address.sin_addr, bytes.size());
    return IPEndPoint::FromIPv4(bytes, ntohs(address.sin_port));
  }
  if (storage.ss_family == AF_INET6) {
    sockaddr_in6 address;
    std::memcpy(&address, &storage, sizeof address);
    std::array<uint8_t, 16> bytes;
    std::memcpy(bytes.data(), &address.sin6_addr, bytes.size());
    return IPEndPoint::FromIPv6(bytes, ntohs(address.sin6_port), address.sin6_scope_id);
  }
  return {};
}

// The kernel's receive time stamp, wall-clock microseconds since 1601.
std::optional<int64_t> KernelReceiveTime(msghdr& message) {
  for (cmsghdr* header = CMSG_FIRSTHDR(&message); header != nullptr; header = CMSG_NXTHDR(&message, header)) {
    if (header->cmsg_level == SOL_SOCKET && header->cmsg_type == SCM_TIMESTAMPNS &&
        header->cmsg_len >= CMSG_LEN(sizeof(timespec))) {
      timespec stamp;
      std::memcpy(&stamp, CMSG_DATA(header), sizeof stamp);
      return static_cast<int64_t>(stamp.tv_sec) * 1000000 + stamp.tv_nsec / 1000 +
             base::kWindowsToUnixEpochUs;
    }
  }
  return std::nullopt;
}

// Maps the kernel's time stamps, which are of the wall clock, to the steady clock. However long a datagram
// had to wait for a busy queue, its stamp is good, unless the wall clock was set meanwhile.
class ArrivalClock {
 public:
  // Steady ticks of the arrival of a datagram that was read just now.
  int64_t ArrivalTicks(std::optional<int64_t> kernel_wall_us) {
    const int64_t last_offset_us = std::exchange(offset_us_, base::GetSystemTimeOffsetFromSteady());
    const int64_t now_us = base::GetSteadyTimeTicks();
    if (!kernel_wall_us || std::abs(offset_us_ - last_offset_us) > kWallStepUs) {
      return now_us;
    }
    return std::min(now_us, *kernel_wall_us - offset_us_);
  }

 private:
  int64_t offset_us_ = base::GetSystemTimeOffsetFromSteady();
};

}  // namespace

// Shared with the event loop's handlers, of which one may still be on its way when the socket is destroyed.
struct DatagramSocket::Impl {
  struct State : std::enable_shared_from_this<State> {
    State(asio::io_context& loop, Callbacks functions)
        : context(loop), descriptor(loop), callbacks(std::move(functions)) {}

    // An error number, or 0.
    int Open(const IPEndPoint& remote);
    void WaitForDatagrams();
    void ReadDatagrams();
    // Delivers one datagram or error; false when there is none left.
    bool ReadOne();
    void ReportErrorLater(SocketError error);

    asio::io_context& context;
    asio::posix::stream_descriptor descriptor;
    Callbacks callbacks;
    ArrivalClock arrival_clock;
    bool is_closed = false;
  };

  std::shared_ptr<State> state;
};

int DatagramSocket::Impl::State::Open(const IPEndPoint& remote) {
  const int family = remote.family() == IPEndPoint::Family::kIPv4 ? AF_INET : AF_INET6;
  const int fd = socket(family, SOCK_DGRAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
  if (fd < 0) {
    return errno;
  }
  std::error_code error;
  descriptor.assign(fd, error);
  if (error) {
    close(fd);
    return error.value();
  }
  // From here on the descriptor closes it. Without time stamps the moment of reading must do.
  const int on = 1;
  setsockopt(fd, SOL_SOCKET, SO_TIMESTAMPNS, &on, sizeof on);
  sockaddr_storage address;
  const socklen_t address_size = ToSockaddr(remote, &address);
  return connect(fd, reinterpret_cast<const sockaddr*>(&address), address_size) == 0 ? 0 : errno;
}

void DatagramSocket::Impl::State::WaitForDatagrams() {
  descriptor.async_wait(asio::posix::stream_descriptor::wait_read,
                        [self = shared_from_this()](const std::error_code& error) {
                          if (!error && !self->is_closed) {
                            self->ReadDatagrams();
                          }
                        });
}

void DatagramSocket::Impl::State::ReadDatagrams() {
  for (int i = 0; i < kMaxDatagramsPerWakeUp; ++i) {
    if (!ReadOne()) {
      break;
    }
    if (is_closed) {
      return;
    }
  }
  WaitForDatagrams();
}

bool DatagramSocket::Impl::State::ReadOne() {
  std::array<uint8_t, kMaxDatagramBytes> buffer;
  alignas(cmsghdr) std::array<unsigned char, 256> control;
  sockaddr_storage source;
  iovec part{buffer.data(), buffer.size()};
  msghdr message{};
  message.msg_name = &source;
  message.msg_namelen = sizeof source;
  message.msg_iov = &part;
  message.msg_iovlen = 1;
  message.msg_control = control.data();
  message.msg_controllen = control.size();
  ssize_t size = 0;
  do {
    size = recvmsg(descriptor.native_handle(), &message, 0);
  } while (size < 0 && errno == EINTR);
  if (size >= 0) {
    const ReceivedDatagram datagram{std::span(buffer).first(static_cast<size_t>(size)), FromSockaddr(source),
                                    arrival_clock.ArrivalTicks(KernelReceiveTime(message))};
    if (callbacks.on_datagram) {
      callbacks.on_datagram(datagram);
    }
    return true;
  }
  if (errno == EAGAIN) {
    return false;
  }
  const SocketError error = ErrorFromErrno(errno);
  if (callbacks.on_error) {
    callbacks.on_error(error);
  }
  return true;
}

void DatagramSocket::Impl::State::ReportErrorLater(SocketError error) {
  asio::post(context, [self = shared_from_this(), error] {
    if (!self->is_closed && self->callbacks.on_error) {
      self->callbacks.on_error(error);
    }
  });
}

std::unique_ptr<DatagramSocket> DatagramSocket::Connect(const IPEndPoint& remote, Callbacks callbacks,
                                                        SocketError* error) {
  asio::io_context* const context = core::internal::CurrentQueueContext();
  if (context == nullptr || remote.address_empty()) {
    *error = SocketError::kOther;
    return nullptr;
  }
  auto state = std::make_shared<Impl::State>(*context, std::move(callbacks));
  if (const int status = state->Open(remote); status != 0) {
    *error = ErrorFromErrno(status);
    return nullptr;
  }
  state->WaitForDatagrams();
  *error = SocketError::kNone;
  return std::unique_ptr<DatagramSocket>(new DatagramSocket(std::make_unique<Impl>(Impl{std::move(state)})));
}

DatagramSocket::DatagramSocket(std::unique_ptr<Impl> impl) : impl_(std::move(impl)) {}

DatagramSocket::~DatagramSocket() {
  impl_->state->is_closed = true;
  std::error_code ignored;
  impl_->state->descriptor.close(ignored);
}

SocketError DatagramSocket::Send(std::span<const uint8_t> bytes) {
  Impl::State& state = *impl_->state;
  const int fd = state.descriptor.native_handle();
  bool may_repeat = true;
  while (send(fd, bytes.data(), bytes.size(), MSG_NOSIGNAL) < 0) {
    const int error = errno;
    if (error == EINTR) {
      continue;
    }
    if (error != ECONNREFUSED || !may_repeat) {
      return ErrorFromErrno(error);
    }
    // The system hands us the fate of an earlier datagram and has not sent this one.
    state.ReportErrorLater(ErrorFromErrno(error));
    may_repeat = false;
  }
  return SocketError::kNone;
}

IPEndPoint DatagramSocket::local() const {
  sockaddr_storage address{};
  socklen_t size = sizeof address;
  getsockname(impl_->state->descriptor.native_handle(), reinterpret_cast<sockaddr*>(&address), &size);
  return FromSockaddr(address);
}

}  // namespace net
