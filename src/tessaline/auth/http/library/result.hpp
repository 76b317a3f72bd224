#pragma once

#include <variant>

#include "tessaline/auth/http/http_client.hpp"

namespace tessaline::auth::http {

struct OutOfMemory {};

/// How a request ended, as the library tells it. No exception is thrown from the library into the module: in
/// a wheel each has a C++ runtime of its own, and one would stay uncaught in the runtime that threw it.
using Result = std::variant<Response, TransportFailure, OutOfMemory>;

}  // namespace tessaline::auth::http
