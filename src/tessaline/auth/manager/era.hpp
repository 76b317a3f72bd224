#pragma once

#include <Python.h>

namespace tessaline::auth {

/// Whether the token's era is known and at least `era`.
bool meets_era(PyObject* token, PyObject* era);

}  // namespace tessaline::auth
