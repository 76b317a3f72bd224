#pragma once

#include <optional>
#include <utility>

#include "tessaline/auth/python/error.hpp"

namespace tessaline::auth::python {

/// Runs `body` and gives back the exception that it raised, or nothing.
///
/// The one way to handle a Python exception. A C++ handler must not call Python: when the interpreter ends
/// the thread in there, the runtime cannot stack that unwinding on the exception being handled, and aborts
/// the process before the door can park the thread. Throw `std::move(*failure)` to pass it on.
template <class Body>
std::optional<Error> caught(Body&& body) {
  try {
    std::forward<Body>(body)();
  } catch (Error& error) {
    return std::move(error);
  }
  return std::nullopt;
}

}  // namespace tessaline::auth::python
