#pragma once

#include "tessaline/auth/http/http_client.hpp"

namespace tessaline::auth {

/// Which settings of a request the program chose; the others came from the environment.
struct ChosenSettings {
  bool trust = false;
  bool proxies = false;
};

/// Raises the exception for a failed request, with what may help: the roots that were trusted, where a
/// proxy was named.
[[noreturn]] void raise_failure(const http::TransportFailure& failure, const http::Request& request,
                                const ChosenSettings& chosen);

}  // namespace tessaline::auth
