#pragma once

#include <Python.h>

#include "tessaline/auth/python/ref.hpp"

// Libraries of green threads replace the interpreter's locks, before or after our import. Waiting for one of
// the interpreter's would then block all their threads.

namespace tessaline::auth::python {

/// Whether it is a `threading.Lock` of the interpreter's own type, which cannot be patched.
bool is_plain_lock(PyObject* lock) noexcept;

/// Looks up how `threading` makes its locks and queries them. Called once, by the module's initialisation.
void know_locks(PyObject* threading);

/// What currently makes the locks of `threading`, if that is the interpreter's own function; else empty.
/// Needs no memory.
Ref plain_lock_maker();

/// The type of `threading.Lock()` and the function behind its method `locked`, or null.
struct LockKind {
  PyTypeObject* type = nullptr;
  PyCFunction is_held = nullptr;
};

inline LockKind lock_kind;

/// Whether the lock is free. False also if that is unknown.
inline bool is_free(PyObject* lock) noexcept {
  return lock != nullptr && lock_kind.is_held != nullptr && Py_IS_TYPE(lock, lock_kind.type) &&
         lock_kind.is_held(lock, nullptr) == Py_False;
}

}  // namespace tessaline::auth::python
