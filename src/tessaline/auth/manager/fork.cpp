#include <optional>
#include <utility>

#include "tessaline/auth/manager/process_generation.hpp"
#include "tessaline/auth/manager/manager.hpp"
#include "tessaline/auth/names.hpp"
#include "tessaline/auth/python/python.hpp"

namespace tessaline::auth {
namespace {

/// An event like the one in the field, without the waiters that it had in the parent.
Ref renewed_event(const AuthManager& manager, Field field) {
  Ref event = AuthManager::new_event();
  if (manager.event_is_set(field)) python::set_event(event.get());
  return event;
}

void forget_threads(AuthManager& manager) {
  for (const Hidden slot :
       {Hidden::kNewestRefreshThread, Hidden::kOlderRefreshThreads, Hidden::kEraThread, Hidden::kEraEvent}) {
    python::drop(std::exchange(manager.at(slot), nullptr));
  }
  manager.set(Field::kRefreshThread, Ref::none());
  manager.lock_owner = 0;
  manager.flow_thread = 0;
  manager.renewals_running = 0;
  manager.refresh_waiters = 0;
  manager.refresh_done_is_stale = false;
}

/// The flow that was running went on in the parent only.
void leave_running_authentication(AuthManager& manager) {
  const State state = manager.state();
  if (state != State::kAuthenticating && state != State::kReAuthenticating) return;
  manager.set_state(manager.is_none(Field::kToken) ? State::kUninitialized : State::kAuthenticated);
  manager.set(Field::kReauthMode, Ref::none());
  manager.set(Field::kAuthEvent, Ref::none());
}

/// Renewal begins again in this process; what keeps it from beginning is recorded for the next caller.
void resume_renewal(AuthManager& manager) {
  if (manager.state() != State::kAuthenticated) return;
  const Ref pending_era = manager.get(Field::kPendingEraNumber);
  const bool unanswered = !pending_era.is_none() && manager.is_none(Field::kAuthError);
  std::optional<python::Error> failure = python::caught([&] {
    manager.call_own(names::start_refresh);
    if (unanswered) manager.call_own(names::notify_era_change, {pending_era.get()});
  });
  if (failure && !failure->matches(PyExc_Exception)) throw std::move(*failure);
}

}  // namespace

void AuthManager::settle_in_child() {
  Ref lock = new_lock();
  Ref stop = renewed_event(*this, Field::kRefreshStop);
  Ref closing = renewed_event(*this, Field::kCloseEvent);
  Ref attempt_event = is_none(Field::kAuthEvent) ? Ref::none() : renewed_event(*this, Field::kAuthEvent);
  Ref wake = new_event();
  Ref pending = new_event();
  Ref done = new_event();
  // Making them may have let another thread of the child go first.
  if (generation == process_generation()) return;
  generation = process_generation();
  set(Field::kLock, std::move(lock));
  set(Field::kRefreshStop, std::move(stop));
  set(Field::kCloseEvent, std::move(closing));
  set(Field::kAuthEvent, std::move(attempt_event));
  set(Field::kRefreshEvent, std::move(wake));
  set(Field::kRefreshPending, std::move(pending));
  set(Field::kRefreshDone, std::move(done));
  set(Field::kInTransientBackoff, false);
  forget_threads(*this);
  // The thread that was closing it may not have come to the key, and is not here to go on.
  if (closed()) return complete_close();
  leave_running_authentication(*this);
  resume_renewal(*this);
}

}  // namespace tessaline::auth
