#include <optional>
#include <utility>

#include "tessaline/auth/manager/held_lock.hpp"
#include "tessaline/auth/manager/process_generation.hpp"
#include "tessaline/auth/names.hpp"
#include "tessaline/auth/python/python.hpp"

namespace tessaline::auth {
namespace {

/// A new event in the same state as the field's, without the parent's waiters.
Ref renewed_event(const AuthManager& manager, Field field) {
  Ref event = AuthManager::new_event();
  if (is_set(manager.value_of(field).get())) python::set_event(event.get());
  return event;
}

/// Leaves the attempt that was running, which continues in the parent only.
void leave_running_attempt(AuthManager& manager) {
  const HeldLock held(manager);
  const State state = held.state();
  if (state != State::kAuthenticating && state != State::kReAuthenticating) return;
  held.set_state(held.is_none(Field::kToken) ? State::kUninitialized : State::kAuthenticated);
  held.set(Field::kReauthMode, Ref::none());
  held.set(Field::kAuthEvent, Ref::none());
}

/// Restarts renewal in this process; if that fails, the error is stored for the next caller.
void resume_renewal(AuthManager& manager) {
  Ref pending_era;
  bool unanswered = false;
  {
    const HeldLock held(manager);
    if (held.state() != State::kAuthenticated) return;
    pending_era = held.get(Field::kPendingEraNumber);
    unanswered = !pending_era.is_none() && held.is_none(Field::kAuthError);
  }
  std::optional<python::Error> failure = python::caught([&] {
    manager.call_own(names::start_refresh);
    if (unanswered) manager.call_own(names::notify_era_change, {pending_era.get()});
  });
  if (failure && !failure->matches(PyExc_Exception)) throw std::move(*failure);
}

}  // namespace

void AuthManager::begin_anew_in_child() {
  Ref auth_event = value_of(Field::kAuthEvent);
  if (!auth_event.is_none()) auth_event = renewed_event(*this, Field::kAuthEvent);
  AttemptRef none = Attempt::make(Attempt::Kind::kProgram, Ref::none());
  std::pair<Field, Ref> renewed[] = {
      {Field::kLock, new_lock()},
      {Field::kAuthEvent, std::move(auth_event)},
      {Field::kRefreshStop, renewed_event(*this, Field::kRefreshStop)},
      {Field::kCloseEvent, renewed_event(*this, Field::kCloseEvent)},
      {Field::kRefreshEvent, new_event()},
      {Field::kRefreshPending, new_event()},
      {Field::kRefreshDone, new_event()},
      {Field::kRefreshThread, Ref::none()},
      {Field::kInTransientBackoff, Ref::boolean(false)},
  };
  AttemptRef before;
  // Another thread of the child may have done this during the calls above. From here on nothing calls Python.
  if (generation == process_generation()) return;
  generation = process_generation();
  for (auto& [field, value] : renewed) {
    PyObject* const old = std::exchange(at(field), value.release());
    value = Ref::steal(old);
  }
  RefreshThreads threads = std::exchange(refresh_threads, RefreshThreads{});
  before = AttemptRef(attempt);
  AttemptRef::give_back(std::exchange(attempt, none.release()));
  lock.owner = 0;
  refresh_waiters = {};
  threads.clear();
  // The thread that was closing it is not in the child, and may not have wiped the key.
  if (is_closed()) return complete_close();
  leave_running_attempt(*this);
  resume_renewal(*this);
}

}  // namespace tessaline::auth
