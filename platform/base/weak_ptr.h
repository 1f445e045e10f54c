// SPDX-License-Identifier: Apache-2.0

// A pointer that knows when its object is gone.
//
//   class Sender {
//     base::WeakPtrOwner<Sender> weak_owner_{this};  // the last member: it is destroyed first
//    public:
//     base::WeakPtr<Sender> GetWeakPtr() { return weak_owner_.GetWeakPtr(); }
//   };
//
// Threads: a WeakPtr may be copied, moved, destroyed and tested on any thread. It is dereferenced, and its
// owner invalidated or destroyed, on one and the same task queue; elsewhere a true test could be stale by
// the time the pointer is used.
#pragma once

#include <atomic>
#include <memory>
#include <utility>

namespace base {
inline namespace skorra_ntp {

template <class T>
class WeakPtrOwner;

template <class T>
class WeakPtr {
 public:
  WeakPtr() = default;

  // The object, or null once its owner was destroyed.
  T* get() const { return alive_ && alive_->load(std::memory_order_acquire) ? object_ : nullptr; }
  T* operator->() const { return get(); }
  T& operator*() const { return *get(); }
  explicit operator bool() const { return get() != nullptr; }

 private:
  friend class WeakPtrOwner<T>;
  WeakPtr(T* object, std::shared_ptr<const std::atomic<bool>> alive)
      : object_(object), alive_(std::move(alive)) {}

  T* object_ = nullptr;
  std::shared_ptr<const std::atomic<bool>> alive_;
};

// Hands out weak pointers to `object` and invalidates them all when destroyed. Make it the last data member
// of the object, so that no weak pointer outlives a member that it could reach.
template <class T>
class WeakPtrOwner {
 public:
  explicit WeakPtrOwner(T* object) : object_(object) {}
  ~WeakPtrOwner() { alive_->store(false, std::memory_order_release); }
  WeakPtrOwner(const WeakPtrOwner&) = delete;
  WeakPtrOwner& operator=(const WeakPtrOwner&) = delete;

  WeakPtr<T> GetWeakPtr() const { return WeakPtr<T>(object_, alive_); }

 private:
  T* object_;
  std::shared_ptr<std::atomic<bool>> alive_ = std::make_shared<std::atomic<bool>>(true);
};

}  // namespace skorra_ntp
}  // namespace base
