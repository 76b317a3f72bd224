#include <optional>
#include <utility>

#include "tessaline/auth/errors/errors.hpp"
#include "tessaline/auth/manager/held_lock.hpp"
#include "tessaline/auth/names.hpp"
#include "tessaline/auth/python/python.hpp"

namespace tessaline::auth {
namespace {

/// What a caller has to do, as decided under the lock.
struct Admission {
  bool waits;
  AttemptRef attempt;  ///< the one to wait for; else the current one from now on
};

Admission admit(AuthManager& manager, const AttemptRef& own) {
  const HeldLock held(manager);
  switch (held.state()) {
    case State::kClosed:
      raise_auth_error(reason::kManagerClosed);
    case State::kAuthenticating:
    case State::kReAuthenticating:
      // An attempt without an event cannot be waited for, so the caller logs in too.
      if (held.is_none(Field::kAuthEvent)) return {false, manager.current_attempt()};
      return {true, manager.attempt_to_wait_for(held)};
    case State::kAuthenticated:
      own->follows_token = true;
      break;
    case State::kUninitialized:
      break;
    case State::kUnknown:
      raise_auth_error(reason::kUnexpectedAuthState);
  }
  manager.begin_attempt(held, own, State::kAuthenticating, Py_None);
  return {false, own};
}

void log_in(AuthManager& manager) {
  const Ref era_before = manager.announced_era();
  const auto [token, expires_at, secret] = python::unpack3(manager.call_own(names::do_auth_flow).get());
  {
    const HeldLock held(manager);
    held.raise_if_closed();
    manager.require_era_announced_since(held, era_before.get(), token.get());
    manager.call_own(names::store_auth_result, {token.get(), secret.get()});
  }
  manager.call_own(names::start_refresh);
}

void run(AuthManager& manager, const AttemptRef& own, const Attempt* expected) {
  std::optional<python::Error> failure = python::caught([&] { log_in(manager); });
  if (failure) {
    manager.settle_failure(own, Attempt::Kind::kLogin, *failure, expected);
    const python::Handling handling(*failure);
    manager.revive_refresh();
  }
  if (failure) throw std::move(*failure);
  manager.wake_waiters_of(*own);
}

void raise_outcome_of(AuthManager& manager, const AttemptRef& ended) {
  const HeldLock held(manager);
  held.raise_if_closed();
  const Ref failure = manager.outcome_of(held, *ended);
  if (failure.is_none()) return;
  const bool is_own = ended->failure.get() == failure.get();
  const AttemptRef kept = is_own ? ended : manager.current_attempt();
  kept->raise_stored(held, failure.get());
}

}  // namespace

Ref AuthManager::authenticate() {
  for (;;) {
    const AttemptRef own = Attempt::make(Attempt::Kind::kLogin, new_event());
    const Running here(own);
    const Admission admission = admit(*this, own);
    if (!admission.waits) {
      run(*this, own, admission.attempt.get());
    } else if (wait_for(admission.attempt)) {
      raise_outcome_of(*this, admission.attempt);
    } else {
      continue;  // in a forked child the attempt is not running: log in
    }
    return Ref::none();
  }
}

}  // namespace tessaline::auth
