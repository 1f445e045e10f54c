// SPDX-License-Identifier: Apache-2.0

// The one place that says what may leave: which calls for a request become requests, and until when a server
// address must not be asked.
//
//   if (NtpAddressLedger::GetInstance()->Admit(server, now_ticks_us, requests_per_burst)) {
//     ... send one request, then OnRequestSent(server) ...
//   }
//
// An address includes its port. The process has one ledger, so that two domains that share an address, and
// one attempt after another, are bound by what the server told any of them. Only a server that answers a
// request's nonce can bind us; an ICMP error or a silent network never does. They only change which of
// several addresses is asked next, and a closed port gets no retry.
//
// Bursts. The calls for an address form bursts, whatever domain or attempt they come from:
//   - A call begins a burst when the last burst began 1 s ago or more, or when that burst has had its 20
//     calls and began 195 ms ago or more. Every other call joins the burst under way.
//   - The number of requests of a burst, N, is fixed when it begins: what the caller asks for, at most 20,
//     and at most 8 for an address that ever sent RATE.
//   - Of the first 20 calls, N leave, evenly spread: call number c, counted from 0, when c * N modulo 20 is
//     less than N. The other calls are thinned out; so is every call after the 20th.
//   - An address that must not be asked when the burst begins gets none of its requests. A refusal that
//     comes during a burst ends it.
//
// Single requests (`AdmitSingle`) are no part of bursts: they neither begin one nor count as its calls, and
// their replies say nothing about it. So an address is asked and judged the same with them and without. But
// they leave only when a burst that began now would, and a refusal that answers one binds like any other.
//
// Refusals:
//   - RATE: wait 2 minutes, and twice as long after each further burst that ends so, up to 2 hours, plus up
//     to 25 % random jitter, so that many clients do not return together; at the cap the jitter is subtracted
//     instead (RFC 5905, section 7.4). A burst that was answered and not refused resets the wait. From the
//     first RATE on, bursts to the address are at least 2 minutes apart.
//   - DENY and RSTR: wait 4 hours. RATE never shortens this.
//
// Silence: an address is silent from 2 s after its last burst began, while no reply has come, for an hour.
//
// Counts (docs/counters.md): ntp.send_withheld.<reason> and ntp.send_thinned.
//
// Threads: any.
#pragma once

#include <cstddef>
#include <cstdint>
#include <limits>
#include <map>
#include <optional>

#include "platform/base/lock.h"
#include "platform/base/thread_annotations.h"
#include "platform/base/time.h"
#include "platform/net/ip_endpoint.h"
#include "transport/ntp_burst.h"
#include "transport/ntp_packet.h"

namespace skorra {

// Why an address is not asked now.
enum class SendRefusal {
  kNone,
  kBackOff,  // the server sent RATE
  kDenied,   // the server sent DENY or RSTR
  kTooSoon,  // it sent RATE at some time, and the last burst is too recent
};

// A stable name for counters: "back_off", "denied", "too_soon".
const char* SendRefusalName(SendRefusal refusal);

class NtpAddressLedger {
 public:
  static constexpr int64_t kFullBurstUs =
      kCallsPerBurst * kCallSpacingUs - kCallSpacingUs / 2;    // of a burst that has had its calls
  static constexpr int64_t kIdleBurstUs = base::kUsPerSecond;  // of a burst that has not

  static constexpr int64_t kFirstBackOffUs = 2 * 60 * base::kUsPerSecond;
  static constexpr int64_t kMaxBackOffUs = 2 * 60 * 60 * base::kUsPerSecond;
  static constexpr int64_t kDeniedUs = 4 * 60 * 60 * base::kUsPerSecond;
  static constexpr int64_t kBurstSpacingUs = 2 * 60 * base::kUsPerSecond;
  static constexpr uint32_t kLimitedBurst = 8;
  static constexpr int64_t kSilentAfterUs =
      2 * base::kUsPerSecond;  // 1.5 s is the longest round trip by default
  static constexpr int64_t kForgetSilenceUs = 60 * 60 * base::kUsPerSecond;
  // One address more evicts the least recently asked, preferring one that is not held. An address that may be
  // asked and whose burst is under way stays: evicted, it would get a second burst at once.
  static constexpr size_t kMaxAddresses = 256;

  // Since the process began.
  struct Counts {
    uint64_t requests_sent = 0;
    uint64_t requests_withheld = 0;  // calls that a refusal withheld
    uint64_t replies = 0;            // with a good nonce, used or not
    uint64_t kiss_codes = 0;         // of those, RATE, DENY and RSTR
  };

  static NtpAddressLedger* GetInstance();

  // One call for a request to `address`: whether the request may leave. Counts why when it may not.
  // `requests_per_burst`, 1 to 20, is used when the call begins a burst.
  bool Admit(const net::IPEndPoint& address, int64_t now_ticks_us, uint32_t requests_per_burst);
  // The same for a request outside bursts. It begins none and joins none.
  bool AdmitSingle(const net::IPEndPoint& address, int64_t now_ticks_us);
  // Whether a burst that began now would leave. Begins none.
  SendRefusal Check(const net::IPEndPoint& address, int64_t now_ticks_us) const;

  // An admitted request was handed to the system.
  void OnRequestSent(const net::IPEndPoint& address);
  // A reply with a good nonce came: to a request of a burst, or to a single one.
  void OnReply(const net::IPEndPoint& address);
  void OnSingleReply(const net::IPEndPoint& address);
  // The system reports that nobody listens on the port (ICMP; may be forged).
  void OnPortClosed(const net::IPEndPoint& address, int64_t now_ticks_us);
  // RATE, DENY or RSTR came with a good nonce; call it after `OnReply` for the same datagram. `random` is 64
  // random bits for the jitter. Returns false if the address was already held: the server refused requests
  // sent before its first refusal reached us.
  bool OnRefusal(const net::IPEndPoint& address, KissCode code, int64_t now_ticks_us, uint64_t random);

  // Whether a reply with a good nonce to a burst's request has come since the last admitted burst began.
  bool HasAnswered(const net::IPEndPoint& address) const;
  // Whether the last admitted burst brought no reply: ask other addresses first.
  bool IsSilent(const net::IPEndPoint& address, int64_t now_ticks_us) const;
  // Whether the port was reported closed at `since_ticks_us` or later, and since the last admitted burst
  // began, and no reply has come since then.
  bool WasClosedSince(const net::IPEndPoint& address, int64_t since_ticks_us) const;

  std::map<net::IPEndPoint, Counts> GetCounts() const;

  // Forgets everything. For simulations that play several worlds in one process: against real servers it
  // would break the promises made to them.
  void Clear();

 private:
  // Calls that belong together.
  struct Burst {
    int64_t begin_ticks_us = 0;
    uint32_t call_count = 0;
    uint32_t request_limit = 0;
    SendRefusal refusal = SendRefusal::kNone;
  };
  struct Account {
    Counts counts;
    std::optional<Burst> burst;  // the last one
    // When the last burst began that was not withheld.
    std::optional<int64_t> asked_ticks_us;
    bool has_answered = false;               // since then
    std::optional<int64_t> closed_ticks_us;  // the last report since then that the port is closed
    bool has_refused = false;                // since then
    uint32_t rate_count = 0;                 // bursts in a row that ended in RATE
    bool was_limited = false;                // it sent RATE at some time
    int64_t held_until_ticks_us = std::numeric_limits<int64_t>::min();
    SendRefusal held_for = SendRefusal::kNone;
  };

  static bool IsUnderWay(const Account& account, int64_t now_ticks_us);
  static SendRefusal Refusal(const Account& account, int64_t now_ticks_us);
  static void BeginBurst(Account& account, int64_t now_ticks_us, uint32_t request_limit);
  static int64_t BackOffUs(uint32_t earlier_rates, uint64_t random);
  Account& FindOrAdd(const net::IPEndPoint& address, int64_t now_ticks_us) SKORRA_REQUIRES(lock_);
  void MakeRoom(int64_t now_ticks_us) SKORRA_REQUIRES(lock_);

  mutable base::Lock lock_;
  std::map<net::IPEndPoint, Account> accounts_ SKORRA_GUARDED_BY(lock_);
  // Until then every address is busy, and looking for one to evict would be in vain.
  int64_t busy_until_ticks_us_ SKORRA_GUARDED_BY(lock_) = std::numeric_limits<int64_t>::min();
};

}  // namespace skorra
