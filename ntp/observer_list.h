// SPDX-License-Identifier: Apache-2.0
// The list of observers, in the order of their registration. An observer is known by its object's address.
#pragma once

#include <memory>
#include <vector>

#include "ntp/ntp_time_manager.h"

namespace skorra {

using ObserverList = std::vector<std::weak_ptr<NtpTimeManager::Observer>>;

// The first entry of `observer` that the scan meets, or the end. The caller guards the list.
//
// The scan erases an expired entry that it meets, and then passes over the two entries that followed it,
// neither compared nor erased: an observer that stands there is not found, and may so come to be listed
// twice. This is intended; ObserversTest (tests/ntp/observers_test.cc) holds it.
ObserverList::iterator FindObserver(ObserverList& observers, const NtpTimeManager::Observer* observer);

}  // namespace skorra
