#pragma once

#include <string>
#include <variant>

#include "tessaline/auth/http/http_client.hpp"

namespace tessaline::auth::http {

/// A TransportFailure in parts; any other exception is one of kind kOther.
struct Failed {
  FailureKind kind;
  std::string message;
  FailureDetail detail;
};

struct OutOfMemory {};

/// How a request ended, as the library tells it. No exception goes from the library into the module: in a
/// wheel each has a C++ runtime of its own, and one would stay uncaught in the runtime that threw it.
using Result = std::variant<Response, Failed, OutOfMemory>;

}  // namespace tessaline::auth::http
