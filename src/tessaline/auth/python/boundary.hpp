#pragma once

#include <Python.h>

#include <exception>
#include <new>
#include <type_traits>

#include "tessaline/auth/python/error.hpp"
#include "tessaline/auth/python/ref.hpp"

namespace tessaline::auth::python {

/// Turns a C++ exception other than Error into the host's: MemoryError, else RuntimeError with its text.
void raise_native(const std::exception& failure) noexcept;

/// The one wrapper at every entry from the host. `body` returns a Ref; the entry returns it, or null with the
/// host's exception set.
template <class Body>
PyObject* boundary(Body&& body) noexcept {
  try {
    Ref result = body();
    return result.release();
  } catch (Error& error) {
    std::move(error).restore();
  } catch (const std::exception& failure) {
    raise_native(failure);
  }
  return nullptr;
}

/// The same for entries that answer 0 or -1.
template <class Body>
int status_boundary(Body&& body) noexcept {
  try {
    body();
    return 0;
  } catch (Error& error) {
    std::move(error).restore();
  } catch (const std::exception& failure) {
    raise_native(failure);
  }
  return -1;
}

}  // namespace tessaline::auth::python
