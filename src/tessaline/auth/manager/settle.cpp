#include <optional>
#include <utility>

#include "tessaline/auth/errors/errors.hpp"
#include "tessaline/auth/errors/notes.hpp"
#include "tessaline/auth/manager/held_lock.hpp"
#include "tessaline/auth/manager/process_generation.hpp"
#include "tessaline/auth/names.hpp"
#include "tessaline/auth/python/python.hpp"

// How attempts begin, are waited for and end.

namespace tessaline::auth {
namespace {

/// How often to check whether a runner is lost: its thread ended before its first line, or this is a forked
/// child.
constexpr double kLostRunnerSeconds = 1.0;

/// `str(error)`, or the name of its type if that fails.
Ref text_or_name_of(PyObject* error) {
  Ref text;
  if (python::caught([&] { text = python::text_of(error); })) {
    text = python::checked(PyType_GetName(Py_TYPE(error)));
  }
  return text;
}

/// The state after a failure; the old token stays, but is not served while an era is pending.
void leave_attempt(const HeldLock& held, const Attempt& failed, Attempt::Kind run_as) {
  const bool is_login = run_as == Attempt::Kind::kLogin;
  // A program may have set another state.
  if (is_login && held.state() != State::kAuthenticating) return;
  bool stays_authenticated = true;
  if (is_login) stays_authenticated = failed.follows_token && !held.is_none(Field::kToken);
  if (run_as == Attempt::Kind::kRenewal) stays_authenticated = !held.is_none(Field::kPendingEraNumber);
  held.set_state(stays_authenticated ? State::kAuthenticated : State::kUninitialized);
  held.set(Field::kReauthMode, Ref::none());
}

/// Ends a re-authentication whose thread ended before its first line.
void settle_if_lost(AuthManager& manager, const AttemptRef& awaited) {
  {
    const HeldLock held(manager);
    const bool is_current = manager.attempt == awaited.get() && held.state() == State::kReAuthenticating;
    if (!is_current || !awaited->is_lost()) return;
  }
  const std::optional<python::Error> failure = python::caught(
      [] { python::raise(PyExc_RuntimeError, "the thread of the re-authentication ended before it began"); });
  if (failure) manager.settle_failure(awaited, Attempt::Kind::kEraChange, *failure, awaited.get());
}

}  // namespace

void AuthManager::begin_attempt(const HeldLock& held, AttemptRef begun, State state, PyObject* mode) {
  held.set_state(state);
  held.set(Field::kReauthMode, Ref::borrow(mode));
  held.set(Field::kAuthEvent, Ref::borrow(begun->event.get()));
  held.set(Field::kAuthError, Ref::none());
  replace_attempt(held, std::move(begun));
}

void AuthManager::replace_attempt(const HeldLock& held, AttemptRef replacement) noexcept {
  if (attempt->has_last_holder()) {
    for (Ref& kept : attempt->take_errors()) held.drop_later(std::move(kept));
    held.drop_later(std::move(attempt->event));
    held.drop_later(std::move(attempt->thread));
  }
  AttemptRef::give_back(std::exchange(attempt, replacement.release()));
}

AttemptRef AuthManager::attempt_to_wait_for(const HeldLock& held) const {
  Ref event = held.get(Field::kAuthEvent);
  if (event.get() == attempt->event.get()) return current_attempt();
  return Attempt::make(Attempt::Kind::kProgram, std::move(event));
}

AttemptRef AuthManager::adopt_attempt() {
  const HeldLock held(*this);
  AttemptRef adopted = attempt_to_wait_for(held);
  if (adopted.get() != attempt) replace_attempt(held, adopted);
  return adopted;
}

bool AuthManager::wait_for(const AttemptRef& awaited) {
  PyObject* const event = awaited->event.get();
  const unsigned long here = python::line_of_execution();
  if ((awaited->is_run_by(here) || attempt->is_run_by(here)) && !is_set(event)) {
    python::raise(PyExc_RuntimeError,
                  "AuthManager was asked to wait by code that its own authentication runs",
                  notes::kWaitInLogin);
  }
  // A signal handler may fork on the main thread. A program's own event may not support time-outs.
  const bool may_lose_runner = awaited->kind == Attempt::Kind::kEraChange || python::on_main_thread();
  if (awaited->kind == Attempt::Kind::kProgram || !may_lose_runner) {
    python::wait_event(event);
    return true;
  }
  while (!python::wait_event(event, kLostRunnerSeconds)) {
    if (awaited->is_left_behind()) {
      if (generation != process_generation()) begin_anew_in_child();
      return false;
    }
    settle_if_lost(*this, awaited);
  }
  return true;
}

Ref AuthManager::outcome_of(const HeldLock& held, const Attempt& ended) const {
  const bool is_superseded = attempt != &ended && ended.kind != Attempt::Kind::kProgram;
  if (!is_superseded) return held.get(Field::kAuthError);
  return ended.failure ? Ref::borrow(ended.failure.get()) : Ref::none();
}

void AuthManager::settle_failure(const AttemptRef& failed, Attempt::Kind run_as, const python::Error& error,
                                 const Attempt* expected) {
  const python::Handling handling(error);
  const Ref recorded = recorded_error(error);
  const bool permanent = run_as != Attempt::Kind::kLogin && is_permanent(error);
  bool wakes = true;
  std::optional<python::Error> interruption = python::caught([&] {
    python::until_done([&] {
      const HeldLock held(*this);
      if (held.closed()) {
        // close() has woken all waiters and stored its error for them.
        const bool is_login = run_as == Attempt::Kind::kLogin;
        if (is_login && held.is_none(Field::kAuthError))
          held.set(Field::kAuthError, Ref::borrow(recorded.get()));
        wakes = is_login || attempt != expected;
        return;
      }
      failed->keep_failure(held, recorded.get());
      if (failed->phase == Attempt::Phase::kBegun) failed->phase = Attempt::Phase::kEnded;
      if (attempt != expected) return;
      if (permanent) held.set(Field::kPermanentRefreshError, true);
      leave_attempt(held, *failed, run_as);
      record_failure(held, recorded.get());
      if (run_as == Attempt::Kind::kRenewal) set_event(Field::kRefreshDone);
    });
  });
  if (wakes) wake_waiters_of(*failed);
  if (interruption) throw std::move(*interruption);
}

void AuthManager::record_failure(const HeldLock& held, PyObject* recorded) {
  held.set(Field::kAuthError, Ref::borrow(recorded));
  held.set_auth_event();
}

void AuthManager::wake_waiters_of(const Attempt& ended) {
  if (ended.event.is_none()) return;
  python::until_done([&] {
    if (!is_set(ended.event.get())) python::set_event(ended.event.get());
  });
}

void AuthManager::raise_stored(const HeldLock& held, PyObject* error) {
  held.raise_if_closed();
  // A finalizer may release the manager's share.
  const AttemptRef kept = current_attempt();
  kept->raise_stored(held, error);
}

Ref recorded_error(const python::Error& error) noexcept {
  if (error.matches(error_types().auth)) return Ref::borrow(error.exception());
  Ref recorded;
  // A new exception would hide the failure that is being stored.
  static_cast<void>(python::caught([&] {
    python::until_done(
        [&] { recorded = new_recorded_error(text_or_name_of(error.exception()).get(), error.exception()); });
  }));
  return recorded ? std::move(recorded) : Ref::borrow(error.exception());
}

bool is_permanent(const python::Error& error) noexcept {
  if (!error.matches(error_types().auth)) return false;
  bool permanent = false;
  static_cast<void>(python::caught([&] {
    const Ref why = python::attribute(error.exception(), names::reason);
    permanent = PyUnicode_Check(why.get()) &&
                python::contains(python::global(names::permanent_reasons).get(), why.get());
  }));
  return permanent;
}

}  // namespace tessaline::auth
