// SPDX-License-Identifier: Apache-2.0

// An empty address ledger for as long as the object lives: what servers said in one world does not count in
// the next world of the same process.
#pragma once

#include "transport/ntp_address_ledger.h"

namespace skorra {

class FreshLedger {
 public:
  FreshLedger() { NtpAddressLedger::GetInstance()->Clear(); }
  ~FreshLedger() { NtpAddressLedger::GetInstance()->Clear(); }
  FreshLedger(const FreshLedger&) = delete;
  FreshLedger& operator=(const FreshLedger&) = delete;
};

}  // namespace skorra
