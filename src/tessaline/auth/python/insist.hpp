#pragma once

#include <optional>
#include <utility>

#include "tessaline/auth/python/error.hpp"

namespace tessaline::auth::python {

/// Completes a step that others wait for: what is no `Exception` (Ctrl-C on the main thread) does not stop
/// it, but is raised when the step is done. The step must bear being repeated.
template <class Step>
void insist(Step&& step) {
  static constexpr int kMostTries = 8;
  std::optional<Error> interruption;
  for (int tries = 1;; ++tries) {
    try {
      step();
      break;
    } catch (Error& error) {
      if (error.matches(PyExc_Exception) || tries == kMostTries) throw;
      interruption.emplace(std::move(error));
    }
  }
  if (interruption) throw std::move(*interruption);
}

}  // namespace tessaline::auth::python
