#pragma once

#include <Python.h>

namespace tessaline::auth::binding {

/// Makes the component's exception types and puts them into the module's namespace.
void add_error_types(PyObject* module);

}  // namespace tessaline::auth::binding
