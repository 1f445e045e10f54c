// SPDX-License-Identifier: Apache-2.0
#include "platform/net/host_resolver.h"

#include <ares.h>
#include <errno.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <poll.h>
#include <strings.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <cstring>
#include <limits>
#include <optional>
#include <string_view>
#include <utility>

#include "platform/base/callback.h"
#include "platform/base/clock.h"
#include "platform/base/environment.h"
#include "platform/base/fork.h"
#include "platform/base/location.h"
#include "platform/base/log.h"
#include "platform/core/thread_manager.h"
#include "platform/linux/name_lookup.h"

namespace net {
inline namespace skorra_ntp {

namespace {

constexpr char kLogFile[] = "platform/linux/host_resolver";

// How often to let c-ares check its own time-outs. It tells when the next one is due only in a `timeval`,
// whose layout on 32-bit Arm differs from the one that the installed library was built with.
constexpr int64_t kPollSliceUs = 20000;

// A lost question is repeated after 1/8 of the time allowed, but not later than after 5 s. Each further wait
// is twice as long as the one before; newer versions of c-ares take up to half of it off at random, and begin
// with 250 ms where the name server has answered other questions of the call.
constexpr int64_t kStepsPerTimeout = 8;
constexpr int64_t kLongestFirstStepMs = 5000;
constexpr int64_t kShortestFirstStepMs = 250;
constexpr int kMinTries = 4;  // 1/8, 1/8, 2/8 and 4/8 at the least

int64_t FirstStepMs(int64_t timeout_ms) {
  return std::clamp<int64_t>((timeout_ms + kStepsPerTimeout - 1) / kStepsPerTimeout, 1, kLongestFirstStepMs);
}

// So many that c-ares never gives a question up before the deadline: n waits last at least 2^(n-1) times as
// long as the first.
int CountTries(int64_t timeout_ms) {
  int tries = kMinTries;
  for (int64_t least_ms = kShortestFirstStepMs << (kMinTries - 1); least_ms < timeout_ms; least_ms *= 2) {
    ++tries;
  }
  return tries;
}

struct Lookup {
  const HostPort* host;
  size_t place;  // among the hosts of the call
  bool is_done = false;
  int status = ARES_SUCCESS;
  std::vector<IPEndPoint> addresses = {};
  base::TimeDelta ttl = base::TimeDelta::Max();
};

std::optional<IPEndPoint> FromNode(const ares_addrinfo_node& node, uint16_t port) {
  if (node.ai_family == AF_INET) {
    sockaddr_in address;
    std::memcpy(&address, node.ai_addr, sizeof address);
    std::array<uint8_t, 4> bytes;
    std::memcpy(bytes.data(), &address.sin_addr, bytes.size());
    return IPEndPoint::FromIPv4(bytes, port);
  }
  if (node.ai_family == AF_INET6) {
    sockaddr_in6 address;
    std::memcpy(&address, node.ai_addr, sizeof address);
    std::array<uint8_t, 16> bytes;
    std::memcpy(bytes.data(), &address.sin6_addr, bytes.size());
    return IPEndPoint::FromIPv6(bytes, port, address.sin6_scope_id);
  }
  return std::nullopt;
}

// The shortest time to live of the addresses and of the aliases that lead to them. A value with the highest
// bit set counts as 0 (RFC 2181, section 8).
base::TimeDelta ShortestTtl(const ares_addrinfo& info) {
  int ttl_s = std::numeric_limits<int>::max();
  for (const ares_addrinfo_node* node = info.nodes; node != nullptr; node = node->ai_next) {
    ttl_s = std::min(ttl_s, node->ai_ttl);
  }
  for (const ares_addrinfo_cname* alias = info.cnames; alias != nullptr; alias = alias->next) {
    ttl_s = std::min(ttl_s, alias->ttl);
  }
  return base::TimeDelta::FromSeconds(std::max(ttl_s, 0));
}

void OnLookupDone(void* argument, int status, int /*timeouts*/, ares_addrinfo* info) {
  auto& lookup = *static_cast<Lookup*>(argument);
  lookup.is_done = true;
  lookup.status = status;
  if (info == nullptr) {
    return;
  }
  lookup.ttl = ShortestTtl(*info);
  for (const ares_addrinfo_node* node = info->nodes; node != nullptr; node = node->ai_next) {
    const auto address = FromNode(*node, lookup.host->port);
    if (address &&
        std::find(lookup.addresses.begin(), lookup.addresses.end(), *address) == lookup.addresses.end()) {
      lookup.addresses.push_back(*address);
    }
  }
  ares_freeaddrinfo(info);
}

// Whether c-ares may read this file: it reads out of bounds on a line that starts with a NUL byte, and blocks
// on a FIFO.
bool IsText(const char* path) {
  const int fd = open(path, O_RDONLY | O_CLOEXEC | O_NONBLOCK);
  if (fd < 0) {
    return false;
  }
  struct stat status {};
  bool is_text = fstat(fd, &status) == 0 && S_ISREG(status.st_mode);
  std::array<char, 4096> buffer;
  while (is_text) {
    const ssize_t got = read(fd, buffer.data(), buffer.size());
    if (got <= 0) {
      is_text = got == 0;
      break;
    }
    is_text = std::memchr(buffer.data(), 0, static_cast<size_t>(got)) == nullptr;
  }
  close(fd);
  return is_text;
}

// Whether c-ares may look for an alias of a name without a dot: it would read the file that HOSTALIASES
// names.
bool MayUseAliases() {
  const auto path = base::GetEnvironmentVariable("HOSTALIASES");
  if (!path || IsText(path->c_str())) {
    return true;
  }
  static std::atomic<bool> is_logged{false};
  if (access(path->c_str(), F_OK) == 0 && !is_logged.exchange(true)) {
    base::LocalLog(base::kLogFailure, kLogFile, __LINE__,
                   "HOSTALIASES names '%s', which is no regular file of text that may be read; names are "
                   "looked up without aliases",
                   path->c_str());
  }
  return false;
}

// The exchange with the name servers for all lookups of one call; destroying the object ends it.
class Channel {
 public:
  Channel() = default;
  ~Channel() {
    if (channel_ != nullptr) {
      ares_destroy(channel_);
    }
  }
  Channel(const Channel&) = delete;
  Channel& operator=(const Channel&) = delete;

  // Returns an ARES_ status.
  int Open(base::TimeDelta timeout, const std::string& name_servers);
  // Runs `lookups`, all at the same time, until they are done or the steady clock reaches the deadline.
  void Run(std::vector<Lookup>& lookups, int64_t deadline_ticks_us);

 private:
  // c-ares reports what it waits for on one of its sockets; nothing means that it closes the socket.
  static void OnSocketState(void* channel, ares_socket_t socket, int is_reading, int is_writing);
  // Returns false if waiting failed.
  bool WaitAndProcess(int64_t wait_us);

  ares_channel channel_ = nullptr;
  std::vector<pollfd> sockets_;  // what to wait for
};

void Channel::OnSocketState(void* channel, ares_socket_t socket, int is_reading, int is_writing) {
  std::vector<pollfd>& sockets = static_cast<Channel*>(channel)->sockets_;
  std::erase_if(sockets, [socket](const pollfd& entry) { return entry.fd == socket; });
  const auto events = static_cast<short>((is_reading != 0 ? POLLIN : 0) | (is_writing != 0 ? POLLOUT : 0));
  if (events != 0) {
    sockets.push_back({socket, events, 0});
  }
}

int Channel::Open(base::TimeDelta timeout, const std::string& name_servers) {
  static const int library_status = ares_library_init(ARES_LIB_INIT_ALL);
  if (library_status != ARES_SUCCESS) {
    return library_status;
  }
  ares_options options{};
  options.timeout = static_cast<int>(FirstStepMs(timeout.InMilliseconds()));
  options.tries = CountTries(timeout.InMilliseconds());
  // The hosts file, then the name servers, whatever the system's order is.
  char both[] = "fb";
  char name_servers_only[] = "b";
  options.lookups = IsText("/etc/hosts") ? both : name_servers_only;
  // An unreadable file counts as empty: c-ares then asks a name server on this machine.
  char configuration[] = "/etc/resolv.conf";
  char empty[] = "/dev/null";
  options.resolvconf_path = IsText(configuration) ? configuration : empty;
  options.sock_state_cb = &Channel::OnSocketState;
  options.sock_state_cb_data = this;
  int used =
      ARES_OPT_TIMEOUTMS | ARES_OPT_TRIES | ARES_OPT_LOOKUPS | ARES_OPT_RESOLVCONF | ARES_OPT_SOCK_STATE_CB;
  if (!MayUseAliases()) {
    options.flags = ARES_FLAG_NOALIASES;
    used |= ARES_OPT_FLAGS;
  }
  const int status = ares_init_options(&channel_, &options, used);
  if (status != ARES_SUCCESS) {
    channel_ = nullptr;
    return status;
  }
  return name_servers.empty() ? ARES_SUCCESS : ares_set_servers_ports_csv(channel_, name_servers.c_str());
}

void Channel::Run(std::vector<Lookup>& lookups, int64_t deadline_ticks_us) {
  ares_addrinfo_hints hints{};
  hints.ai_family = AF_UNSPEC;
  hints.ai_socktype = SOCK_DGRAM;
  for (Lookup& lookup : lookups) {
    ares_getaddrinfo(channel_, lookup.host->host.c_str(), nullptr, &hints, OnLookupDone, &lookup);
    if (lookup.is_done) {
      // Only the hosts file answers at once. c-ares gives its addresses a time to live of 0, but they hold
      // until the file is edited.
      lookup.ttl = base::TimeDelta::Max();
    }
  }
  while (!std::all_of(lookups.begin(), lookups.end(), [](const Lookup& lookup) { return lookup.is_done; })) {
    const int64_t left_us = deadline_ticks_us - base::GetSteadyTimeTicks();
    if (left_us <= 0) {
      // Ends each lookup with what it has. Newer versions of c-ares drop the IPv6 addresses of a name whose
      // IPv4 question stays without an answer; they do not wait for the other family once IPv4 has answered.
      ares_cancel(channel_);
      return;
    }
    if (!WaitAndProcess(std::min(left_us, kPollSliceUs))) {
      ares_cancel(channel_);
      for (Lookup& lookup : lookups) {
        if (lookup.status == ARES_ECANCELLED) {
          lookup.status = ARES_ENOMEM;  // the only reason for which waiting for valid sockets fails
        }
      }
      return;
    }
  }
}

bool Channel::WaitAndProcess(int64_t wait_us) {
  std::vector<pollfd> entries = sockets_;  // a copy: the library changes the list while it processes
  {
    const base::ForkAllowedScope fork_allowed;
    if (poll(entries.data(), entries.size(), static_cast<int>((wait_us + 999) / 1000)) < 0) {
      if (errno != EINTR) {
        return false;
      }
      entries.clear();
    }
  }
  for (const pollfd& entry : entries) {
    const bool is_failed = (entry.revents & (POLLERR | POLLHUP)) != 0;
    const bool is_readable = is_failed || (entry.revents & POLLIN) != 0;
    const bool is_writable = (entry.revents & POLLOUT) != 0;
    ares_process_fd(channel_, is_readable ? entry.fd : ARES_SOCKET_BAD,
                    is_writable ? entry.fd : ARES_SOCKET_BAD);
  }
  ares_process_fd(channel_, ARES_SOCKET_BAD, ARES_SOCKET_BAD);  // time-outs
  return true;
}

// Names that never exist (RFC 6761, section 6.4): a query would only leak what was misconfigured.
bool IsInvalid(std::string_view host) {
  constexpr std::string_view kTopLevel = "invalid";
  if (host.ends_with('.')) {
    host.remove_suffix(1);
  }
  if (host.size() > kTopLevel.size() && host[host.size() - kTopLevel.size() - 1] != '.') {
    return false;
  }
  return host.size() >= kTopLevel.size() &&
         strncasecmp(host.data() + host.size() - kTopLevel.size(), kTopLevel.data(), kTopLevel.size()) == 0;
}

bool IsLocalhost(const std::string& host) {
  return strcasecmp(host.c_str(), "localhost") == 0 || strcasecmp(host.c_str(), "localhost.") == 0;
}

ResolveResult Fail(ResolveError error, std::string detail) {
  return {.error = error, .detail = std::move(detail)};
}

ResolveResult Explain(const std::string& host, int status, base::TimeDelta timeout) {
  const std::string name = '\'' + host + '\'';
  switch (status) {
    case ARES_SUCCESS:  // found, but no usable address
    case ARES_ENODATA:
    case ARES_ENOTFOUND:
    case ARES_EBADNAME:
      return Fail(ResolveError::kNotFound,
                  "the host name " + name + " does not exist or has no address; check its spelling");
    case ARES_ECANCELLED:
    case ARES_ETIMEOUT:
      return Fail(ResolveError::kTimedOut,
                  "no name server answered for " + name + " in time (at most " +
                      std::to_string(timeout.InMilliseconds()) +
                      " ms); check the network connection and the name servers in /etc/resolv.conf");
    default:
      return Fail(ResolveError::kFailed,
                  "the host name " + name + " could not be looked up (" + ares_strerror(status) +
                      "); check that /etc/resolv.conf names a working name server, or give an IP address");
  }
}

// What is known without a lookup; nothing for a name that must be looked up.
std::optional<ResolveResult> AnswerAtOnce(const std::string& host, uint16_t port, base::TimeDelta timeout) {
  if (const auto literal = IPEndPoint::FromLiteral(host, port)) {
    return ResolveResult{.addresses = {*literal}};
  }
  if (IsLocalhost(host)) {
    // Never asked of a name server (RFC 6761, section 6.3): not every hosts file has it.
    return ResolveResult{
        .addresses = {IPEndPoint::FromIPv4({127, 0, 0, 1}, port), *IPEndPoint::FromLiteral("::1", port)}};
  }
  if (host.empty() || IsInvalid(host)) {
    // A name server would take the empty name for the root of all names.
    return Explain(host, ARES_EBADNAME, timeout);
  }
  return std::nullopt;
}

// Ends every lookup, and says of each how.
void LookUp(std::vector<Lookup>& lookups, base::TimeDelta timeout, const std::string& name_servers) {
  const int64_t start_ticks_us = base::GetSteadyTimeTicks();
  Channel channel;
  if (const int status = channel.Open(timeout, name_servers); status != ARES_SUCCESS) {
    for (Lookup& lookup : lookups) {
      lookup.status = status;
    }
    return;
  }
  channel.Run(lookups, (base::TimeDelta::FromMicroseconds(start_ticks_us) + timeout).InMicroseconds());
}

}  // namespace

std::vector<ResolveResult> internal::LookUpHosts(const std::vector<HostPort>& hosts, base::TimeDelta timeout,
                                                 const std::string& name_servers) {
  std::vector<ResolveResult> results(hosts.size());
  std::vector<Lookup> lookups;
  for (size_t i = 0; i < hosts.size(); ++i) {
    if (auto answer = AnswerAtOnce(hosts[i].host, hosts[i].port, timeout)) {
      results[i] = std::move(*answer);
    } else {
      lookups.push_back({.host = &hosts[i], .place = i});
    }
  }
  if (lookups.empty()) {
    return results;
  }
  LookUp(lookups, timeout, name_servers);
  for (Lookup& lookup : lookups) {
    results[lookup.place] = lookup.addresses.empty()
                                ? Explain(lookup.host->host, lookup.status, timeout)
                                : ResolveResult{.addresses = std::move(lookup.addresses), .ttl = lookup.ttl};
  }
  return results;
}

std::vector<ResolveResult> ResolveHosts(const std::vector<HostPort>& hosts, base::TimeDelta timeout) {
  return internal::LookUpHosts(hosts, timeout, {});
}

void ResolveHostInBackground(const std::string& host, uint16_t port, base::TimeDelta timeout,
                             std::function<void(ResolveResult)> done) {
  const auto queue = core::ThreadManager::GetTaskQueue(core::BusinessID::kNames, -1, std::nullopt);
  queue->PostTask(base::Location::CreateFromHere(kLogFile, __LINE__),
                  base::BindOnce([host, port, timeout, done = std::move(done)] {
                    done(ResolveHost(host, port, timeout));
                  }));
}

}  // namespace skorra_ntp
}  // namespace net
