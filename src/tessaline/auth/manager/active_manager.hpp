#pragma once

#include <Python.h>

// The one manager of the process that hears of new eras. Its slot and lock are module-level names.

namespace tessaline::auth {

/// Registers a manager, which is kept alive until it is replaced; None unregisters.
void set_active_auth_manager(PyObject* manager);

/// Passes the announcement to the registered manager, without the lock; does nothing when there is none.
void notify_active_manager(PyObject* new_era_number);

}  // namespace tessaline::auth
