// SPDX-License-Identifier: Apache-2.0

// Storage for an object that lives until the process ends.
//
//   static base::NoDestructor<Registry> registry;
//   return registry.get();
//
// The object is built in place on first use and never destroyed, so a thread that still runs while the
// process exits cannot find it gone. Leak checkers see it: it stays reachable from static storage.
#pragma once

#include <new>
#include <utility>

namespace base {
inline namespace skorra_ntp {

template <class T>
class NoDestructor {
 public:
  template <class... Args>
  explicit NoDestructor(Args&&... args) {
    new (storage_) T(std::forward<Args>(args)...);
  }
  NoDestructor(const NoDestructor&) = delete;
  NoDestructor& operator=(const NoDestructor&) = delete;

  T* get() { return std::launder(reinterpret_cast<T*>(storage_)); }
  T& operator*() { return *get(); }
  T* operator->() { return get(); }

 private:
  alignas(T) unsigned char storage_[sizeof(T)];
};

}  // namespace skorra_ntp
}  // namespace base
