#pragma once

#include <Python.h>

namespace tessaline::auth {

/// Whether the manager is closing or closed: `_close_event` is set.
bool is_closing(PyObject* manager);

/// Raises AuthError "manager_closed" if so.
void raise_if_closing(PyObject* manager);

}  // namespace tessaline::auth
