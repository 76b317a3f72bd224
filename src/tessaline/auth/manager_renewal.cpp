#include <algorithm>
#include <utility>

#include "tessaline/auth/errors.hpp"
#include "tessaline/auth/manager.hpp"
#include "tessaline/auth/names.hpp"
#include "tessaline/auth/python/python.hpp"

namespace tessaline::auth {
namespace {

constexpr double kPollSeconds = 1.0;
constexpr double kInjectedPollSeconds = 0.05;  // an injected clock may move at any time

Ref this_thread() {
  return python::call_method(python::global(names::threading).get(), names::current_thread);
}

bool is_alive(PyObject* thread) {
  return thread != nullptr && thread != Py_None &&
         python::truthy(python::call_method(thread, names::is_alive).get());
}

/// One run of the refresh loop on its thread.
class RefreshLoop {
 public:
  explicit RefreshLoop(AuthManager& manager) : manager_(manager), me_(this_thread()) {}

  void run() {
    while (!stop_requested()) {
      try {
        if (pass() == Pass::kEnd) return;
      } catch (python::Error& error) {
        // A clock that fails now may work later; a loop that ended would leave the token to age.
        record(error);
        wait(poll_seconds());
      }
    }
  }

 private:
  enum class Pass { kAgain, kEnd };

  bool stop_requested() const {
    return manager_.event_is_set(Field::kRefreshStop) || manager_.event_is_set(Field::kCloseEvent);
  }

  Pass pass() {
    State state;
    Ref refresh_at;
    {
      const python::ScopedLock lock(manager_.get(Field::kLock));
      state = manager_.state();
      if (state == State::kClosed || superseded()) return Pass::kEnd;
      refresh_at = manager_.get(Field::kRefreshAt);
    }
    if (state != State::kAuthenticated || refresh_at.is_none()) {
      wait(poll_seconds());
      return Pass::kAgain;
    }
    const Ref now = manager_.call_own(names::get_time);
    if (!python::less(now.get(), refresh_at.get())) {
      manager_.set_event(Field::kRefreshPending);
      refresh();
      return Pass::kEnd;
    }
    wait(wait_seconds(python::double_value(python::subtract(refresh_at.get(), now.get()).get())));
    return Pass::kAgain;
  }

  void refresh() {
    try {
      manager_.call_own(names::do_refresh);
    } catch (python::Error& error) {
      record(error);
    }
  }

  /// Whether a newer refresh thread has taken over.
  bool superseded() {
    PyObject* const newest = manager_.newest_refresh_thread;
    if (newest != nullptr && newest != me_.get()) return true;
    const Ref registered = manager_.get(Field::kRefreshThread);
    if (registered.get() == me_.get()) was_registered_ = true;
    return was_registered_ && !registered.is_none() && registered.get() != me_.get();
  }

  double poll_seconds() const {
    return manager_.is_true(Field::kUsesInjectedClock) ? kInjectedPollSeconds : kPollSeconds;
  }

  double wait_seconds(double remaining) const {
    const double poll = poll_seconds();
    return manager_.is_true(Field::kUsesInjectedClock) ? poll : std::max(poll, remaining);
  }

  void wait(double seconds) {
    const Ref event = manager_.get(Field::kRefreshEvent);
    python::call_method(event.get(), names::wait, {}, {{names::timeout, python::number(seconds).get()}});
    python::call_method(event.get(), names::clear);
  }

  void record(const python::Error& error) {
    const Ref recorded = recorded_error(error);
    const python::ScopedLock lock(manager_.get(Field::kLock));
    if (!manager_.closed()) manager_.set(Field::kAuthError, Ref::borrow(recorded.get()));
  }

  AuthManager& manager_;
  Ref me_;
  bool was_registered_ = false;
};

}  // namespace

Ref AuthManager::start_refresh() {
  {
    const python::ScopedLock lock(get(Field::kLock));
    if (closed()) return Ref::none();
    // Starting renewal also re-arms the close signal.
    for (const Field event :
         {Field::kRefreshStop, Field::kCloseEvent, Field::kRefreshPending, Field::kRefreshDone}) {
      clear_event(event);
    }
  }
  const Ref thread = new_daemon_thread(names::refresh_loop);
  python::drop(std::exchange(newest_refresh_thread, Py_NewRef(thread.get())));
  try {
    python::call_method(thread.get(), names::start);
  } catch (python::Error& error) {
    const python::Handling handling(error);
    if (newest_refresh_thread == thread.get()) python::drop(std::exchange(newest_refresh_thread, nullptr));
    record_unstarted_thread(error);
    throw;
  }
  const python::ScopedLock lock(get(Field::kLock));
  if (!closed() && newest_refresh_thread == thread.get())
    set(Field::kRefreshThread, Ref::borrow(thread.get()));
  return Ref::none();
}

Ref AuthManager::new_daemon_thread(const python::Name& method) {
  const Ref body = python::attribute(object(), method);
  return python::call_method(python::global(names::threading).get(), names::thread, {},
                             {{names::target, body.get()}, {names::daemon, Py_True}});
}

void AuthManager::record_unstarted_thread(const python::Error& error) {
  const Ref recorded = recorded_error(error);
  const python::ScopedLock lock(get(Field::kLock));
  if (closed()) return;
  set_state(State::kAuthenticated);
  set(Field::kReauthMode, Ref::none());
  set(Field::kAuthError, Ref::borrow(recorded.get()));
  if (!is_none(Field::kAuthEvent)) set_event(Field::kAuthEvent);
}

void AuthManager::revive_refresh() {
  {
    const python::ScopedLock lock(get(Field::kLock));
    if (state() != State::kAuthenticated) return;
  }
  if (is_alive(newest_refresh_thread) || is_alive(get(Field::kRefreshThread).get())) return;
  try {
    call_own(names::start_refresh);
  } catch (python::Error& error) {
    // Recorded by the attempt itself; the caller is about to get the failure that led here.
    if (!error.matches(PyExc_Exception)) throw;
  }
}

Ref AuthManager::refresh_loop() {
  RefreshLoop(*this).run();
  return Ref::none();
}

Ref AuthManager::do_refresh() {
  {
    const python::ScopedLock lock(get(Field::kLock));
    if (state() != State::kAuthenticated) return Ref::none();
    Ref event = new_event();
    set_state(State::kReAuthenticating);
    set(Field::kReauthMode,
        Ref::borrow(is_none(Field::kPendingEraNumber) ? proactive_mode() : era_change_mode()));
    set(Field::kAuthEvent, std::move(event));
    set(Field::kAuthError, Ref::none());
  }
  try {
    const auto [token, expires_at, secret] =
        python::unpack3(call_own(names::do_auth_flow_matching_pending_era).get());
    const python::ScopedLock lock(get(Field::kLock));
    if (closed()) return Ref::none();
    call_own(names::store_auth_result, {token.get(), secret.get()});
  } catch (python::Error& error) {
    const python::Handling handling(error);
    settle_failed_refresh(error);
    return Ref::none();
  }
  start_next_refresh();
  return Ref::none();
}

void AuthManager::settle_failed_refresh(const python::Error& error) {
  const Ref recorded = recorded_error(error);
  const bool permanent = is_permanent(error);
  python::insist([&] {
    const python::ScopedLock lock(get(Field::kLock));
    if (closed()) return;
    set(Field::kAuthError, Ref::borrow(recorded.get()));
    if (permanent) set(Field::kPermanentRefreshError, true);
    set_state(is_none(Field::kPendingEraNumber) ? State::kUninitialized : State::kAuthenticated);
    set(Field::kReauthMode, Ref::none());
    if (!is_none(Field::kAuthEvent)) set_event(Field::kAuthEvent);
    set_event(Field::kRefreshDone);
  });
}

void AuthManager::start_next_refresh() {
  try {
    call_own(names::start_refresh);
  } catch (python::Error& error) {
    // The new token is in place and stays; the failure is for the next caller to see.
    const python::Handling handling(error);
    record_unstarted_thread(error);
  }
}

}  // namespace tessaline::auth
