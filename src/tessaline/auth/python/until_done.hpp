#pragma once

#include <optional>
#include <utility>

#include "tessaline/auth/python/caught.hpp"
#include "tessaline/auth/python/gil.hpp"

namespace tessaline::auth::python {

/// Repeats a step that others wait for until it succeeds: neither Ctrl-C in the main thread nor a failed
/// allocation prevents it. Ctrl-C is raised afterwards; after too many failures, the first one is. The step
/// must be repeatable.
template <class Step>
void until_done(Step&& step) {
  static constexpr int kMostTries = 64;
  static constexpr int kHastyTries = 4;
  std::optional<Error> first = caught(step);
  if (!first) return;
  for (int tries = 1; caught(step); ++tries) {
    if (tries == kMostTries) throw std::move(*first);
    if (tries >= kHastyTries) pause_without_gil();
  }
  if (!first->matches(PyExc_Exception)) throw std::move(*first);
}

}  // namespace tessaline::auth::python
