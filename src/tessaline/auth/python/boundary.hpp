#pragma once

#include <Python.h>

#include <array>
#include <exception>
#include <new>
#include <optional>
#include <utility>

#include "tessaline/auth/python/error.hpp"
#include "tessaline/auth/python/ref.hpp"

namespace tessaline::auth::python {

/// How native code that Python called has ended.
class Ending {
 public:
  void raised(Error error) noexcept { error_.emplace(std::move(error)); }
  void ran_out_of_memory() noexcept { out_of_memory_ = true; }
  void failed(const char* message) noexcept;

  /// True on success; otherwise Python's exception is set.
  bool report() && noexcept;

 private:
  std::optional<Error> error_;
  bool out_of_memory_ = false;
  bool failed_ = false;
  std::array<char, 256> message_;  ///< written only if `failed_`: every entry has one on its stack
};

/// Runs `body` and converts what it throws to Python's exception: Error to itself, others to MemoryError or
/// RuntimeError. Nothing calls Python inside a C++ handler (see `caught`).
template <class Body>
bool completes(Body&& body) noexcept {
  Ending ending;
  try {
    std::forward<Body>(body)();
  } catch (Error& error) {
    ending.raised(std::move(error));
  } catch (const std::bad_alloc&) {
    ending.ran_out_of_memory();
  } catch (const std::exception& failure) {
    ending.failed(failure.what());
  }
  return std::move(ending).report();
}

/// The wrapper of every entry from Python. `body` returns a Ref; the entry returns it, or null with Python's
/// exception set.
template <class Body>
PyObject* boundary(Body&& body) noexcept {
  Ref result;
  return completes([&] { result = body(); }) ? result.release() : nullptr;
}

/// The same for entries that return 0 or -1.
template <class Body>
int status_boundary(Body&& body) noexcept {
  return completes(std::forward<Body>(body)) ? 0 : -1;
}

}  // namespace tessaline::auth::python
