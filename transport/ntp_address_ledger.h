// What this process owes each server address: how often it has asked, and until when it must not ask.
//
// An address is one with its port. One ledger for the process, so that two domains that share an address, and
// one attempt after another, are bound by what the server told any of them. Only a server that answers a
// request's nonce can bind us; an ICMP error or a silent network never does.
//
//   RATE        back off: 2 minutes at first, twice as long each further time, 2 hours at most, with up to
//               a quarter of that at random, so that many clients do not return together: added, or where
//               that would pass the cap subtracted from it (RFC 5905, section 7.4). A burst that was
//               answered without RATE begins it anew.
//   DENY, RSTR  ask nothing for 4 hours
//
// An address that sent RATE once, while it was not held already, is asked afterwards with bursts of at most 8
// requests, 2 minutes apart or more. What is held for DENY is not held less for RATE.
//
// Threads: any. Times are steady ticks in microseconds (base/clock.h).
#pragma once

#include <cstddef>
#include <cstdint>
#include <limits>
#include <map>
#include <optional>

#include "platform/base/lock.h"
#include "platform/base/time.h"
#include "platform/net/ip_endpoint.h"
#include "transport/ntp_packet.h"

namespace skorra {

// Why an address is not asked now.
enum class SendRefusal {
  kNone,
  kBackOff,  // the server sent RATE
  kParked,   // the server sent DENY or RSTR
  kSpacing,  // it sent RATE once, and the burst before is too recent
};

// A stable name for counters: "back_off", "parked", "spacing".
const char* SendRefusalName(SendRefusal refusal);

class NtpAddressLedger {
 public:
  static constexpr int64_t kFirstBackOffUs = 2 * 60 * base::kUsPerSecond;
  static constexpr int64_t kMaxBackOffUs = 2 * 60 * 60 * base::kUsPerSecond;
  static constexpr int64_t kParkedUs = 4 * 60 * 60 * base::kUsPerSecond;
  static constexpr int64_t kBurstSpacingUs = 2 * 60 * base::kUsPerSecond;
  static constexpr uint32_t kLimitedBurst = 8;
  // More addresses are not remembered: the one that was used longest ago makes room, one without an
  // obligation first.
  static constexpr size_t kMaxAddresses = 256;

  // Since the process began.
  struct Counts {
    uint64_t requests_sent = 0;
    uint64_t requests_refused = 0;  // by this ledger
    uint64_t replies = 0;           // with a good nonce, used or not
    uint64_t kisses = 0;            // of those, RATE, DENY and RSTR
  };

  static NtpAddressLedger* GetInstance();

  // What a burst that begins now may send: at most `*request_count` requests, which is lowered where the
  // address calls for it. With a refusal it is 0.
  SendRefusal BeginBurst(const net::IPEndPoint& address, int64_t now_us, uint32_t* request_count);
  // Whether a burst would be allowed; begins none.
  SendRefusal Check(const net::IPEndPoint& address, int64_t now_us) const;

  void OnRequestSent(const net::IPEndPoint& address);
  void OnRequestRefused(const net::IPEndPoint& address);
  // A reply with a good nonce.
  void OnReply(const net::IPEndPoint& address);
  // RATE, DENY or RSTR with a good nonce, after `OnReply` for the same datagram. `random` is 64 random bits
  // for the jitter. False when the address was held already: the server has not yet seen us obey.
  bool OnRefusal(const net::IPEndPoint& address, KissCode code, int64_t now_us, uint64_t random);

  // Whether anything with a good nonce came since the last burst began.
  bool HasAnswered(const net::IPEndPoint& address) const;

  std::map<net::IPEndPoint, Counts> GetCounts() const;

  // Forgets everything. For simulations that play one world after another in the same process: against real
  // servers it would break the promises made to them.
  void Clear();

 private:
  struct Account {
    Counts counts;
    std::optional<int64_t> burst_us;  // when the last burst began
    bool has_answered = false;        // since then
    bool has_refused = false;         // since then
    uint32_t rate_count = 0;          // bursts in a row that ended in RATE
    bool was_limited = false;         // it sent RATE at some time
    int64_t held_until_us = std::numeric_limits<int64_t>::min();
    SendRefusal held_for = SendRefusal::kNone;
  };

  static SendRefusal Refusal(const Account& account, int64_t now_us);
  static int64_t BackOffUs(uint32_t earlier_rates, uint64_t random);
  Account& FindOrAdd(const net::IPEndPoint& address, int64_t now_us);  // lock_ is held

  mutable base::Lock lock_;
  std::map<net::IPEndPoint, Account> accounts_;  // under lock_
};

}  // namespace skorra
