#include <optional>
#include <utility>

#include "tessaline/auth/errors/advice.hpp"
#include "tessaline/auth/errors/errors.hpp"
#include "tessaline/auth/manager/manager.hpp"
#include "tessaline/auth/names.hpp"
#include "tessaline/auth/python/python.hpp"
#include "tessaline/auth/manager/refresh_loop.hpp"

namespace tessaline::auth {
namespace {

void require_positive(PyObject* era_number) {
  const bool positive = python::with_note(advice::kEraNumberType,
                                          [&] { return python::less(python::integer(0).get(), era_number); });
  if (positive) return;
  const Ref text = python::text_of(era_number);
  const Ref message = python::checked(PyUnicode_FromFormat("era_number must be > 0, got %U", text.get()));
  python::raise(python::call(PyExc_ValueError, {message.get()}).get());
}

/// Raises the required era, never lowers it.
void require_era(AuthManager& manager, PyObject* era_number) {
  const Ref pending = manager.get(Field::kPendingEraNumber);
  if (pending.is_none() || python::less(pending.get(), era_number)) {
    manager.set(Field::kPendingEraNumber, Ref::borrow(era_number));
  }
  const Ref highest = manager.highest_era();
  if (highest.is_none() || python::less(highest.get(), era_number)) {
    python::drop(std::exchange(manager.at(Hidden::kHighestEra), Py_NewRef(era_number)));
  }
  manager.set(Field::kReauthMode, Ref::borrow(era_change_mode()));
}

/// Records the announcement. Gives back the number and the event of the re-authentication that has to be
/// started for it; none when the flow already running will meet it.
std::optional<std::pair<unsigned long, Ref>> announce(AuthManager& manager, PyObject* era_number) {
  Ref event = AuthManager::new_event();
  const Locked lock(manager);
  switch (manager.state()) {
    case State::kClosed:
      raise_auth_error(reason::kManagerClosed);
    case State::kUninitialized:
      raise_auth_error(reason::kNotAuthenticated);
    case State::kAuthenticating:
    case State::kReAuthenticating:
      require_era(manager, era_number);
      return std::nullopt;
    case State::kAuthenticated:
    case State::kUnknown:
      break;
  }
  require_era(manager, era_number);
  manager.set_state(State::kReAuthenticating);
  manager.set(Field::kAuthEvent, Ref::borrow(event.get()));
  manager.set(Field::kAuthError, Ref::none());
  // Nobody is to take it for an orphan before its thread lives.
  ++manager.renewals_running;
  python::drop(std::exchange(manager.at(Hidden::kEraEvent), Py_NewRef(event.get())));
  return std::pair(++manager.attempt, std::move(event));
}

/// Whether a thread of the host's own kind has begun and ended.
bool has_ended(PyObject* thread) {
  if (thread == nullptr) return false;
  const Ref kept = Ref::borrow(thread);
  return !python::attribute(kept.get(), names::ident).is_none() &&
         python::call_method(kept.get(), names::is_alive).get() == Py_False;
}

/// The old token stays, and the announced era keeps it from being served.
void settle_failure(AuthManager& manager, const python::Error& error, unsigned long attempt,
                    PyObject* own_event) {
  const Ref recorded = recorded_error(error);
  const bool permanent = is_permanent(error);
  python::insist([&] {
    const Locked lock(manager);
    if (manager.closed()) return;
    // Another attempt has taken over; its outcome counts.
    if (manager.attempt != attempt) {
      if (own_event != Py_None) python::set_event(own_event);
      return;
    }
    if (permanent) manager.set(Field::kPermanentRefreshError, true);
    manager.set_state(State::kAuthenticated);
    manager.set(Field::kReauthMode, Ref::none());
    manager.settle_attempt(recorded.get());
  });
}

}  // namespace

Ref AuthManager::notify_era_change(PyObject* new_era_number) {
  require_positive(new_era_number);
  const auto announced = announce(*this, new_era_number);
  if (!announced) return Ref::none();
  const RenewalRunning until_its_thread_lives(*this);
  Ref thread;
  std::optional<python::Error> failure = python::caught([&] {
    set_event(Field::kRefreshEvent);
    thread = new_daemon_thread(names::background_reauth);
    python::drop(std::exchange(at(Hidden::kEraThread), Py_NewRef(thread.get())));
    python::call_method(thread.get(), names::start);
  });
  if (!failure) return Ref::none();
  // Ctrl-C may end the start after the thread has begun; then it settles the matter itself.
  if (!is_alive(thread.get())) {
    const python::Handling handling(*failure);
    settle_failure(*this, *failure, announced->first, announced->second.get());
  }
  throw std::move(*failure);
}

void AuthManager::settle_lost_reauthentication(PyObject* event) {
  unsigned long lost_attempt = 0;
  {
    const Locked lock(*this);
    const bool lost = state() == State::kReAuthenticating && at(Field::kAuthEvent) == event &&
                      renewals_running == 0 && has_ended(at(Hidden::kEraThread));
    if (!lost) return;
    lost_attempt = attempt;
  }
  const std::optional<python::Error> failure = python::caught(
      [] { python::raise(PyExc_RuntimeError, "the thread of the re-authentication ended before it began"); });
  if (failure) settle_failure(*this, *failure, lost_attempt, event);
}

Ref AuthManager::background_reauth() {
  const Ref event = get(Field::kAuthEvent);
  const unsigned long own_attempt = attempt;
  bool stored = false;
  const std::optional<python::Error> failure = python::caught([&] { stored = renew(); });
  if (failure) {
    const python::Handling handling(*failure);
    settle_failure(*this, *failure, own_attempt, event.get());
  }
  if (stored) start_next_refresh();
  return Ref::none();
}

}  // namespace tessaline::auth
