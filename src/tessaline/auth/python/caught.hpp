#pragma once

#include <optional>
#include <utility>

#include "tessaline/auth/python/error.hpp"

namespace tessaline::auth::python {

/// Runs `body` and returns the exception that it raised, if any.
///
/// The only way to handle a Python exception. A C++ handler must not call Python: if the interpreter ends the
/// thread there, the C++ runtime cannot start that unwinding during another exception, and aborts the process
/// before the door can park the thread. Rethrow it with `throw std::move(*failure)`.
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
