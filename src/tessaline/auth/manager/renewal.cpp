#include <optional>
#include <utility>

#include "tessaline/auth/errors/errors.hpp"
#include "tessaline/auth/manager/held_lock.hpp"
#include "tessaline/auth/manager/refresh_loop.hpp"
#include "tessaline/auth/names.hpp"
#include "tessaline/auth/python/python.hpp"

namespace tessaline::auth {

Ref AuthManager::compute_refresh_at(PyObject* auth_time) {
  const Ref jitter =
      python::call_method(python::global(names::random).get(), names::uniform,
                          {python::number(-kRefreshJitter).get(), python::number(kRefreshJitter).get()});
  const Ref delay = python::multiply(python::global(names::token_lifetime).get(),
                                     python::global(names::refresh_ratio).get());
  const Ref factor = python::add(python::integer(1).get(), jitter.get());
  return python::add(auth_time, python::multiply(delay.get(), factor.get()).get());
}

Ref AuthManager::start_refresh() {
  {
    const HeldLock held(*this);
    if (held.closed()) return Ref::none();
    // Also resets the signal of close().
    clear_event(Field::kRefreshStop);
    clear_event(Field::kCloseEvent);
    clear_event(Field::kRefreshPending);
    clear_refresh_done();
  }
  const Ref thread = new_daemon_thread(names::refresh_loop);
  Ref before = refresh_threads.enlist(thread.get());
  std::optional<python::Error> failure =
      python::caught([&] { python::call_method(thread.get(), names::start); });
  if (failure && !is_alive(thread.get())) {
    refresh_threads.withdraw(thread.get(), std::move(before));
    record_unstarted_refresh(*failure);
    throw std::move(*failure);
  }
  const HeldLock held(*this);
  if (!held.closed() && refresh_threads.newest == thread.get()) {
    held.set(Field::kRefreshThread, Ref::borrow(thread.get()));
  }
  // Ctrl-C may have interrupted the start after the thread had begun.
  if (failure) throw std::move(*failure);
  return Ref::none();
}

Ref AuthManager::new_daemon_thread(const python::Name& method) {
  const Ref body = python::attribute(object(), method);
  return python::call_method(python::global(names::threading).get(), names::thread, {},
                             {{names::target, body.get()}, {names::daemon, Py_True}});
}

void AuthManager::clear_refresh_done() {
  refresh_waiters.signal_is_stale = refresh_waiters.count > 0;
  if (!refresh_waiters.signal_is_stale) clear_event(Field::kRefreshDone);
}

void AuthManager::record_unstarted_refresh(const python::Error& error) {
  const python::Handling handling(error);
  const Ref recorded = recorded_error(error);
  const bool permanent = is_permanent(error);
  python::until_done([&] {
    const HeldLock held(*this);
    if (held.closed()) return;
    set_event(Field::kRefreshDone);
    // An attempt in progress has its own outcome and waiters.
    const State state = held.state();
    const bool idle =
        state == State::kAuthenticated || (state == State::kReAuthenticating && !attempt->is_worked_on());
    if (!idle && state != State::kUninitialized) return;
    if (permanent) held.set(Field::kPermanentRefreshError, true);
    held.set(Field::kAuthError, Ref::borrow(recorded.get()));
    if (!idle) return;
    held.set_state(State::kAuthenticated);
    held.set(Field::kReauthMode, Ref::none());
    held.set_auth_event();
  });
}

void AuthManager::revive_refresh() {
  {
    const HeldLock held(*this);
    if (held.state() != State::kAuthenticated) return;
  }
  if (refresh_threads.is_newest_alive()) return;
  std::optional<python::Error> failure = python::caught([this] { call_own(names::start_refresh); });
  // Stored already; the caller raises the failure that led here.
  if (failure && !failure->matches(PyExc_Exception)) throw std::move(*failure);
}

Ref AuthManager::refresh_loop() {
  RefreshLoop(*this).run();
  return Ref::none();
}

Ref AuthManager::do_refresh() {
  // If making the attempt failed, nothing could store the failure.
  AttemptRef own;
  python::until_done([&] { own = Attempt::make(Attempt::Kind::kRenewal, new_event()); });
  bool stored = false;
  {
    const Running here(own);
    {
      const HeldLock held(*this);
      if (held.state() != State::kAuthenticated) return Ref::none();
      PyObject* const mode = held.is_none(Field::kPendingEraNumber) ? proactive_mode() : era_change_mode();
      begin_attempt(held, own, State::kReAuthenticating, mode);
    }
    const std::optional<python::Error> failure = python::caught([&] { stored = renew(); });
    if (failure) settle_failure(own, Attempt::Kind::kRenewal, *failure, own.get());
  }
  if (stored) start_next_refresh();
  return Ref::none();
}

bool AuthManager::renew() {
  const Ref era_before = announced_era();
  const auto [token, expires_at, secret] =
      python::unpack3(call_own(names::do_auth_flow_matching_pending_era).get());
  const HeldLock held(*this);
  if (held.closed()) return false;
  require_era_announced_since(held, era_before.get(), token.get());
  call_own(names::store_auth_result, {token.get(), secret.get()});
  return true;
}

void AuthManager::start_next_refresh() {
  const std::optional<python::Error> failure = python::caught([this] { call_own(names::start_refresh); });
  // The new token is stored; the failure is for the next caller.
  if (failure) record_unstarted_refresh(*failure);
}

}  // namespace tessaline::auth
