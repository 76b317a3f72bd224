#include <utility>

#include "tessaline/auth/errors.hpp"
#include "tessaline/auth/manager.hpp"
#include "tessaline/auth/names.hpp"
#include "tessaline/auth/python/python.hpp"

namespace tessaline::auth {
namespace {

void require_positive(PyObject* era_number) {
  if (python::less(python::integer(0).get(), era_number)) return;
  const Ref message = python::checked(PyUnicode_FromFormat("era_number must be > 0, got %S", era_number));
  python::raise(python::call(PyExc_ValueError, {message.get()}).get());
}

/// Raises the required era, never lowers it.
void require_era(AuthManager& manager, PyObject* era_number) {
  const Ref pending = manager.get(Field::kPendingEraNumber);
  if (pending.is_none() || python::less(pending.get(), era_number)) {
    manager.set(Field::kPendingEraNumber, Ref::borrow(era_number));
  }
  manager.set(Field::kReauthMode, Ref::borrow(era_change_mode()));
}

/// Records the announcement. True when a re-authentication has to be started for it; false when the flow
/// already running will meet it.
bool announce(AuthManager& manager, PyObject* era_number) {
  const python::ScopedLock lock(manager.get(Field::kLock));
  switch (manager.state()) {
    case State::kClosed:
      raise_auth_error(reason::kManagerClosed);
    case State::kUninitialized:
      raise_auth_error(reason::kNotAuthenticated);
    case State::kAuthenticating:
    case State::kReAuthenticating:
      require_era(manager, era_number);
      return false;
    case State::kAuthenticated:
    case State::kUnknown:
      break;
  }
  Ref event = AuthManager::new_event();
  require_era(manager, era_number);
  manager.set_state(State::kReAuthenticating);
  manager.set(Field::kAuthEvent, std::move(event));
  manager.set(Field::kAuthError, Ref::none());
  return true;
}

/// The old token stays, and the announced era keeps it from being served.
void settle_failure(AuthManager& manager, const python::Error& error) {
  const Ref recorded = recorded_error(error);
  const bool permanent = is_permanent(error);
  python::insist([&] {
    const python::ScopedLock lock(manager.get(Field::kLock));
    if (manager.closed()) return;
    manager.set(Field::kAuthError, Ref::borrow(recorded.get()));
    if (permanent) manager.set(Field::kPermanentRefreshError, true);
    manager.set_state(State::kAuthenticated);
    manager.set(Field::kReauthMode, Ref::none());
    if (!manager.is_none(Field::kAuthEvent)) manager.set_event(Field::kAuthEvent);
  });
}

}  // namespace

Ref AuthManager::notify_era_change(PyObject* new_era_number) {
  require_positive(new_era_number);
  if (!announce(*this, new_era_number)) return Ref::none();
  try {
    set_event(Field::kRefreshEvent);
    const Ref thread = new_daemon_thread(names::background_reauth);
    python::call_method(thread.get(), names::start);
  } catch (python::Error& error) {
    const python::Handling handling(error);
    record_unstarted_thread(error);
    throw;
  }
  return Ref::none();
}

Ref AuthManager::background_reauth() {
  try {
    const auto [token, expires_at, secret] =
        python::unpack3(call_own(names::do_auth_flow_matching_pending_era).get());
    {
      const python::ScopedLock lock(get(Field::kLock));
      if (closed()) return Ref::none();
      call_own(names::store_auth_result, {token.get(), secret.get()});
    }
    call_own(names::start_refresh);
  } catch (python::Error& error) {
    const python::Handling handling(error);
    settle_failure(*this, error);
  }
  return Ref::none();
}

}  // namespace tessaline::auth
