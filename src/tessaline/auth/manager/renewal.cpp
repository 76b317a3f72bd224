#include <optional>
#include <utility>

#include "tessaline/auth/errors/errors.hpp"
#include "tessaline/auth/manager/manager.hpp"
#include "tessaline/auth/names.hpp"
#include "tessaline/auth/python/python.hpp"
#include "tessaline/auth/manager/refresh_loop.hpp"

namespace tessaline::auth {
namespace {

/// Makes `thread` the newest refresh thread and gives back the one before it.
Ref supersede(AuthManager& manager, PyObject* thread) {
  Ref before = Ref::steal(std::exchange(manager.at(Hidden::kNewestRefreshThread), Py_NewRef(thread)));
  if (!before) return before;
  PyObject*& older = manager.at(Hidden::kOlderRefreshThreads);
  if (older == nullptr) older = python::checked(PyList_New(0)).release();
  python::checked(PyList_Append(older, before.get()));
  return before;
}

/// Undoes `supersede` for a thread that did not start.
void restore(AuthManager& manager, Ref before) {
  if (before) python::call_method(manager.at(Hidden::kOlderRefreshThreads), names::remove, {before.get()});
  python::drop(std::exchange(manager.at(Hidden::kNewestRefreshThread), before.release()));
}

/// Wakes those who wait for the refresh; the state after it depends on whether an era is pending.
void settle_failed_refresh(AuthManager& manager, const python::Error& error, unsigned long attempt,
                           PyObject* own_event) {
  const Ref recorded = recorded_error(error);
  const bool permanent = is_permanent(error);
  python::insist([&] {
    const Locked lock(manager);
    if (manager.closed()) return;
    // Another attempt has taken over; its outcome counts.
    if (manager.attempt != attempt) return python::set_event(own_event);
    if (permanent) manager.set(Field::kPermanentRefreshError, true);
    manager.set_state(manager.is_none(Field::kPendingEraNumber) ? State::kUninitialized
                                                                : State::kAuthenticated);
    manager.set(Field::kReauthMode, Ref::none());
    manager.settle_attempt(recorded.get());
    manager.set_event(Field::kRefreshDone);
  });
}

}  // namespace

Ref AuthManager::start_refresh() {
  {
    const Locked lock(*this);
    if (closed()) return Ref::none();
    // Starting renewal also re-arms the close signal.
    for (const Field event : {Field::kRefreshStop, Field::kCloseEvent, Field::kRefreshPending}) {
      clear_event(event);
    }
    clear_refresh_done();
  }
  const Ref thread = new_daemon_thread(names::refresh_loop);
  Ref before = supersede(*this, thread.get());
  std::optional<python::Error> failure =
      python::caught([&] { python::call_method(thread.get(), names::start); });
  if (failure && !is_alive(thread.get())) {
    const python::Handling handling(*failure);
    if (at(Hidden::kNewestRefreshThread) == thread.get()) {
      restore(*this, std::move(before));
    }
    record_unstarted_refresh(*failure);
    throw std::move(*failure);
  }
  const Locked lock(*this);
  if (!closed() && at(Hidden::kNewestRefreshThread) == thread.get()) {
    set(Field::kRefreshThread, Ref::borrow(thread.get()));
  }
  // Ctrl-C may have ended the start after the thread had begun.
  if (failure) throw std::move(*failure);
  return Ref::none();
}

Ref AuthManager::new_daemon_thread(const python::Name& method) {
  const Ref body = python::attribute(object(), method);
  return python::call_method(python::global(names::threading).get(), names::thread, {},
                             {{names::target, body.get()}, {names::daemon, Py_True}});
}

void AuthManager::record_unstarted_refresh(const python::Error& error) {
  const Ref recorded = recorded_error(error);
  const bool permanent = is_permanent(error);
  python::insist([&] {
    const Locked lock(*this);
    if (closed()) return;
    set_event(Field::kRefreshDone);
    // An authentication that has begun meanwhile has an outcome and waiters of its own.
    const bool idle = state() == State::kAuthenticated || reauthentication_is_orphaned();
    if (!idle && state() != State::kUninitialized) return;
    set(Field::kAuthError, Ref::borrow(recorded.get()));
    if (permanent) set(Field::kPermanentRefreshError, true);
    if (!idle) return;
    set_state(State::kAuthenticated);
    set(Field::kReauthMode, Ref::none());
    if (!is_none(Field::kAuthEvent)) set_event(Field::kAuthEvent);
  });
}

RenewalRunning::~RenewalRunning() {
  if (manager_.renewals_running > 0) --manager_.renewals_running;
}

bool AuthManager::reauthentication_is_orphaned() {
  return state() == State::kReAuthenticating && renewals_running == 0 && !is_alive(at(Hidden::kEraThread));
}

void AuthManager::revive_refresh() {
  {
    const Locked lock(*this);
    if (state() != State::kAuthenticated) return;
  }
  if (is_alive(at(Hidden::kNewestRefreshThread))) return;
  std::optional<python::Error> failure = python::caught([this] { call_own(names::start_refresh); });
  // Recorded by the attempt itself; the caller is about to get the failure that led here.
  if (failure && !failure->matches(PyExc_Exception)) throw std::move(*failure);
}

Ref AuthManager::refresh_loop() {
  RefreshLoop(*this).run();
  return Ref::none();
}

Ref AuthManager::do_refresh() {
  // A refresh that did not begin would have nothing to record it.
  Ref event;
  python::insist([&] { event = new_event(); });
  unsigned long own_attempt = 0;
  {
    const Locked lock(*this);
    if (state() != State::kAuthenticated) return Ref::none();
    own_attempt = ++attempt;
    ++renewals_running;
    set_state(State::kReAuthenticating);
    set(Field::kReauthMode,
        Ref::borrow(is_none(Field::kPendingEraNumber) ? proactive_mode() : era_change_mode()));
    set(Field::kAuthEvent, Ref::borrow(event.get()));
    set(Field::kAuthError, Ref::none());
  }
  bool stored = false;
  {
    const RenewalRunning until_it_is_settled(*this);
    const std::optional<python::Error> failure = python::caught([&] { stored = renew(); });
    if (failure) {
      const python::Handling handling(*failure);
      settle_failed_refresh(*this, *failure, own_attempt, event.get());
    }
  }
  if (stored) start_next_refresh();
  return Ref::none();
}

bool AuthManager::renew() {
  const FlowOnThread here(*this);
  const Ref era_before = highest_era();
  const auto [token, expires_at, secret] =
      python::unpack3(call_own(names::do_auth_flow_matching_pending_era).get());
  const Locked lock(*this);
  if (closed()) return false;
  require_era_announced_since(era_before.get(), token.get());
  call_own(names::store_auth_result, {token.get(), secret.get()});
  return true;
}

void AuthManager::start_next_refresh() {
  const std::optional<python::Error> failure = python::caught([this] { call_own(names::start_refresh); });
  if (!failure) return;
  // The new token is in place and stays; the failure is for the next caller to see.
  const python::Handling handling(*failure);
  record_unstarted_refresh(*failure);
}

}  // namespace tessaline::auth
