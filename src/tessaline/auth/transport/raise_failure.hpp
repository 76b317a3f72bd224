#pragma once

#include "tessaline/auth/http/http_client.hpp"

namespace tessaline::auth {

/// Which settings of a request the program chose; the others come from the environment.
struct ChosenSettings {
  bool trust = false;
  bool proxies = false;
};

/// Raises the exception for a failed request, with notes: the trusted roots, and the origin of the proxy.
[[noreturn]] void raise_failure(const http::TransportFailure& failure, const http::Request& request,
                                const ChosenSettings& chosen);

}  // namespace tessaline::auth
