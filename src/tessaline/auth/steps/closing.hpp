#pragma once

#include <Python.h>

namespace tessaline::auth {

/// Whether the manager is being closed, or was: `_close_event` is set.
bool is_closing(PyObject* manager);

/// Raises AuthError "manager_closed" then.
void raise_if_closing(PyObject* manager);

}  // namespace tessaline::auth
