#pragma once

#include <Python.h>

#include "tessaline/auth/python/ref.hpp"

// Libraries of green threads put locks of their own in the place of the interpreter's, before or after our
// import. Waiting for one of the interpreter's would then stop every thread of theirs.

namespace tessaline::auth::python {

/// Whether it is a `threading.Lock` of the interpreter's own type, which nobody can patch.
bool is_plain_lock(PyObject* lock) noexcept;

/// Learns where `threading` looks up what makes its locks. Called once, when the module is executed.
void know_lock_maker(PyObject* threading);

/// What makes the locks of `threading` now, where that is the interpreter's own function; else empty. Needs
/// no memory.
Ref plain_lock_maker();

}  // namespace tessaline::auth::python
