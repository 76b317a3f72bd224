#pragma once

#include <optional>
#include <utility>

#include "tessaline/auth/python/caught.hpp"
#include "tessaline/auth/python/ref.hpp"

namespace tessaline::auth {

/// What the manager's clock says now, unchanged (seconds).
python::Ref read_clock(PyObject* manager);

/// Waits until the manager's clock has moved on by `seconds`, looking every 0.05 s of real time. Ends early
/// when the manager closes, and when the clock has stood still for more than 1.0 s of real time.
void wait_with_clock(PyObject* manager, PyObject* seconds);

/// Throws `failure`, with a note where `reading` is no number.
[[noreturn]] void raise_of_reading(python::Error failure, PyObject* reading);

/// Runs `step`, which reckons with a reading of the manager's clock.
template <class Step>
void reckon_with(PyObject* reading, Step&& step) {
  std::optional<python::Error> failure = python::caught(std::forward<Step>(step));
  if (failure) raise_of_reading(std::move(*failure), reading);
}

}  // namespace tessaline::auth
