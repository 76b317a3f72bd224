#pragma once

#include "tessaline/auth/http/deadline.hpp"
#include "tessaline/auth/http/http_client.hpp"
#include "tessaline/auth/http/redirect.hpp"

namespace tessaline::auth::http {

/// One request and its answer, whatever the status, on a pooled session. The calling thread is inside
/// libcurl. Throws TransportFailure and std::bad_alloc.
Response exchange(const Hop& hop, const TrustStore& trust, const Deadline& deadline, const Tick& tick);

}  // namespace tessaline::auth::http
