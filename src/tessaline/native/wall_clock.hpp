#pragma once

#include <Python.h>

namespace tessaline::native {

/// Learns what `time.time` is, at import.
void know_wall_clock();

/// Whether `clock` is `time.time` itself and is surely before `instant` (seconds). False says nothing.
bool surely_before(PyObject* clock, double instant) noexcept;

}  // namespace tessaline::native
