#pragma once

#include <optional>
#include <utility>

#include "tessaline/auth/python/caught.hpp"
#include "tessaline/auth/python/ref.hpp"

namespace tessaline::auth {

/// The current reading of the manager's clock, unchanged (seconds).
python::Ref read_clock(PyObject* manager);

/// Waits until the manager's clock has advanced by `seconds`, polling it every 0.05 s of real time. Returns
/// early if the manager closes, or if the clock has not moved for more than 1.0 s of real time.
void wait_with_clock(PyObject* manager, PyObject* seconds);

/// Throws `failure`, with a note if `reading` is not a number.
[[noreturn]] void raise_of_reading(python::Error failure, PyObject* reading);

/// Runs `step`, which calculates with a reading of the manager's clock.
template <class Step>
void reckon_with(PyObject* reading, Step&& step) {
  std::optional<python::Error> failure = python::caught(std::forward<Step>(step));
  if (failure) raise_of_reading(std::move(*failure), reading);
}

}  // namespace tessaline::auth
