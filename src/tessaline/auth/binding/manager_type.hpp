#pragma once

#include <Python.h>

namespace tessaline::auth::binding {

/// Creates the class `AuthManager` and puts it into the module's namespace.
void add_manager_type(PyObject* module);

}  // namespace tessaline::auth::binding
