#include <optional>
#include <utility>

#include "tessaline/auth/errors/errors.hpp"
#include "tessaline/auth/manager/manager.hpp"
#include "tessaline/auth/names.hpp"
#include "tessaline/auth/python/python.hpp"

namespace tessaline::auth {
namespace {

/// What a caller of `authenticate` has been told under the lock.
struct Admission {
  bool was_authenticated = false;
  Ref running;  ///< the event of the attempt to wait for; empty or None: the caller runs the flow
  Ref own;      ///< the event of the caller's own attempt, where it has one
  unsigned long attempt = 0;
};

Admission admit(AuthManager& manager) {
  Ref own = AuthManager::new_event();
  const Locked lock(manager);
  Admission admission;
  switch (manager.state()) {
    case State::kClosed:
      raise_auth_error(reason::kManagerClosed);
    case State::kAuthenticating:
    case State::kReAuthenticating:
      admission.running = manager.get(Field::kAuthEvent);
      admission.attempt = manager.attempt;
      return admission;
    case State::kAuthenticated:
      admission.was_authenticated = true;
      break;
    case State::kUninitialized:
      break;
    case State::kUnknown:
      raise_auth_error(reason::kUnexpectedAuthState);
  }
  admission.own = std::move(own);
  admission.attempt = ++manager.attempt;
  manager.set_state(State::kAuthenticating);
  manager.set(Field::kAuthEvent, Ref::borrow(admission.own.get()));
  manager.set(Field::kAuthError, Ref::none());
  manager.set(Field::kReauthMode, Ref::none());
  return admission;
}

void wait_for_runner(AuthManager& manager, PyObject* running) {
  manager.wait_for_flow(running);
  const Locked lock(manager);
  const Ref failure = manager.outcome_of(running);
  if (!failure.is_none()) manager.raise_again(failure.get());
}

void run_flow(AuthManager& manager) {
  const FlowOnThread here(manager);
  const Ref era_before = manager.highest_era();
  const auto [token, expires_at, secret] = python::unpack3(manager.call_own(names::do_auth_flow).get());
  {
    const Locked lock(manager);
    manager.raise_if_closed();
    manager.require_era_announced_since(era_before.get(), token.get());
    manager.call_own(names::store_auth_result, {token.get(), secret.get()});
  }
  manager.call_own(names::start_refresh);
}

/// Goes back to what held before the attempt.
void restore(AuthManager& manager, PyObject* recorded, const Admission& admission) {
  const Locked lock(manager);
  if (manager.attempt != admission.attempt) return;
  if (manager.state() == State::kAuthenticating) {
    const bool still_usable = admission.was_authenticated && !manager.is_none(Field::kToken);
    manager.set_state(still_usable ? State::kAuthenticated : State::kUninitialized);
    manager.set(Field::kReauthMode, Ref::none());
  }
  manager.settle_attempt(recorded);
}

/// Wakes those who wait for this attempt, also where its event is the manager's no more.
void wake_own_waiters(const Admission& admission) {
  if (!admission.own) return;
  python::insist([&] {
    const Ref awake = python::call_method(admission.own.get(), names::is_set);
    if (!python::truthy(awake.get())) python::set_event(admission.own.get());
  });
}

}  // namespace

Ref AuthManager::authenticate() {
  const Admission admission = admit(*this);
  if (admission.running && !admission.running.is_none()) {
    wait_for_runner(*this, admission.running.get());
    return Ref::none();
  }
  std::optional<python::Error> failure = python::caught([this] { run_flow(*this); });
  if (failure) {
    const python::Handling handling(*failure);
    const Ref recorded = recorded_error(*failure);
    std::optional<python::Error> unsettled =
        python::caught([&] { python::insist([&] { restore(*this, recorded.get(), admission); }); });
    wake_own_waiters(admission);
    if (unsettled) throw std::move(*unsettled);
    revive_refresh();
  }
  if (failure) throw std::move(*failure);
  wake_own_waiters(admission);
  return Ref::none();
}

}  // namespace tessaline::auth
