#pragma once

#include <variant>

#include "tessaline/auth/http/http_client.hpp"

namespace tessaline::auth::http {

struct OutOfMemory {};

/// The result of a request. The library throws no exception into the module: in a wheel each has its own C++
/// runtime, and one could not catch what the other throws.
using Result = std::variant<Response, TransportFailure, OutOfMemory>;

/// The versions of the libraries in use, as static texts.
struct Versions {
  const char* libcurl;
  const char* openssl;
};

/// What the module calls in the library.
struct Library {
  Result (*perform)(const Request& request, const Tick& tick);  ///< throws nothing
  // As in process.hpp.
  void (*before_fork)() noexcept;
  void (*after_fork_in_parent)() noexcept;
  void (*after_fork_in_child)() noexcept;
  Versions (*versions)() noexcept;
};

}  // namespace tessaline::auth::http
