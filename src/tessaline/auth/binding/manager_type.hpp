#pragma once

#include <Python.h>

namespace tessaline::auth::binding {

/// Creates the class `AuthManager` and adds it to the module.
void add_manager_type(PyObject* module);

/// Whether it is an instance of that type or of a subclass.
bool is_manager(PyObject* object) noexcept;

}  // namespace tessaline::auth::binding
