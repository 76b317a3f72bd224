#pragma once

#include <optional>
#include <utility>

#include "tessaline/auth/manager/manager.hpp"
#include "tessaline/auth/python/scoped_lock.hpp"

namespace tessaline::auth {

/// Whether the calling line of execution holds `_lock` through `HeldLock`.
bool holds_lock(const AuthManager& manager);

/// Holds the manager's `_lock` for a block, and gives access to what it guards. Functions that must be called
/// under the lock take one as an argument.
///
/// Held for short reads and stores only, never across a request, a sleep, a wait or a join; after a wait
/// everything is read again. Replaced values are released after the lock, and a `close` called by code that
/// ran under it (a finalizer, a signal handler, a clock) takes effect then.
class HeldLock {
 public:
  /// Takes it. Raises RuntimeError if this line of execution holds it already: a signal handler, a finalizer
  /// or a clock that runs under it would deadlock.
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

  /// Sets `_auth_event`, if there is one.
  void set_auth_event() const;

  /// Released at once if there is no memory to keep it.
  void drop_later(Ref replaced) const noexcept;

 private:
  /// What is done after the lock is released, even if an exception is thrown.
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

  /// Raises if the constructor has not run: a program may have set the fields itself.
  void require_constructed() const;

  AuthManager& manager_;
  const Afterwards afterwards_;
  std::optional<python::ScopedLock> lock_;  ///< empty if the caller holds the lock
};

}  // namespace tessaline::auth
