#pragma once

#include <optional>
#include <utility>

#include "tessaline/auth/manager/manager.hpp"
#include "tessaline/auth/python/scoped_lock.hpp"

namespace tessaline::auth {

/// Whether the calling line of execution holds `_lock` through `HeldLock`.
bool holds_lock(const AuthManager& manager);

/// The manager's `_lock`, held for a block, and what it guards: the proof that a function asks for which has
/// to be called under it.
///
/// It is held for short reads and stores only, never across a request, a sleep, the wait for an event or a
/// join; what is handed out after a wait is read again under it. What is replaced under it is dropped after
/// it, and a `close` by code that ran under it (a finalizer, a signal handler, a clock) is done then.
class HeldLock {
 public:
  /// Takes it. Raises RuntimeError where this line of execution holds it already: a signal handler, a
  /// finalizer or a clock that ran meanwhile would wait for itself.
  explicit HeldLock(AuthManager& manager);
  ~HeldLock();
  HeldLock(const HeldLock&) = delete;
  HeldLock& operator=(const HeldLock&) = delete;

  /// For the two methods that a program, or this component through the instance, calls under the lock.
  static HeldLock of_caller(AuthManager& manager) { return HeldLock(manager, Afterwards()); }

  Ref get(Field field) const { return manager_.value_of(field); }
  bool is_none(Field field) const { return get(field).is_none(); }
  bool is_true(Field field) const;
  void set(Field field, Ref value) const noexcept;
  void set(Field field, bool value) const noexcept { set(field, Ref::boolean(value)); }

  State state() const { return state_of(get(Field::kState).get()); }
  void set_state(State state) const noexcept { set(Field::kState, Ref::borrow(state_text(state))); }
  bool closed() const { return state() == State::kClosed; }
  void raise_if_closed() const;

  /// Sets `_auth_event`, where there is one.
  void set_auth_event() const;

  /// At once where there is no memory to keep it.
  void drop_later(Ref replaced) const noexcept;

 private:
  /// What is done when the lock is free again, whatever happened under it.
  class Afterwards {
   public:
    Afterwards() noexcept = default;
    Afterwards(AuthManager& manager, unsigned long here);
    Afterwards(Afterwards&& other) noexcept : manager_(std::exchange(other.manager_, nullptr)) {}
    Afterwards& operator=(Afterwards&&) = delete;
    ~Afterwards();

   private:
    AuthManager* manager_ = nullptr;
  };

  HeldLock(AuthManager& manager, unsigned long here);
  HeldLock(AuthManager& manager, Afterwards afterwards);

  /// Raises where the constructor has not run: a program may have written the fields by itself.
  void require_constructed() const;

  AuthManager& manager_;
  const Afterwards afterwards_;
  std::optional<python::ScopedLock> lock_;  ///< empty: the caller's
};

}  // namespace tessaline::auth
