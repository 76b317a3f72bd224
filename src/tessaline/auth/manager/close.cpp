#include <optional>
#include <utility>

#include "tessaline/auth/errors/errors.hpp"
#include "tessaline/auth/manager/manager.hpp"
#include "tessaline/auth/names.hpp"
#include "tessaline/auth/python/python.hpp"

namespace tessaline::auth {
namespace {

constexpr double kJoinSeconds = 1.0;

/// False when the manager is closed already.
bool enter_closed(AuthManager& manager) {
  const Locked lock(manager);
  if (manager.closed()) return false;
  manager.mark_closed();
  return true;
}

/// Goes through every step of the shutdown, whatever one of them raises, and keeps the first failure.
class Steps {
 public:
  template <class Step>
  void take(Step&& step) {
    std::optional<python::Error> failure = python::caught([&] { python::insist(step); });
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
  const Locked lock(manager);
  if (manager.is_none(Field::kAuthEvent)) return;
  manager.set(Field::kAuthError, Ref::borrow(error));
  manager.set_event(Field::kAuthEvent);
}

void forget_credentials(AuthManager& manager) {
  manager.wipe_key();
  for (const Field field : {Field::kToken, Field::kWalletSecret, Field::kTokenIat, Field::kTokenExpiry}) {
    manager.set(field, Ref::none());
  }
}

void join_refresh_thread(AuthManager& manager) {
  const Ref thread = manager.get(Field::kRefreshThread);
  const Ref here = python::call_method(python::global(names::threading).get(), names::current_thread);
  if (!thread.is_none() && thread.get() != here.get()) {
    python::call_method(thread.get(), names::join, {},
                        {{names::timeout, python::number(kJoinSeconds).get()}});
  }
  manager.set(Field::kRefreshThread, Ref::none());
}

}  // namespace

void AuthManager::mark_closed() noexcept {
  set_state(State::kClosed);
  set(Field::kReauthMode, Ref::none());
  set(Field::kPendingEraNumber, Ref::none());
}

Ref AuthManager::close() {
  // A signal handler or a finalizer that ran under the lock; done as soon as it is free.
  if (holds_lock(*this)) {
    close_deferred = !closed();
    return Ref::none();
  }
  if (enter_closed(*this)) complete_close();
  return Ref::none();
}

void AuthManager::complete_close() {
  // There is no second chance: a further call finds the manager closed.
  Steps steps;
  // The refresh thread is woken when it can see why. A caller that waits for a refresh has none to wait for.
  for (const Field event :
       {Field::kCloseEvent, Field::kRefreshStop, Field::kRefreshEvent, Field::kRefreshDone}) {
    steps.take([&] { set_event(event); });
  }
  Ref error;
  steps.take([&] { error = new_auth_error(reason::kManagerClosed); });
  // Where there is no memory for it, what says so: waiting for ever would be worse.
  if (!error) error = steps.first();
  steps.take([&] { wake_waiters(*this, error.get()); });
  forget_credentials(*this);
  steps.raise_first();
  join_refresh_thread(*this);
}

}  // namespace tessaline::auth
