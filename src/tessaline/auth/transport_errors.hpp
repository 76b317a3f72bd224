#pragma once

#include "tessaline/auth/http/http_client.hpp"

namespace tessaline::auth {

/// Raises the host's exception for a failed request, with what may help: the roots that were trusted, the
/// variable of the environment that names a proxy.
[[noreturn]] void raise_transport_failure(const http::TransportFailure& failure,
                                          const http::Request& request);

}  // namespace tessaline::auth
