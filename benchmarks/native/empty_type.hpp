#pragma once

#define PY_SSIZE_T_CLEAN
#include <Python.h>

namespace tessaline::benchmarks {

/// Adds to the module a heap type `Empty` whose method `get_token` does nothing. Returns 0, or -1 with an
/// exception.
int add_empty_type(PyObject* module);

}  // namespace tessaline::benchmarks
