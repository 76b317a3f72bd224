#include "tessaline/auth/manager/era.hpp"

#include <optional>
#include <utility>

#include "tessaline/auth/errors/errors.hpp"
#include "tessaline/auth/errors/notes.hpp"
#include "tessaline/auth/manager/held_lock.hpp"
#include "tessaline/auth/names.hpp"
#include "tessaline/auth/python/python.hpp"

namespace tessaline::auth {
namespace {

void require_positive(PyObject* era_number) {
  const bool positive = python::with_note(notes::kEraNumberType,
                                          [&] { return python::less(python::integer(0).get(), era_number); });
  if (positive) return;
  const Ref text = python::text_of(era_number);
  const Ref message = python::checked(PyUnicode_FromFormat("era_number must be > 0, got %U", text.get()));
  python::raise(python::call(PyExc_ValueError, {message.get()}).get());
}

Ref era_of(PyObject* token) {
  return python::call(python::global(names::jwt_era_number).get(), {token});
}

bool is_at_least(PyObject* era, PyObject* required) {
  return era != Py_None && python::at_least(era, required);
}

/// Raises the required era, never lowers it.
void require_era(AuthManager& manager, const HeldLock& held, PyObject* era_number) {
  const Ref pending = held.get(Field::kPendingEraNumber);
  if (pending.is_none() || python::less(pending.get(), era_number)) {
    held.set(Field::kPendingEraNumber, Ref::borrow(era_number));
  }
  const Ref announced = manager.announced_era();
  if (announced.is_none() || python::less(announced.get(), era_number)) {
    held.drop_later(Ref::steal(std::exchange(manager.highest_era, Py_NewRef(era_number))));
  }
  held.set(Field::kReauthMode, Ref::borrow(era_change_mode()));
}

/// Records the announcement. Returns the attempt to start for it; empty if the running one will meet it.
AttemptRef announce(AuthManager& manager, PyObject* era_number) {
  AttemptRef own = Attempt::make(Attempt::Kind::kEraChange, AuthManager::new_event());
  const HeldLock held(manager);
  switch (held.state()) {
    case State::kClosed:
      raise_auth_error(reason::kManagerClosed);
    case State::kUninitialized:
      raise_auth_error(reason::kNotAuthenticated);
    case State::kAuthenticating:
    case State::kReAuthenticating:
      require_era(manager, held, era_number);
      return {};
    case State::kAuthenticated:
    case State::kUnknown:
      break;
  }
  require_era(manager, held, era_number);
  manager.begin_attempt(held, own, State::kReAuthenticating, era_change_mode());
  return own;
}

}  // namespace

bool meets_era(PyObject* token, PyObject* era) {
  return is_at_least(era_of(token).get(), era);
}

Ref AuthManager::announced_era() const {
  return Ref::borrow(highest_era == nullptr ? Py_None : highest_era);
}

void AuthManager::require_era_announced_since(const HeldLock& held, PyObject* era_before, PyObject* token) {
  const Ref announced = announced_era();
  if (announced.get() == era_before) return;
  // Storing checks an era that is still pending, after the wallet and its secret.
  if (is_at_least(held.get(Field::kPendingEraNumber).get(), announced.get())) return;
  if (!meets_era(token, announced.get())) raise_auth_error(reason::kEraMismatch);
}

Ref AuthManager::notify_era_change(PyObject* new_era_number) {
  require_positive(new_era_number);
  const AttemptRef begun = announce(*this, new_era_number);
  if (!begun) return Ref::none();
  Ref thread;
  std::optional<python::Error> failure = python::caught([&] {
    set_event(Field::kRefreshEvent);
    thread = new_daemon_thread(names::background_reauth);
    begun->thread = Ref::borrow(thread.get());
    python::call_method(thread.get(), names::start);
  });
  if (!failure) return Ref::none();
  // Ctrl-C may interrupt the start after the thread has begun, which then settles the attempt itself.
  if (!is_alive(thread.get())) settle_failure(begun, Attempt::Kind::kEraChange, *failure, begun.get());
  throw std::move(*failure);
}

Ref AuthManager::background_reauth() {
  bool stored = false;
  {
    AttemptRef own;
    python::until_done([&] { own = adopt_attempt(); });
    const Running here(own);
    const std::optional<python::Error> failure = python::caught([&] { stored = renew(); });
    if (failure) settle_failure(own, Attempt::Kind::kEraChange, *failure, own.get());
  }
  if (stored) start_next_refresh();
  return Ref::none();
}

}  // namespace tessaline::auth
