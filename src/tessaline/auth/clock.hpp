#pragma once

#include "tessaline/auth/python/ref.hpp"

namespace tessaline::auth {

/// What the manager's clock says now, unchanged (seconds).
python::Ref read_clock(PyObject* manager);

/// Waits until the manager's clock has moved on by `seconds`, looking every 0.05 s of real time. Ends early
/// when the manager closes, and when the clock has stood still for more than 1.0 s of real time.
void wait_with_clock(PyObject* manager, PyObject* seconds);

}  // namespace tessaline::auth
