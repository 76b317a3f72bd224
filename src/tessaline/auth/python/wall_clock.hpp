#pragma once

#include <Python.h>

namespace tessaline::auth::python {

/// The function behind `time.time`, once known. Libraries that fake the time may put another one behind the
/// same object.
inline PyCFunction wall_clock_function = nullptr;

/// Remembers the function if the clock is `time.time` and the function is the interpreter's; returns whether
/// it is.
bool learn_wall_clock(PyObject* clock) noexcept;

/// Whether the clock is `time.time` itself, with the interpreter's function behind it. False also if that is
/// unknown.
inline bool is_wall_clock(PyObject* clock) noexcept {
  if (clock == nullptr || !PyCFunction_CheckExact(clock)) return false;
  return PyCFunction_GET_FUNCTION(clock) == wall_clock_function || learn_wall_clock(clock);
}

/// Whether an instant is later than the wall clock at the kernel's last tick, which is much cheaper to read
/// than the exact time. False means unknown.
bool is_far_ahead(double instant) noexcept;

}  // namespace tessaline::auth::python
