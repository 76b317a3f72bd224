#include <optional>
#include <utility>

#include "tessaline/auth/errors/errors.hpp"
#include "tessaline/auth/manager/held_lock.hpp"
#include "tessaline/auth/names.hpp"
#include "tessaline/auth/python/python.hpp"

namespace tessaline::auth {
namespace {

constexpr double kJoinSeconds = 1.0;

/// False if the manager is already closed.
bool enter_closed(AuthManager& manager) {
  const HeldLock held(manager);
  if (held.closed()) return false;
  manager.mark_closed(held);
  return true;
}

/// Runs every step of the shutdown, whatever each raises, and keeps the first failure.
class Steps {
 public:
  template <class Step>
  void take(Step&& step) {
    std::optional<python::Error> failure = python::caught([&] { python::until_done(step); });
    if (failure && !first_) first_ = std::move(failure);
  }

  Ref first() const { return first_ ? Ref::borrow(first_->exception()) : Ref::none(); }

  void raise_first() {
    if (first_) throw std::move(*first_);
  }

 private:
  std::optional<python::Error> first_;
};

void wake_waiters(AuthManager& manager, PyObject* error) {
  const AttemptRef last = manager.current_attempt();
  const HeldLock held(manager);
  // Errors refer to frames, whose locals may have finalizers.
  for (Ref& kept : last->take_errors()) held.drop_later(std::move(kept));
  held.drop_later(std::move(last->thread));
  if (!held.is_none(Field::kAuthEvent)) return manager.record_failure(held, error);
  const Ref left = held.get(Field::kAuthError);
  if (!PyExceptionInstance_Check(left.get())) return;
  held.drop_later(python::traceback_of(left.get()));
  python::set_traceback(left.get(), Py_None);
}

/// Without the lock: in the state CLOSED there are no readers.
void forget_credentials(AuthManager& manager) {
  manager.wipe_key();
  for (const Field field : {Field::kToken, Field::kWalletSecret, Field::kTokenIat, Field::kTokenExpiry}) {
    python::drop(std::exchange(manager.at(field), Py_NewRef(Py_None)));
  }
}

void join_refresh_thread(AuthManager& manager) {
  const Ref thread = manager.value_of(Field::kRefreshThread);
  const Ref here = python::call_method(python::global(names::threading).get(), names::current_thread);
  if (!thread.is_none() && thread.get() != here.get()) {
    python::call_method(thread.get(), names::join, {},
                        {{names::timeout, python::number(kJoinSeconds).get()}});
  }
  python::drop(std::exchange(manager.at(Field::kRefreshThread), Py_NewRef(Py_None)));
}

}  // namespace

void AuthManager::mark_closed(const HeldLock& held) noexcept {
  held.set_state(State::kClosed);
  held.set(Field::kReauthMode, Ref::none());
  held.set(Field::kPendingEraNumber, Ref::none());
}

Ref AuthManager::close() {
  // Called by a signal handler or a finalizer that ran under the lock: done as soon as it is released.
  if (holds_lock(*this)) {
    lock.close_deferred = !is_closed();
    return Ref::none();
  }
  if (enter_closed(*this)) complete_close();
  return Ref::none();
}

void AuthManager::finish_deferred_close() noexcept {
  lock.close_deferred = false;
  static_cast<void>(python::caught([this] { complete_close(); }));
}

void AuthManager::complete_close() {
  // Every step must run: a further call of close() does nothing.
  Steps steps;
  // In an order in which the refresh thread sees the reason when it wakes; callers that wait for a refresh
  // stop waiting.
  for (const FreeField event : {FreeField(Field::kCloseEvent), FreeField(Field::kRefreshStop),
                                FreeField(Field::kRefreshEvent), FreeField(Field::kRefreshDone)}) {
    steps.take([&] { set_event(event); });
  }
  Ref error;
  steps.take([&] { error = new_auth_error(reason::kManagerClosed); });
  // If there is no memory for it, the MemoryError: waiters must not wait for ever.
  if (!error) error = steps.first();
  steps.take([&] { wake_waiters(*this, error.get()); });
  // Even if a program has replaced or removed the event in the field.
  steps.take([&] { wake_waiters_of(*current_attempt()); });
  forget_credentials(*this);
  steps.raise_first();
  join_refresh_thread(*this);
}

}  // namespace tessaline::auth
