#pragma once

#include <Python.h>

#include "tessaline/auth/python/ref.hpp"

namespace tessaline::native {

/// `Serving`, the base class of what returns tokens: `get_token` is native, whatever has to wait is in the
/// subclass.
void add_serving_type(PyObject* module);

/// Gives a subclass its own `get_token`: the interpreter optimises the call of a native method only on the
/// very type that defines it. Returns the class.
auth::python::Ref with_own_get_token(PyObject* subclass);

}  // namespace tessaline::native
