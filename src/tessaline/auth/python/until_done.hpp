#pragma once

#include <optional>
#include <utility>

#include "tessaline/auth/python/caught.hpp"
#include "tessaline/auth/python/gil.hpp"

namespace tessaline::auth::python {

/// Completes a step that others wait for: neither Ctrl-C on the main thread nor a failed allocation ends it
/// before it is done. The interruption is raised afterwards. The step must bear being repeated; after several
/// failures the first one is raised.
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
