#pragma once

#include <Python.h>

#if defined(PYPY_VERSION) || defined(Py_GIL_DISABLED) || PY_VERSION_HEX < 0x030D0000 || !defined(__linux__)
#error "tessaline runs on CPython 3.13 or later, with its global interpreter lock, on Linux"
#endif

namespace tessaline::auth::python {

/// Whether to use internals that Python does not document: the parts of an event, the function behind a
/// builtin, a type's version tag. Each file that uses some also checks its assumptions at initialisation, and
/// calls Python instead if they do not hold.
///
/// False on a Python newer than all that have been tested, and on any Python if TESSALINE_UNTRIED_PYTHON is
/// in the environment.
bool inside_is_known() noexcept;

}  // namespace tessaline::auth::python
