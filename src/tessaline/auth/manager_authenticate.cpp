#include <utility>

#include "tessaline/auth/errors.hpp"
#include "tessaline/auth/manager.hpp"
#include "tessaline/auth/names.hpp"
#include "tessaline/auth/python/python.hpp"

namespace tessaline::auth {
namespace {

/// What a caller of `authenticate` has been told under the lock.
struct Admission {
  bool was_authenticated = false;
  Ref running;  ///< the event of the attempt to wait for; empty or None: the caller runs the flow
};

Admission admit(AuthManager& manager) {
  const python::ScopedLock lock(manager.get(Field::kLock));
  Admission admission;
  switch (manager.state()) {
    case State::kClosed:
      raise_auth_error(reason::kManagerClosed);
    case State::kAuthenticating:
    case State::kReAuthenticating:
      admission.running = manager.get(Field::kAuthEvent);
      return admission;
    case State::kAuthenticated:
      admission.was_authenticated = true;
      break;
    case State::kUninitialized:
      break;
    case State::kUnknown:
      raise_auth_error(reason::kUnexpectedAuthState);
  }
  Ref event = AuthManager::new_event();
  manager.set_state(State::kAuthenticating);
  manager.set(Field::kAuthEvent, std::move(event));
  manager.set(Field::kAuthError, Ref::none());
  manager.set(Field::kReauthMode, Ref::none());
  return admission;
}

void wait_for_runner(AuthManager& manager, PyObject* running) {
  python::call_method(running, names::wait);
  const python::ScopedLock lock(manager.get(Field::kLock));
  const Ref failure = manager.get(Field::kAuthError);
  if (!failure.is_none()) raise_again(failure.get());
}

void run_flow(AuthManager& manager) {
  const auto [token, expires_at, secret] = python::unpack3(manager.call_own(names::do_auth_flow).get());
  {
    const python::ScopedLock lock(manager.get(Field::kLock));
    manager.raise_if_closed();
    manager.call_own(names::store_auth_result, {token.get(), secret.get()});
  }
  manager.call_own(names::start_refresh);
}

/// Goes back to what held before the attempt and wakes those who waited for it.
void settle_failure(AuthManager& manager, const python::Error& error, bool was_authenticated) {
  const Ref recorded = recorded_error(error);
  python::insist([&] {
    const python::ScopedLock lock(manager.get(Field::kLock));
    if (manager.state() == State::kAuthenticating) {
      const bool still_usable = was_authenticated && !manager.is_none(Field::kToken);
      manager.set_state(still_usable ? State::kAuthenticated : State::kUninitialized);
      manager.set(Field::kReauthMode, Ref::none());
    }
    manager.set(Field::kAuthError, Ref::borrow(recorded.get()));
    if (!manager.is_none(Field::kAuthEvent)) manager.set_event(Field::kAuthEvent);
  });
}

}  // namespace

Ref AuthManager::authenticate() {
  const Admission admission = admit(*this);
  if (admission.running && !admission.running.is_none()) {
    wait_for_runner(*this, admission.running.get());
    return Ref::none();
  }
  try {
    run_flow(*this);
  } catch (python::Error& error) {
    const python::Handling handling(error);
    settle_failure(*this, error, admission.was_authenticated);
    revive_refresh();
    throw;
  }
  return Ref::none();
}

}  // namespace tessaline::auth
