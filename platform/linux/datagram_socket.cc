// SPDX-License-Identifier: Apache-2.0
#include "platform/net/datagram_socket.h"

#include <errno.h>
#include <netinet/in.h>
#include <sys/epoll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cstring>
#include <map>
#include <optional>
#include <utility>
#include <vector>

#include "platform/base/clock.h"
#include "platform/base/fork.h"
#include "platform/linux/event_loop.h"
#include "platform/linux/kernel_time_stamps.h"
#include "platform/linux/queue_context.h"

namespace net {
inline namespace skorra_ntp {

namespace {

using core::internal::EventLoop;

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
    State(EventLoop& queue_loop, Callbacks functions) : loop(queue_loop), callbacks(std::move(functions)) {}

    // Returns an error number, or 0.
    int Open(const IPEndPoint& remote);
    // The event loop calls `OnReadable` while there is something to read. Returns an error number, or 0.
    int StartReading();
    void StopReading();
    void OnReadable(uint32_t events);
    // Delivers the send stamps, then one datagram or error. Returns false when nothing is left.
    bool ReadOne(bool has_messages);
    // Delivers the send stamps. Returns false if there are none.
    bool ReadSendStamps();
    // After a send, which most devices stamp at once: its stamp then ends no wait.
    void ReadSendStampsEarly();
    // Delivers the datagram that was read, or `error` unless it is 0.
    void Deliver(int error, std::span<const uint8_t> bytes, const sockaddr_storage& source, msghdr& message,
                 int64_t read_ticks_us);
    // Notes the clocks and delivers the stamps.
    void ReportSent(const std::vector<internal::SendStamp>& stamps);
    // Takes the stamps that are waited for from the error queue. Returns an error number, or 0 when there may
    // be more messages.
    int TakeSendStamps(std::vector<internal::SendStamp>* stamps);
    void ReportError(SocketError error);
    void ReportErrorLater(SocketError error);
    // Sends, and again after a signal. Returns an error number, or 0.
    int TrySend(std::span<const uint8_t> bytes);

    EventLoop& loop;
    int fd = -1;
    Callbacks callbacks;
    internal::StampClock stamp_clock{internal::ReadClocks()};
    bool is_closed = false;
    int failed_reads = 0;     // in a row
    bool is_reading = false;  // false: not until the next send
    uint32_t next_send_id = 0;
    // While true, the kernel numbers the datagrams as we do. A failed send may use up a number or not: after
    // one, no send is stamped, rather than stamped with the time of another.
    bool has_send_numbers = false;
    std::map<uint32_t, int64_t> unstamped_send_ticks_us;  // by number; read immediately before each send
    std::vector<internal::SendStamp> early_stamps;        // read, but not delivered yet
    // In a forked child the socket remains its parent's: the child sends and reads nothing through it, and
    // closes it without telling the event loop.
    const uint32_t fork_generation = base::ForkGeneration();
  };

  std::shared_ptr<State> state;
};

int DatagramSocket::Impl::State::Open(const IPEndPoint& remote) {
  const int family = remote.family() == IPEndPoint::Family::kIPv4 ? AF_INET : AF_INET6;
  fd = socket(family, SOCK_DGRAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
  if (fd < 0) {
    return errno;
  }
  // Where the kernel gives no time stamps, we use our own.
  internal::RequestReceiveStamps(fd);
  has_send_numbers = callbacks.on_sent && internal::RequestSendStamps(fd);
  sockaddr_storage address;
  const socklen_t address_size = ToSockaddr(remote, &address);
  if (connect(fd, reinterpret_cast<const sockaddr*>(&address), address_size) != 0) {
    return errno;
  }
  const int error = StartReading();
  return error == EPERM ? 0 : error;  // a sandbox: the socket says so after each send
}

int DatagramSocket::Impl::State::StartReading() {
  if (is_reading) {
    return 0;
  }
  const int error = loop.Watch(fd, EventLoop::When::kReadable,
                               [self = shared_from_this()](uint32_t events) { self->OnReadable(events); });
  is_reading = error == 0;
  if (error != 0) {
    ReportErrorLater(SocketError::kOther);
  }
  return error;
}

void DatagramSocket::Impl::State::StopReading() {
  if (std::exchange(is_reading, false)) {
    loop.Unwatch(fd);
  }
}

// The event loop calls again while there is something to read, so that nobody has to find out that nothing
// is. Only the clock must know that, after a step.
void DatagramSocket::Impl::State::OnReadable(uint32_t events) {
  if (events == EPOLLERR && ReadSendStamps()) {
    return;
  }
  bool has_messages = (events & EPOLLERR) != 0;
  for (int i = 0; i < kMaxDatagramsPerWakeUp && is_reading && ReadOne(has_messages); ++i) {
    if (failed_reads == kMaxFailedReads) {
      failed_reads = 0;
      StopReading();
    }
    if (!stamp_clock.may_predate_step()) {
      return;
    }
    has_messages = true;
  }
}

bool DatagramSocket::Impl::State::ReadSendStamps() {
  std::vector<internal::SendStamp> stamps;
  TakeSendStamps(&stamps);
  if (stamps.empty()) {
    return false;
  }
  ReportSent(stamps);
  failed_reads = 0;
  return true;
}

void DatagramSocket::Impl::State::ReadSendStampsEarly() {
  if (!is_reading || unstamped_send_ticks_us.size() > early_stamps.size() + 1) {
    return;  // here they come later
  }
  std::vector<internal::SendStamp> stamps;
  TakeSendStamps(&stamps);
  early_stamps = std::move(stamps);
  if (!early_stamps.empty()) {
    loop.Defer([self = shared_from_this()] {
      if (!self->is_closed) {
        self->ReportSent(std::exchange(self->early_stamps, {}));
      }
    });
  }
}

bool DatagramSocket::Impl::State::ReadOne(bool has_messages) {
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
  const ssize_t size = recvmsg(fd, &message, 0);
  const int error = size < 0 ? errno : 0;
  const int64_t read_ticks_us = base::GetSteadyTimeTicks();

  // Read after the datagram: the stamp of a request is there when its reply is.
  std::vector<internal::SendStamp> send_stamps;
  const bool may_have_stamps = has_messages || !unstamped_send_ticks_us.empty();
  const int stamps_error = may_have_stamps ? TakeSendStamps(&send_stamps) : EAGAIN;
  ReportSent(send_stamps);
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
  *stamps = std::exchange(early_stamps, {});
  // One for each send that waits for its stamp.
  const size_t max_messages = std::max<size_t>(unstamped_send_ticks_us.size(), 1);
  for (size_t i = stamps->size(); i < max_messages; ++i) {
    // An emulated program gets no messages without room for a payload, and no error either.
    uint8_t payload = 0;
    iovec part{&payload, 1};
    alignas(cmsghdr) std::array<unsigned char, 256> control;
    msghdr message{};
    message.msg_iov = &part;
    message.msg_iovlen = 1;
    message.msg_control = control.data();
    message.msg_controllen = control.size();
    if (recvmsg(fd, &message, MSG_ERRQUEUE) < 0) {
      return errno;
    }
    if (const auto stamp = internal::SendStampOf(message)) {
      stamps->push_back(*stamp);
    }
  }
  return 0;
}

void DatagramSocket::Impl::State::ReportSent(const std::vector<internal::SendStamp>& stamps) {
  stamp_clock.Observe(internal::ReadClocks());
  for (const internal::SendStamp& stamp : stamps) {
    const auto send = unstamped_send_ticks_us.find(stamp.number);
    if (send == unstamped_send_ticks_us.end()) {
      continue;
    }
    const std::optional<int64_t> send_ticks_us = stamp_clock.ToSteady(stamp.wall_us, send->second);
    unstamped_send_ticks_us.erase(send);
    if (send_ticks_us) {
      core::internal::RunHandler([&] { callbacks.on_sent(stamp.number, *send_ticks_us); });
    }
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
  loop.Defer([self = shared_from_this(), error] {
    if (!self->is_closed) {
      self->ReportError(error);
    }
  });
}

int DatagramSocket::Impl::State::TrySend(std::span<const uint8_t> bytes) {
  for (int signals = 0;; ++signals) {
    const int64_t before_ticks_us = base::GetSteadyTimeTicks();
    if (send(fd, bytes.data(), bytes.size(), MSG_NOSIGNAL) >= 0) {
      if (has_send_numbers) {
        unstamped_send_ticks_us.emplace(next_send_id, before_ticks_us);
        if (unstamped_send_ticks_us.size() > kMaxUnstampedSends) {
          unstamped_send_ticks_us.erase(unstamped_send_ticks_us.begin());
        }
        ReadSendStampsEarly();
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
  EventLoop* const loop = core::internal::CurrentEventLoop();
  if (loop == nullptr || remote.address_empty()) {
    *error = SocketError::kOther;
    return nullptr;
  }
  auto state = std::make_shared<Impl::State>(*loop, std::move(callbacks));
  if (const int status = state->Open(remote); status != 0) {
    state->is_closed = true;
    if (state->fd >= 0) {
      close(state->fd);
    }
    *error = ErrorFromErrno(status);
    return nullptr;
  }
  *error = SocketError::kNone;
  return std::unique_ptr<DatagramSocket>(new DatagramSocket(std::make_unique<Impl>(Impl{std::move(state)})));
}

DatagramSocket::DatagramSocket(std::unique_ptr<Impl> impl) : impl_(std::move(impl)) {}

DatagramSocket::~DatagramSocket() {
  Impl::State& state = *impl_->state;
  state.is_closed = true;
  if (state.fork_generation == base::ForkGeneration()) {
    state.StopReading();
  }
  close(state.fd);
}

SocketError DatagramSocket::Send(std::span<const uint8_t> bytes, uint32_t* send_id) {
  Impl::State& state = *impl_->state;
  if (state.fork_generation != base::ForkGeneration()) {
    return SocketError::kOther;
  }
  state.StartReading();
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

void DatagramSocket::StopReading() { impl_->state->StopReading(); }

IPEndPoint DatagramSocket::local() const {
  sockaddr_storage address{};
  socklen_t size = sizeof address;
  getsockname(impl_->state->fd, reinterpret_cast<sockaddr*>(&address), &size);
  return FromSockaddr(address);
}

}  // namespace skorra_ntp
}  // namespace net
