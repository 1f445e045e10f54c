// SPDX-License-Identifier: Apache-2.0
#include "platform/net/datagram_socket.h"

#include <errno.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <asio/io_context.hpp>
#include <asio/posix/stream_descriptor.hpp>
#include <asio/post.hpp>
#include <cstring>
#include <map>
#include <optional>
#include <system_error>
#include <utility>
#include <vector>

#include "platform/base/clock.h"
#include "platform/base/fork.h"
#include "platform/linux/kernel_time_stamps.h"
#include "platform/linux/queue_context.h"

namespace net {
inline namespace skorra_ntp {

namespace {

// After this many datagrams in a row, the queue's tasks run first.
constexpr int kMaxDatagramsPerWakeUp = 64;
// After this many consecutive failed reads, stop until the next send: a permanent error would keep the loop
// spinning.
constexpr int kMaxFailedReads = 16;
// How often to retry a send interrupted by a signal.
constexpr int kMaxSignalsPerSend = 8;
// The most sends that wait for their time stamps, of which some never come; more than an attempt makes.
constexpr size_t kMaxUnstampedSends = 64;

SocketError ErrorFromErrno(int error) {
  switch (error) {
    case ECONNREFUSED:
      return SocketError::kRefused;
    case EHOSTUNREACH:
    case EHOSTDOWN:
      return SocketError::kHostUnreachable;
    case ENETUNREACH:
    case ENONET:
      return SocketError::kNetworkUnreachable;
    case ENETDOWN:
    case ENODEV:
      return SocketError::kNetworkDown;
    case EADDRNOTAVAIL:
      return SocketError::kNoAddress;
    case ENOBUFS:
    case ENOMEM:
      return SocketError::kNoBuffers;
    case EAGAIN:
      return SocketError::kWouldBlock;
    case EMFILE:
    case ENFILE:
      return SocketError::kNoDescriptors;
    case EINTR:
      return SocketError::kInterrupted;
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

}  // namespace

// Shared with the event loop's handlers: one may still be pending when the socket is destroyed.
struct DatagramSocket::Impl {
  struct State : std::enable_shared_from_this<State> {
    State(asio::io_context& loop, Callbacks functions)
        : context(loop), descriptor(loop), callbacks(std::move(functions)) {}

    // Returns an error number, or 0.
    int Open(const IPEndPoint& remote);
    // Does nothing when a wait has begun already.
    void WaitForDatagrams();
    void ReadDatagrams();
    // Delivers all send stamps, then one datagram or error. Returns false when nothing is left.
    bool ReadOne();
    // Delivers the datagram that was read, or `error` unless it is 0.
    void Deliver(int error, std::span<const uint8_t> bytes, const sockaddr_storage& source, msghdr& message,
                 int64_t read_ticks_us);
    // Takes the stamps from the error queue. Returns an error number, or 0 when there may be more.
    int TakeSendStamps(std::vector<internal::SendStamp>* stamps);
    void ReportSent(const internal::SendStamp& stamp);
    void ReportError(SocketError error);
    void ReportErrorLater(SocketError error);
    // Sends, and again after a signal. Returns an error number, or 0.
    int TrySend(std::span<const uint8_t> bytes);

    asio::io_context& context;
    asio::posix::stream_descriptor descriptor;
    Callbacks callbacks;
    internal::StampClock stamp_clock{internal::ReadClocks()};
    bool is_closed = false;
    int failed_reads = 0;     // in a row
    bool is_waiting = false;  // the event loop will call when there is something to read
    bool is_reading = true;   // false: not until the next send
    uint32_t next_send_id = 0;
    // While true, the kernel numbers the datagrams as we do. A failed send may use up a number or not: after
    // one, no send is stamped, rather than stamped with the time of another.
    bool has_send_numbers = false;
    std::map<uint32_t, int64_t> unstamped_send_ticks_us;  // by number; read immediately before each send
    // In a forked child the socket remains its parent's: the child sends and reads nothing through it, and
    // closes it without telling the event loop.
    const uint32_t fork_generation = base::ForkGeneration();
    std::shared_ptr<State> itself;  // set to keep it forever
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
  // The descriptor owns the socket now. Where the kernel gives no time stamps, we use our own.
  internal::RequestReceiveStamps(fd);
  has_send_numbers = callbacks.on_sent && internal::RequestSendStamps(fd);
  sockaddr_storage address;
  const socklen_t address_size = ToSockaddr(remote, &address);
  return connect(fd, reinterpret_cast<const sockaddr*>(&address), address_size) == 0 ? 0 : errno;
}

void DatagramSocket::Impl::State::WaitForDatagrams() {
  if (std::exchange(is_waiting, true)) {
    return;
  }
  // A message in the error queue ends this wait, too.
  descriptor.async_wait(asio::posix::stream_descriptor::wait_read,
                        [self = shared_from_this()](const std::error_code& error) {
                          self->is_waiting = false;
                          if (self->is_closed) {
                            return;
                          }
                          if (!error) {
                            self->ReadDatagrams();
                            return;
                          }
                          // Waiting failed; the next send starts it again.
                          self->is_reading = false;
                          self->ReportError(SocketError::kOther);
                        });
}

void DatagramSocket::Impl::State::ReadDatagrams() {
  for (int i = 0; i < kMaxDatagramsPerWakeUp && !is_closed && is_reading && ReadOne(); ++i) {
    if (failed_reads == kMaxFailedReads) {
      failed_reads = 0;
      is_reading = false;
    }
  }
  if (!is_closed && is_reading) {
    WaitForDatagrams();
  }
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
  const ssize_t size = recvmsg(descriptor.native_handle(), &message, 0);
  const int error = size < 0 ? errno : 0;
  const int64_t read_ticks_us = base::GetSteadyTimeTicks();

  // Read after the datagram: the stamp of a request is there when its reply is.
  std::vector<internal::SendStamp> send_stamps;
  const int stamps_error = TakeSendStamps(&send_stamps);
  stamp_clock.Observe(internal::ReadClocks());
  for (const internal::SendStamp& stamp : send_stamps) {
    ReportSent(stamp);
  }
  if (error != EAGAIN) {
    Deliver(error, std::span(buffer).first(static_cast<size_t>(std::max<ssize_t>(size, 0))), source, message,
            read_ticks_us);
  }
  if (stamps_error != 0 && stamps_error != EAGAIN) {
    ReportError(ErrorFromErrno(stamps_error));
  }
  const bool is_empty = error == EAGAIN && stamps_error == EAGAIN;
  if (is_empty) {
    stamp_clock.OnQueueDrained();
  }
  failed_reads = error == 0 || is_empty || !send_stamps.empty() ? 0 : failed_reads + 1;
  return !is_empty;
}

int DatagramSocket::Impl::State::TakeSendStamps(std::vector<internal::SendStamp>* stamps) {
  // At most one for each send that waits for its stamp.
  for (size_t i = 0; i < kMaxUnstampedSends; ++i) {
    alignas(cmsghdr) std::array<unsigned char, 256> control;
    msghdr message{};
    message.msg_control = control.data();
    message.msg_controllen = control.size();
    if (recvmsg(descriptor.native_handle(), &message, MSG_ERRQUEUE) < 0) {
      return errno;
    }
    if (const auto stamp = internal::SendStampOf(message)) {
      stamps->push_back(*stamp);
    }
  }
  return 0;
}

void DatagramSocket::Impl::State::ReportSent(const internal::SendStamp& stamp) {
  const auto send = unstamped_send_ticks_us.find(stamp.number);
  if (send == unstamped_send_ticks_us.end()) {
    return;
  }
  const std::optional<int64_t> send_ticks_us = stamp_clock.ToSteady(stamp.wall_us, send->second);
  unstamped_send_ticks_us.erase(send);
  if (send_ticks_us) {
    core::internal::RunHandler([&] { callbacks.on_sent(stamp.number, *send_ticks_us); });
  }
}

void DatagramSocket::Impl::State::Deliver(int error, std::span<const uint8_t> bytes,
                                          const sockaddr_storage& source, msghdr& message,
                                          int64_t read_ticks_us) {
  if (error != 0) {
    ReportError(ErrorFromErrno(error));
    return;
  }
  const internal::Arrival arrival = stamp_clock.ToArrival(internal::ReceiveStamp(message), read_ticks_us);
  const ReceivedDatagram datagram{.bytes = bytes,
                                  .source = FromSockaddr(source),
                                  .receive_ticks_us = arrival.ticks_us,
                                  .stamp_source = arrival.source,
                                  .is_truncated = (message.msg_flags & MSG_TRUNC) != 0};
  if (callbacks.on_datagram) {
    core::internal::RunHandler([&] { callbacks.on_datagram(datagram); });
  }
}

void DatagramSocket::Impl::State::ReportError(SocketError error) {
  if (callbacks.on_error) {
    core::internal::RunHandler([&] { callbacks.on_error(error); });
  }
}

void DatagramSocket::Impl::State::ReportErrorLater(SocketError error) {
  asio::post(context, [self = shared_from_this(), error] {
    if (!self->is_closed) {
      self->ReportError(error);
    }
  });
}

int DatagramSocket::Impl::State::TrySend(std::span<const uint8_t> bytes) {
  for (int signals = 0;; ++signals) {
    const int64_t before_ticks_us = base::GetSteadyTimeTicks();
    if (send(descriptor.native_handle(), bytes.data(), bytes.size(), MSG_NOSIGNAL) >= 0) {
      if (has_send_numbers) {
        unstamped_send_ticks_us.emplace(next_send_id, before_ticks_us);
        if (unstamped_send_ticks_us.size() > kMaxUnstampedSends) {
          unstamped_send_ticks_us.erase(unstamped_send_ticks_us.begin());
        }
      }
      return 0;
    }
    const int error = errno;
    has_send_numbers = false;
    if (error != EINTR || signals == kMaxSignalsPerSend) {
      return error;
    }
    ReportErrorLater(SocketError::kInterrupted);
  }
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
  Impl::State& state = *impl_->state;
  state.is_closed = true;
  // Unregister before closing: while a forked child holds the socket open, closing alone would leave it in
  // the event loop.
  const bool is_own = state.fork_generation == base::ForkGeneration();
  close(is_own ? state.descriptor.release() : state.descriptor.native_handle());
  if (!is_own) {
    // Never destroy it: asio's descriptor would unregister the socket from the parent's loop, and would close
    // the number again, which may belong to another file by then.
    state.itself = impl_->state;
  }
}

SocketError DatagramSocket::Send(std::span<const uint8_t> bytes, uint32_t* send_id) {
  Impl::State& state = *impl_->state;
  if (state.fork_generation != base::ForkGeneration()) {
    return SocketError::kOther;
  }
  if (!std::exchange(state.is_reading, true)) {
    state.WaitForDatagrams();
  }
  int error = state.TrySend(bytes);
  if (error != 0 && error != EINTR) {
    // A pending ICMP error is returned by the next send and cleared, and nothing is sent. Send again; an
    // error of this send would repeat.
    const int first_error = std::exchange(error, state.TrySend(bytes));
    if (error != first_error) {
      state.ReportErrorLater(ErrorFromErrno(first_error));
    }
  }
  if (error != 0) {
    return ErrorFromErrno(error);
  }
  if (send_id != nullptr) {
    *send_id = state.next_send_id;
  }
  ++state.next_send_id;
  return SocketError::kNone;
}

void DatagramSocket::StopReading() { impl_->state->is_reading = false; }

IPEndPoint DatagramSocket::local() const {
  sockaddr_storage address{};
  socklen_t size = sizeof address;
  getsockname(impl_->state->descriptor.native_handle(), reinterpret_cast<sockaddr*>(&address), &size);
  return FromSockaddr(address);
}

}  // namespace skorra_ntp
}  // namespace net
