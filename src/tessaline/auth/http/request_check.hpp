#pragma once

#include "tessaline/auth/http/http_client.hpp"
#include "tessaline/auth/http/url.hpp"

namespace tessaline::auth::http {

/// The parsed URL of a valid request. Throws TransportFailure(kInvalidRequest) for an invalid one, with a
/// message that has nothing of the URL and no field value.
Url check_request(const Request& request);

}  // namespace tessaline::auth::http
