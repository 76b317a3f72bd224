#pragma once

#include <Python.h>

namespace tessaline::auth::python {

/// The function behind `time.time`, once it was seen. Programs that play with time put another one behind the
/// same object.
inline PyCFunction wall_clock_function = nullptr;

/// Learns the function where the clock is `time.time` and it is the interpreter's; whether it is.
bool learn_wall_clock(PyObject* clock) noexcept;

/// Whether the clock is `time.time` itself, with the interpreter's function behind it. False where that
/// cannot be told.
inline bool is_wall_clock(PyObject* clock) noexcept {
  if (clock == nullptr || !PyCFunction_CheckExact(clock)) return false;
  return PyCFunction_GET_FUNCTION(clock) == wall_clock_function || learn_wall_clock(clock);
}

/// Whether an instant is ahead of the wall clock as it stood at the kernel's last tick, which costs a
/// fraction of an exact reading. False says nothing.
bool is_far_ahead(double instant) noexcept;

}  // namespace tessaline::auth::python
