// SPDX-License-Identifier: Apache-2.0

// The address ledger once more, in the simplest way: which calls for a request leave, and what counts for why
// the others do not. The walks' model of the manager and the fuzz target's model of the packet handler use
// it.
//
// It knows no packets, sockets, clocks or random numbers, and never forgets an address. Addresses are numbers
// that its user chooses.
#pragma once

#include <cstdint>
#include <map>
#include <optional>

#include "transport/ntp_address_ledger.h"

namespace skorra::model {

class LedgerModel {
 public:
  // What becomes of one call. A call that neither leaves nor is refused is thinned out.
  struct Verdict {
    bool leaves = false;
    SendRefusal refusal = SendRefusal::kNone;
  };

  Verdict Call(int address, int64_t now_ticks_us, int requests_per_burst = 20);
  // The request of such a call was handed to the system.
  void Sent(int address) { ++accounts_[address].counts.requests_sent; }
  void Answered(int address);
  // `bits` are random, for the jitter. False when the refusal is no news.
  bool Refused(int address, bool is_rate, int64_t now_ticks_us, uint64_t bits);

  void Closed(int address, int64_t now_ticks_us);
  bool WasClosed(int address, int64_t since_ticks_us) const;
  bool IsHeard(int address) const;
  bool IsSilent(int address, int64_t now_ticks_us) const;
  SendRefusal Check(int address, int64_t now_ticks_us) const;
  NtpAddressLedger::Counts Counts(int address) const;

 private:
  struct Burst {
    int64_t begin_ticks_us = 0;
    int calls = 0;
    int size = 0;  // requests that leave of 20 calls
    SendRefusal refusal = SendRefusal::kNone;
  };
  struct Account {
    std::optional<Burst> burst;
    std::optional<int64_t> last_asked_ticks_us;  // the beginning of the last burst that was not refused
    bool is_heard = false;                       // since then
    bool is_refused = false;                     // since then, whatever the refusal
    std::optional<int64_t> last_closed_ticks_us;
    int too_fast_count = 0;  // such bursts in a row
    bool was_ever_too_fast = false;
    std::optional<int64_t> closed_until_ticks_us;
    bool is_denied = false;  // why it is closed
    NtpAddressLedger::Counts counts;
  };

  static SendRefusal Check(const Account& account, int64_t now_ticks_us);

  std::map<int, Account> accounts_;
};

}  // namespace skorra::model
