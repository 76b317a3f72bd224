#pragma once

#include <Python.h>

#if defined(PYPY_VERSION) || defined(Py_GIL_DISABLED) || PY_VERSION_HEX < 0x030D0000 || !defined(__linux__)
#error "tessaline runs on CPython 3.13 or later, with its global interpreter lock, on Linux"
#endif

namespace tessaline::auth::python {

/// Whether to look at what Python does not document: the parts of an event, the function behind a builtin, a
/// type's version tag. Each file that does so checks besides, when the module is executed, that what it finds
/// is as it expects, and calls Python instead where it is not.
///
/// False on a Python newer than all that the component has been tried on, and where the environment has
/// TESSALINE_UNTRIED_PYTHON: with it, any Python is taken for such a one.
bool inside_is_known() noexcept;

}  // namespace tessaline::auth::python
