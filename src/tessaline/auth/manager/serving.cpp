#include <utility>

#include "tessaline/auth/steps/clock.hpp"
#include "tessaline/auth/errors/errors.hpp"
#include "tessaline/auth/manager/expired_token.hpp"
#include "tessaline/auth/manager/manager.hpp"
#include "tessaline/auth/names.hpp"
#include "tessaline/auth/python/python.hpp"

namespace tessaline::auth {
namespace {

constexpr double kRefreshDoneSeconds = 10.0;

/// The fields on which a call of `get_token` decides, read at one go.
struct Snapshot {
  State state;
  Ref token;
  Ref token_expiry;
  bool permanent_error;
  Ref auth_event;
  Ref reauth_mode;
  Ref pending_era;
  Ref auth_error;
};

Snapshot take_snapshot(AuthManager& manager) {
  const Locked lock(manager);
  return {manager.state(),
          manager.get(Field::kToken),
          manager.get(Field::kTokenExpiry),
          manager.is_true(Field::kPermanentRefreshError),
          manager.get(Field::kAuthEvent),
          manager.get(Field::kReauthMode),
          manager.get(Field::kPendingEraNumber),
          manager.get(Field::kAuthError)};
}

bool is_proactive(PyObject* mode) {
  return mode == proactive_mode() || python::equal(mode, proactive_mode());
}

void raise_stored_error(AuthManager& manager) {
  const Ref failure = manager.get(Field::kAuthError);
  if (!failure.is_none()) manager.raise_again(failure.get());
}

/// Keeps `_refresh_done` from being cleared between a look at the token's age and the wait.
class RefreshWaiter {
 public:
  explicit RefreshWaiter(AuthManager& manager) noexcept : manager_(manager) { ++manager_.refresh_waiters; }
  ~RefreshWaiter() {
    if (manager_.refresh_waiters > 0) --manager_.refresh_waiters;
    if (!manager_.refresh_done_is_stale) return;
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
        return token_after_running_authentication();
      case State::kAuthenticated:
        return token_of_authenticated();
      case State::kUninitialized:
      case State::kUnknown:
        break;
    }
    raise_auth_error(reason::kNotAuthenticated);
  }

 private:
  /// The old token while it is good and a scheduled refresh only waits for a server that is away; else empty.
  Ref token_while_refresh_backs_off() {
    const bool may_serve = is_proactive(seen_.reauth_mode.get()) && seen_.pending_era.is_none() &&
                           manager_.is_true(Field::kInTransientBackoff) && !seen_.token.is_none() &&
                           !seen_.token_expiry.is_none() && !seen_.permanent_error;
    if (!may_serve) return {};
    const Ref now = manager_.call_own(names::get_time);
    if (!python::less(now.get(), seen_.token_expiry.get())) return {};
    const Locked lock(manager_);
    manager_.raise_if_closed();
    return backing_off_still(now.get()) ? manager_.get(Field::kToken) : Ref();
  }

  bool backing_off_still(PyObject* now) const {
    return manager_.state() == State::kReAuthenticating &&
           is_proactive(manager_.get(Field::kReauthMode).get()) &&
           manager_.is_none(Field::kPendingEraNumber) && manager_.is_none(Field::kAuthError) &&
           manager_.get(Field::kAuthEvent).get() == seen_.auth_event.get() &&
           manager_.is_true(Field::kInTransientBackoff) &&
           python::equal(manager_.get(Field::kToken).get(), seen_.token.get()) &&
           !manager_.is_none(Field::kTokenExpiry) &&
           python::less(now, manager_.get(Field::kTokenExpiry).get()) &&
           !manager_.is_true(Field::kPermanentRefreshError);
  }

  Ref token_after_running_authentication() {
    if (!seen_.auth_event.is_none()) manager_.wait_for_flow(seen_.auth_event.get());
    {
      const Locked lock(manager_);
      manager_.raise_if_closed();
      manager_.raise_if_pending_era();
      raise_stored_error(manager_);
      manager_.raise_if_renewal_is_hopeless();
      Ref token = manager_.get(Field::kToken);
      if (!token.is_none()) return token;
    }
    raise_auth_error(reason::kTokenExpired);
  }

  Ref token_of_authenticated() {
    if (!seen_.pending_era.is_none()) {
      if (!seen_.auth_error.is_none()) manager_.raise_again(seen_.auth_error.get());
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
    // A refresh thread that slept through a suspension of the machine learns of the expiry only so.
    manager_.set_event(Field::kRefreshEvent);
    const Ref fallback = Ref::boolean(manager_.event_is_set(Field::kRefreshPending));
    const ExpiredToken expired(manager_, seen_.token.get());
    return python::call_method(manager_.object(), names::poll_for_reauth, {},
                               {{names::fallback_to_current_token, fallback.get()}});
  }

  /// When the token was stored, if its refresh point has come; else empty.
  Ref auth_time_if_refresh_due(PyObject* now) {
    Ref auth_time;
    Ref refresh_at;
    {
      const Locked lock(manager_);
      auth_time = manager_.get(Field::kAuthTime);
      refresh_at = manager_.get(Field::kRefreshAt);
    }
    const bool due = !auth_time.is_none() && !refresh_at.is_none() && python::at_least(now, refresh_at.get());
    return due ? std::move(auth_time) : Ref();
  }

  Ref token_after_nudge(PyObject* auth_time) {
    nudge_and_wait(auth_time);
    {
      const Locked lock(manager_);
      manager_.raise_if_closed();
      manager_.raise_if_pending_era();
      manager_.raise_if_renewal_is_hopeless();
      Ref token = manager_.get(Field::kToken);
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

  /// Whether the refresh asked for has come and gone already, its signal with it.
  bool stored_since(PyObject* auth_time) {
    const Locked lock(manager_);
    return !python::equal(manager_.get(Field::kAuthTime).get(), auth_time);
  }

  Ref confirmed_token() {
    Ref running;
    for (;;) {
      if (running) manager_.wait_for_flow(running.get());
      const Locked lock(manager_);
      manager_.raise_if_closed();
      if (manager_.state() == State::kReAuthenticating) {
        running = event_of_running_authentication();
        continue;
      }
      manager_.raise_if_pending_era();
      manager_.raise_if_renewal_is_hopeless();
      if (manager_.state() != State::kAuthenticated) raise_auth_error(reason::kNotAuthenticated);
      Ref token = manager_.get(Field::kToken);
      if (!token.is_none()) return token;
      break;
    }
    raise_auth_error(reason::kNotAuthenticated);
  }

  Ref event_of_running_authentication() {
    Ref event = manager_.get(Field::kAuthEvent);
    if (event.is_none()) raise_auth_error(reason::kTokenExpired);
    if (python::truthy(python::call_method(event.get(), names::is_set).get())) {
      manager_.raise_if_pending_era();
      raise_stored_error(manager_);
      raise_auth_error(reason::kTokenExpired);
    }
    return event;
  }

  AuthManager& manager_;
  const Snapshot seen_;
};

}  // namespace

Ref AuthManager::get_token() {
  if (Ref token = token_if_healthy()) return token;
  return Serving(*this).run();
}

}  // namespace tessaline::auth
