#pragma once

#include "tessaline/auth/http/http_client.hpp"

namespace tessaline::auth {

/// Raises the host's exception for a failure below HTTP: the natural subclass of ConnectionError,
/// TimeoutError, ssl.SSLError, ValueError, or http.client.BadStatusLine.
[[noreturn]] void raise_transport_failure(const http::TransportFailure& failure);

}  // namespace tessaline::auth
