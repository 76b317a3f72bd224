#include <utility>

#include "tessaline/auth/errors/errors.hpp"
#include "tessaline/auth/manager/expired_token.hpp"
#include "tessaline/auth/manager/manager.hpp"
#include "tessaline/auth/names.hpp"
#include "tessaline/auth/python/python.hpp"

namespace tessaline::auth {
namespace {

constexpr int kPollPasses = 30;
constexpr double kPollSeconds = 0.1;

/// What a pass of the poll finds.
struct Sighting {
  bool reauthenticating = false;
  Ref event;
  Ref token;  ///< a renewed one, to be served at once
};

Sighting look_for_reauth(AuthManager& manager, PyObject* old_token) {
  const Locked lock(manager);
  if (manager.state() == State::kReAuthenticating) return {true, manager.get(Field::kAuthEvent), {}};
  manager.raise_if_renewal_is_hopeless();
  manager.raise_if_closed();
  return {false, {}, manager.renewed_token(old_token)};
}

Ref token_after_poll_ran_out(AuthManager& manager, bool fallback_to_current_token) {
  {
    const Locked lock(manager);
    manager.raise_if_pending_era();
    manager.raise_if_renewal_is_hopeless();
    Ref token = manager.get(Field::kToken);
    if (fallback_to_current_token && !token.is_none()) return token;
  }
  raise_auth_error(reason::kTokenExpired);
}

Ref token_after_reauth(AuthManager& manager, PyObject* event) {
  if (event != Py_None) manager.wait_for_flow(event);
  {
    const Locked lock(manager);
    manager.raise_if_closed();
    manager.raise_if_pending_era();
    manager.raise_if_renewal_is_hopeless();
    Ref token = manager.get(Field::kToken);
    if (!token.is_none()) return token;
  }
  raise_auth_error(reason::kTokenExpired);
}

}  // namespace

Ref AuthManager::renewed_token(PyObject* old_token) {
  if (state() != State::kAuthenticated || !is_none(Field::kPendingEraNumber)) return {};
  if (is_true(Field::kPermanentRefreshError)) return {};
  Ref token = get(Field::kToken);
  const Ref expiry = get(Field::kTokenExpiry);
  if (token.is_none() || expiry.is_none() || python::equal(token.get(), old_token)) return {};
  return python::less(call_own(names::get_time).get(), expiry.get()) ? std::move(token) : Ref();
}

Ref AuthManager::poll_for_reauth(bool fallback_to_current_token) {
  Ref old_token = ExpiredToken::of(*this);
  if (!old_token) {
    const Locked lock(*this);
    old_token = get(Field::kToken);
  }
  const Ref time_module = python::global(names::time);
  const Ref step = python::number(kPollSeconds);
  for (int pass = 0; pass < kPollPasses; ++pass) {
    python::call_method(time_module.get(), names::sleep, {step.get()});
    Sighting sighting = look_for_reauth(*this, old_token.get());
    if (sighting.reauthenticating) return token_after_reauth(*this, sighting.event.get());
    if (sighting.token) return std::move(sighting.token);
  }
  return token_after_poll_ran_out(*this, fallback_to_current_token);
}

}  // namespace tessaline::auth
