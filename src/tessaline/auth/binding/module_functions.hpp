#pragma once

#include <Python.h>

namespace tessaline::auth::binding {

/// Adds the module's functions: those before the active-manager slot, and those after it.
void add_functions(PyObject* module);
void add_active_manager_functions(PyObject* module);

}  // namespace tessaline::auth::binding
