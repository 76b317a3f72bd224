#pragma once

#include <Python.h>

#include "tessaline/auth/python/ref.hpp"

// Libraries of green threads put locks of their own in the place of the interpreter's, before or after our
// import. Waiting for one of the interpreter's would then stop every thread of theirs.

namespace tessaline::auth::python {

/// Whether it is a `threading.Lock` of the interpreter's own type, which nobody can patch.
bool is_plain_lock(PyObject* lock) noexcept;

/// Learns what `threading` makes its locks with, and how to ask one. Called once, when the module is
/// executed.
void know_locks(PyObject* threading);

/// What makes the locks of `threading` now, where that is the interpreter's own function; else empty. Needs
/// no memory.
Ref plain_lock_maker();

/// The type of `threading.Lock()` and the function behind its method `locked`, or null.
struct LockKind {
  PyTypeObject* type = nullptr;
  PyCFunction is_held = nullptr;
};

inline LockKind lock_kind;

/// Whether nobody holds it. False also where that cannot be told.
inline bool is_free(PyObject* lock) noexcept {
  return lock != nullptr && lock_kind.is_held != nullptr && Py_IS_TYPE(lock, lock_kind.type) &&
         lock_kind.is_held(lock, nullptr) == Py_False;
}

}  // namespace tessaline::auth::python
