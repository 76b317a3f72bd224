#pragma once

#include <variant>

#include "tessaline/auth/http/http_client.hpp"

namespace tessaline::auth::http {

struct OutOfMemory {};

/// How a request ended, as the library tells it. No exception is thrown from the library into the module: in
/// a wheel each has a C++ runtime of its own, and one would stay uncaught in the runtime that threw it.
using Result = std::variant<Response, TransportFailure, OutOfMemory>;

/// What the library does its work with, as it is loaded: texts that stay.
struct Versions {
  const char* libcurl;
  const char* openssl;
};

/// What a module uses of the library.
struct Library {
  Result (*perform)(const Request& request, const Tick& tick);  ///< throws nothing
  // As in process.hpp.
  void (*before_fork)() noexcept;
  void (*after_fork_in_parent)() noexcept;
  void (*after_fork_in_child)() noexcept;
  Versions (*versions)() noexcept;
};

}  // namespace tessaline::auth::http
