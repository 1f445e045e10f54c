// SPDX-License-Identifier: Apache-2.0

// A closure that runs at most once, and the binder that makes one.
//
//   queue->PostTask(location, base::BindOnce(&Manager::DoWork, base::Unretained(this), domain));
//   queue->PostTask(location, base::BindOnce(&Sender::Send, sender->GetWeakPtr(), endpoint));
//
// Bound arguments are copied (or moved) into the closure when it is made. A receiver bound with
// `Unretained` is a plain pointer: the caller guarantees that it outlives the task. A receiver bound as a
// `WeakPtr` cancels the closure once the pointer is invalid: running it then does nothing, and `IsCancelled`
// tells so beforehand.
#pragma once

#include <functional>
#include <memory>
#include <tuple>
#include <type_traits>
#include <utility>

#include "../base/weak_ptr.h"

namespace base {
inline namespace skorra_ntp {

template <class Signature>
class OnceCallback;

namespace internal {

// What a closure holds; one virtual object per bound closure.
class BoundState {
 public:
  virtual ~BoundState() = default;
  virtual void Run() = 0;
  virtual bool IsCancelled() const = 0;
};

}  // namespace internal

// Move-only. Not thread-safe by itself; it may be made on one thread and run on another.
template <>
class OnceCallback<void()> {
 public:
  OnceCallback() = default;
  explicit OnceCallback(std::unique_ptr<internal::BoundState> state) : state_(std::move(state)) {}
  OnceCallback(OnceCallback&&) = default;
  OnceCallback& operator=(OnceCallback&&) = default;

  explicit operator bool() const { return state_ != nullptr; }

  // True when running would do nothing: already run, never bound, or its weak receiver is gone.
  bool IsCancelled() const { return state_ == nullptr || state_->IsCancelled(); }

  // Consumes the closure. Its bound arguments are released before this returns.
  void Run() && {
    if (const auto state = std::move(state_); state != nullptr) {
      state->Run();
    }
  }

 private:
  std::unique_ptr<internal::BoundState> state_;
};

namespace internal {

template <class T>
struct UnretainedWrapper {
  T* object;
};

template <class T>
T* ReceiverOf(const UnretainedWrapper<T>& receiver) {
  return receiver.object;
}
template <class T>
T* ReceiverOf(const WeakPtr<T>& receiver) {
  return receiver.get();
}

template <class Method, class Receiver, class... Args>
class MethodState final : public BoundState {
 public:
  template <class... Bound>
  MethodState(Method method, Receiver receiver, Bound&&... bound)
      : method_(method), receiver_(std::move(receiver)), args_(std::forward<Bound>(bound)...) {}

  void Run() override {
    if (auto* object = ReceiverOf(receiver_); object != nullptr) {
      std::apply([&](auto&... args) { std::invoke(method_, object, std::move(args)...); }, args_);
    }
  }
  bool IsCancelled() const override { return ReceiverOf(receiver_) == nullptr; }

 private:
  Method method_;
  Receiver receiver_;
  std::tuple<Args...> args_;
};

template <class Functor>
class FunctorState final : public BoundState {
 public:
  explicit FunctorState(Functor functor) : functor_(std::move(functor)) {}
  void Run() override { std::move(functor_)(); }
  bool IsCancelled() const override { return false; }

 private:
  Functor functor_;
};

}  // namespace internal

// Marks a receiver that the closure neither owns nor watches.
template <class T>
internal::UnretainedWrapper<T> Unretained(T* object) {
  return internal::UnretainedWrapper<T>{object};
}

// A closure that calls `method` on `receiver` (an `Unretained` or a `WeakPtr`) with copies of `args`.
template <class Method, class Receiver, class... Args>
requires std::is_member_function_pointer_v<Method> OnceCallback<void()> BindOnce(Method method,
                                                                                 Receiver receiver,
                                                                                 Args&&... args) {
  using State = internal::MethodState<Method, Receiver, std::decay_t<Args>...>;
  return OnceCallback<void()>(
      std::make_unique<State>(method, std::move(receiver), std::forward<Args>(args)...));
}

// A closure that calls a functor (a lambda), which may be move-only.
template <class Functor>
requires std::is_invocable_v<Functor&&> OnceCallback<void()> BindOnce(Functor functor) {
  return OnceCallback<void()>(std::make_unique<internal::FunctorState<Functor>>(std::move(functor)));
}

}  // namespace skorra_ntp
}  // namespace base
