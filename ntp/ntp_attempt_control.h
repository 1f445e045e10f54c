// SPDX-License-Identifier: Apache-2.0
// What clock/ may ask of the time manager beyond its public operations. Not a public header.
//
// Any thread. `manager` is the process's manager, or one that a test made: both are of the one
// implementation.
#pragma once

#include "ntp/ntp_time_manager.h"

namespace skorra::internal {

// Begins an attempt whatever the kept result's age: `Start` announces a fresh one again instead. It is not
// counted as a call of `Start`. Returns 0, or -1 with nothing changed when an attempt is requested already.
int RequestNtpAttempt(NtpTimeManager& manager);

// Whether an attempt has been requested that has had neither its outcome nor a stop. While it is so, `Start`
// and `RequestNtpAttempt` return -1.
bool IsNtpAttemptRequested(const NtpTimeManager& manager);

}  // namespace skorra::internal
