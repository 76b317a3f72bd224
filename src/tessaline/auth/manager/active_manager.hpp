#pragma once

#include <Python.h>

// The one manager of the process that receives era announcements. Its slot and lock are module-level names.

namespace tessaline::auth {

/// Registers a manager and keeps a reference until it is replaced; None unregisters.
void set_active_auth_manager(PyObject* manager);

/// Passes the announcement to the registered manager, if any, without holding the lock.
void notify_active_manager(PyObject* new_era_number);

}  // namespace tessaline::auth
