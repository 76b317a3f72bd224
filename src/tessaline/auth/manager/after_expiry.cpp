#include <utility>

#include "tessaline/auth/errors/errors.hpp"
#include "tessaline/auth/manager/held_lock.hpp"
#include "tessaline/auth/names.hpp"
#include "tessaline/auth/python/python.hpp"

namespace tessaline::auth {
namespace {

constexpr int kLooks = 30;
constexpr double kLookSeconds = 0.1;  // polling interval

/// The result of one poll.
struct Sighting {
  AttemptRef running;
  Ref token;  ///< a renewed token, to be returned at once
};

/// A token that has replaced `old_token` and may be returned; else empty.
Ref renewed_token(AuthManager& manager, const HeldLock& held, PyObject* old_token) {
  if (held.state() != State::kAuthenticated || !held.is_none(Field::kPendingEraNumber)) return {};
  Ref token = held.get(Field::kToken);
  const Ref expiry = held.get(Field::kTokenExpiry);
  if (token.is_none() || expiry.is_none() || python::equal(token.get(), old_token)) return {};
  return python::less(manager.call_own(names::get_time).get(), expiry.get()) ? std::move(token) : Ref();
}

Sighting look(AuthManager& manager, PyObject* old_token) {
  const HeldLock held(manager);
  if (held.state() == State::kReAuthenticating) return {manager.attempt_to_wait_for(held), {}};
  manager.raise_if_permanent_error(held);
  held.raise_if_closed();
  return {{}, renewed_token(manager, held, old_token)};
}

Ref token_after_looking(AuthManager& manager, bool fallback_to_current_token) {
  {
    const HeldLock held(manager);
    manager.raise_if_pending_era(held);
    manager.raise_if_permanent_error(held);
    Ref token = held.get(Field::kToken);
    if (fallback_to_current_token && !token.is_none()) return token;
  }
  raise_auth_error(reason::kTokenExpired);
}

Ref token_after_attempt(AuthManager& manager, const AttemptRef& running) {
  if (!running->event.is_none() && !manager.wait_for(running)) return manager.get_token();
  {
    const HeldLock held(manager);
    held.raise_if_closed();
    manager.raise_if_pending_era(held);
    manager.raise_if_permanent_error(held);
    Ref token = held.get(Field::kToken);
    if (!token.is_none()) return token;
  }
  raise_auth_error(reason::kTokenExpired);
}

}  // namespace

Ref AuthManager::poll_for_reauth(bool fallback_to_current_token) {
  Ref old_token;
  {
    const HeldLock held(*this);
    old_token = held.get(Field::kToken);
  }
  return poll_after_expiry(old_token.get(), fallback_to_current_token);
}

Ref AuthManager::poll_after_expiry(PyObject* old_token, bool fallback_to_current_token) {
  const Ref time_module = python::global(names::time_module);
  const Ref step = python::number(kLookSeconds);
  for (int looks = 0; looks < kLooks; ++looks) {
    python::call_method(time_module.get(), names::sleep, {step.get()});
    Sighting sighting = look(*this, old_token);
    if (sighting.running) return token_after_attempt(*this, sighting.running);
    if (sighting.token) return std::move(sighting.token);
  }
  return token_after_looking(*this, fallback_to_current_token);
}

}  // namespace tessaline::auth
