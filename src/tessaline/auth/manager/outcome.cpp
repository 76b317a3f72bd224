#include <utility>

#include "tessaline/auth/errors/errors.hpp"
#include "tessaline/auth/manager/manager.hpp"
#include "tessaline/auth/names.hpp"
#include "tessaline/auth/python/python.hpp"

namespace tessaline::auth {
namespace {

/// `str(error)`, or the name of its type where it has no text form.
Ref text_or_name_of(PyObject* error) {
  Ref text;
  if (python::caught([&] { text = python::text_of(error); })) {
    text = python::checked(PyType_GetName(Py_TYPE(error)));
  }
  return text;
}

}  // namespace

void AuthManager::raise_again(PyObject* error) {
  if (at(Hidden::kRaisedError) == error) {
    python::set_traceback(error, at(Hidden::kRaisedTraceback));
  } else {
    Ref traceback = python::traceback_of(error);
    const Ref before = Ref::steal(std::exchange(at(Hidden::kRaisedTraceback), traceback.release()));
    python::drop(std::exchange(at(Hidden::kRaisedError), Py_NewRef(error)));
  }
  python::raise(error);
}

void AuthManager::settle_attempt(PyObject* recorded) {
  set(Field::kAuthError, Ref::borrow(recorded));
  if (is_none(Field::kAuthEvent)) return;
  PyObject* const before = std::exchange(at(Hidden::kFailedError), Py_NewRef(recorded));
  if (before != nullptr) retire(Ref::steal(before));
  python::drop(std::exchange(at(Hidden::kFailedEvent), get(Field::kAuthEvent).release()));
  set_event(Field::kAuthEvent);
}

Ref AuthManager::outcome_of(PyObject* event) {
  const bool superseded = at(Field::kAuthEvent) != event && !closed();
  const bool failed = superseded && at(Hidden::kFailedEvent) == event && at(Hidden::kFailedError) != nullptr;
  return failed ? Ref::borrow(at(Hidden::kFailedError)) : get(Field::kAuthError);
}

void AuthManager::retire(Ref error) noexcept {
  Ref before = Ref::steal(std::exchange(at(Hidden::kRetiredError), error.release()));
  if (!before) return;
  PyObject* const both = PyTuple_Pack(2, before.get(), at(Hidden::kRetiredError));
  if (both == nullptr) return PyErr_Clear();
  const Ref latest = Ref::steal(std::exchange(at(Hidden::kRetiredError), both));
}

void AuthManager::drop_retired_errors() noexcept {
  const Ref replaced = Ref::steal(std::exchange(at(Hidden::kRetiredError), nullptr));
  Ref settled;
  if (at(Field::kAuthError) == Py_None && at(Field::kState) == state_text(State::kAuthenticated)) {
    settled = Ref::steal(std::exchange(at(Hidden::kFailedError), nullptr));
  }
  if (at(Hidden::kRaisedError) == nullptr || at(Hidden::kRaisedError) == at(Field::kAuthError)) return;
  const Ref raised = Ref::steal(std::exchange(at(Hidden::kRaisedError), nullptr));
  const Ref traceback = Ref::steal(std::exchange(at(Hidden::kRaisedTraceback), nullptr));
}

Ref recorded_error(const python::Error& error) noexcept {
  if (error.matches(error_types().auth)) return Ref::borrow(error.exception());
  Ref recorded;
  // What is raised meanwhile would hide the failure that is being recorded.
  static_cast<void>(python::caught([&] {
    python::insist(
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
