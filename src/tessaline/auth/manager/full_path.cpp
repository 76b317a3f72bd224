#include <utility>

#include "tessaline/auth/errors/errors.hpp"
#include "tessaline/auth/manager/held_lock.hpp"
#include "tessaline/auth/names.hpp"
#include "tessaline/auth/python/python.hpp"
#include "tessaline/auth/steps/clock.hpp"

namespace tessaline::auth {
namespace {

constexpr double kRefreshDoneSeconds = 10.0;

/// The fields that determine what `get_token` does, read together under the lock.
struct Snapshot {
  State state;
  Ref token;
  Ref token_expiry;
  bool permanent_error;
  AttemptRef running;  ///< or the last one that ran
  Ref reauth_mode;
  Ref pending_era;
  Ref auth_error;
};

Snapshot take_snapshot(AuthManager& manager) {
  const HeldLock held(manager);
  return {held.state(),
          held.get(Field::kToken),
          held.get(Field::kTokenExpiry),
          held.is_true(Field::kPermanentRefreshError),
          manager.attempt_to_wait_for(held),
          held.get(Field::kReauthMode),
          held.get(Field::kPendingEraNumber),
          held.get(Field::kAuthError)};
}

bool is_proactive(PyObject* mode) {
  return mode == proactive_mode() || python::equal(mode, proactive_mode());
}

void raise_stored_error(AuthManager& manager, const HeldLock& held) {
  const Ref failure = held.get(Field::kAuthError);
  if (!failure.is_none()) manager.raise_stored(held, failure.get());
}

/// Keeps `_refresh_done` from being cleared between the check of the token's age and the wait.
class RefreshWaiter {
 public:
  explicit RefreshWaiter(AuthManager& manager) noexcept : manager_(manager) {
    ++manager_.refresh_waiters.count;
  }
  ~RefreshWaiter() {
    if (manager_.refresh_waiters.count > 0) --manager_.refresh_waiters.count;
    if (!manager_.refresh_waiters.signal_is_stale) return;
    static_cast<void>(python::caught([this] { manager_.clear_refresh_done(); }));
  }
  RefreshWaiter(const RefreshWaiter&) = delete;
  RefreshWaiter& operator=(const RefreshWaiter&) = delete;

 private:
  AuthManager& manager_;
};

/// One call of `get_token` on the full path.
class Serving {
 public:
  explicit Serving(AuthManager& manager) : manager_(manager), seen_(take_snapshot(manager)) {}

  Ref run() {
    switch (seen_.state) {
      case State::kClosed:
        raise_auth_error(reason::kManagerClosed);
      case State::kAuthenticating:
      case State::kReAuthenticating:
        if (Ref token = token_while_refresh_backs_off()) return token;
        return token_after_running_attempt();
      case State::kAuthenticated:
        return token_of_authenticated();
      case State::kUninitialized:
      case State::kUnknown:
        break;
    }
    raise_auth_error(reason::kNotAuthenticated);
  }

 private:
  /// The old token while it is valid and a scheduled refresh is in back-off; else empty.
  Ref token_while_refresh_backs_off() {
    const bool may_serve = is_proactive(seen_.reauth_mode.get()) && seen_.pending_era.is_none() &&
                           manager_.is_true(Field::kInTransientBackoff) && !seen_.token.is_none() &&
                           !seen_.token_expiry.is_none() && !seen_.permanent_error;
    if (!may_serve) return {};
    const Ref now = manager_.call_own(names::get_time);
    if (!python::less(now.get(), seen_.token_expiry.get())) return {};
    const HeldLock held(manager_);
    held.raise_if_closed();
    return backing_off_still(held, now.get()) ? held.get(Field::kToken) : Ref();
  }

  bool backing_off_still(const HeldLock& held, PyObject* now) const {
    return held.state() == State::kReAuthenticating && is_proactive(held.get(Field::kReauthMode).get()) &&
           held.is_none(Field::kPendingEraNumber) && held.is_none(Field::kAuthError) &&
           held.get(Field::kAuthEvent).get() == seen_.running->event.get() &&
           manager_.is_true(Field::kInTransientBackoff) &&
           python::equal(held.get(Field::kToken).get(), seen_.token.get()) &&
           !held.is_none(Field::kTokenExpiry) && python::less(now, held.get(Field::kTokenExpiry).get()) &&
           !held.is_true(Field::kPermanentRefreshError);
  }

  Ref token_after_running_attempt() {
    // In a forked child the attempt is not running: start again.
    if (!seen_.running->event.is_none() && !manager_.wait_for(seen_.running)) return manager_.get_token();
    {
      const HeldLock held(manager_);
      held.raise_if_closed();
      manager_.raise_if_pending_era(held);
      raise_stored_error(manager_, held);
      manager_.raise_if_permanent_error(held);
      Ref token = held.get(Field::kToken);
      if (!token.is_none()) return token;
    }
    raise_auth_error(reason::kTokenExpired);
  }

  Ref token_of_authenticated() {
    if (!seen_.pending_era.is_none()) {
      if (!seen_.auth_error.is_none()) manager_.raise_stored(HeldLock(manager_), seen_.auth_error.get());
      raise_auth_error(reason::kEraChangePending);
    }
    const Ref now = manager_.call_own(names::get_time);
    bool expired = false;
    reckon_with(now.get(), [&] {
      expired = !seen_.token_expiry.is_none() && python::at_least(now.get(), seen_.token_expiry.get());
    });
    if (expired) return token_after_expiry();
    if (const Ref auth_time = auth_time_if_refresh_due(now.get())) return token_after_nudge(auth_time.get());
    if (seen_.token.is_none()) raise_auth_error(reason::kNotAuthenticated);
    return confirmed_token();
  }

  Ref token_after_expiry() {
    if (seen_.permanent_error) raise_auth_error(reason::kTokenExpired);
    // Wakes a refresh thread that slept while the machine was suspended.
    manager_.set_event(Field::kRefreshEvent);
    const Ref fallback = Ref::boolean(manager_.event_is_set(Field::kRefreshPending));
    // The class's own is called directly, with an argument that a program's override would not accept.
    if (has_own_poll(manager_.object())) {
      return manager_.poll_after_expiry(seen_.token.get(), fallback.get() == Py_True);
    }
    return python::call_method(manager_.object(), names::poll_for_reauth, {},
                               {{names::fallback_to_current_token, fallback.get()}});
  }

  /// When the token was stored, if it is due for refresh; else empty.
  Ref auth_time_if_refresh_due(PyObject* now) {
    Ref auth_time;
    Ref refresh_at;
    {
      const HeldLock held(manager_);
      auth_time = held.get(Field::kAuthTime);
      refresh_at = held.get(Field::kRefreshAt);
    }
    const bool due = !auth_time.is_none() && !refresh_at.is_none() && python::at_least(now, refresh_at.get());
    return due ? std::move(auth_time) : Ref();
  }

  Ref token_after_nudge(PyObject* auth_time) {
    nudge_and_wait(auth_time);
    {
      const HeldLock held(manager_);
      held.raise_if_closed();
      manager_.raise_if_pending_era(held);
      manager_.raise_if_permanent_error(held);
      Ref token = held.get(Field::kToken);
      if (!token.is_none()) return token;
    }
    raise_auth_error(reason::kTokenExpired);
  }

  void nudge_and_wait(PyObject* auth_time) {
    const RefreshWaiter waiter(manager_);
    manager_.set_event(Field::kRefreshEvent);
    if (stored_since(auth_time)) return;
    python::wait_event(manager_.get(Field::kRefreshDone).get(), kRefreshDoneSeconds);
  }

  /// Whether the refresh has ended already, and its signal with it.
  bool stored_since(PyObject* auth_time) {
    const HeldLock held(manager_);
    return !python::equal(held.get(Field::kAuthTime).get(), auth_time);
  }

  Ref confirmed_token() {
    AttemptRef running;
    for (;;) {
      if (running && !manager_.wait_for(running)) return manager_.get_token();
      // Released after the lock: the last share of an attempt may own anything.
      const AttemptRef awaited = std::move(running);
      const HeldLock held(manager_);
      held.raise_if_closed();
      if (held.state() == State::kReAuthenticating) {
        running = unfinished_attempt(held);
        continue;
      }
      manager_.raise_if_pending_era(held);
      manager_.raise_if_permanent_error(held);
      if (held.state() != State::kAuthenticated) raise_auth_error(reason::kNotAuthenticated);
      Ref token = held.get(Field::kToken);
      if (!token.is_none()) return token;
      break;
    }
    raise_auth_error(reason::kNotAuthenticated);
  }

  AttemptRef unfinished_attempt(const HeldLock& held) {
    AttemptRef running = manager_.attempt_to_wait_for(held);
    if (running->event.is_none()) raise_auth_error(reason::kTokenExpired);
    if (is_set(running->event.get())) {
      manager_.raise_if_pending_era(held);
      raise_stored_error(manager_, held);
      raise_auth_error(reason::kTokenExpired);
    }
    return running;
  }

  AuthManager& manager_;
  const Snapshot seen_;
};

}  // namespace

void AuthManager::raise_if_pending_era(const HeldLock&) {
  call_own(names::raise_if_pending_era_locked);
}

Ref AuthManager::raise_if_pending_era_locked() {
  const HeldLock held = HeldLock::of_caller(*this);
  if (held.is_none(Field::kPendingEraNumber)) return Ref::none();
  raise_stored_error(*this, held);
  raise_auth_error(reason::kEraChangePending);
}

void AuthManager::raise_if_permanent_error(const HeldLock& held) const {
  if (held.is_true(Field::kPermanentRefreshError)) raise_auth_error(reason::kTokenExpired);
}

Ref AuthManager::get_token() {
  if (Ref token = token_if_healthy()) return token;
  python::require_stack();
  return Serving(*this).run();
}

}  // namespace tessaline::auth
