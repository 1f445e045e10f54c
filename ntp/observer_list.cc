// SPDX-License-Identifier: Apache-2.0
#include "ntp/observer_list.h"

#include <cstddef>

namespace skorra {

ObserverList::iterator FindObserver(ObserverList& observers, const NtpTimeManager::Observer* observer) {
  size_t position = 0;
  while (position < observers.size()) {
    const auto entry = observers.begin() + static_cast<ObserverList::difference_type>(position);
    const std::shared_ptr<NtpTimeManager::Observer> alive = entry->lock();
    if (alive == nullptr) {
      observers.erase(entry);
      position += 2;
    } else if (alive.get() == observer) {
      return entry;
    } else {
      ++position;
    }
  }
  return observers.end();
}

}  // namespace skorra
