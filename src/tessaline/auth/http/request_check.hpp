#pragma once

#include "tessaline/auth/http/http_client.hpp"
#include "tessaline/auth/http/url.hpp"

namespace tessaline::auth::http {

/// The URL of a request that can be sent. Throws TransportFailure(kInvalidRequest) for one that cannot, with
/// a message that holds nothing of the URL and no field value.
Url check_request(const Request& request);

}  // namespace tessaline::auth::http
