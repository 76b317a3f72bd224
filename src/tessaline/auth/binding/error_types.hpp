#pragma once

#include <Python.h>

namespace tessaline::auth::binding {

/// Creates the component's exception types and adds them to the module.
void add_error_types(PyObject* module);

}  // namespace tessaline::auth::binding
