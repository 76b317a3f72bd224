#pragma once

#include <Python.h>

namespace tessaline::native {

/// `Serving`, the base of what hands out tokens: `get_token` is native, what must wait is the subclass's.
void add_serving_type(PyObject* module);

}  // namespace tessaline::native
