#pragma once

#include <Python.h>

#include "tessaline/auth/python/ref.hpp"

namespace tessaline::native {

/// `Serving`, the base of what hands out tokens: `get_token` is native, what must wait is the subclass's.
void add_serving_type(PyObject* module);

/// Gives a subclass a `get_token` of its own: the interpreter takes the short way to a native method only
/// where it is that of the very type. Returns the class.
auth::python::Ref with_own_get_token(PyObject* subclass);

}  // namespace tessaline::native
