#pragma once

#include "tessaline/auth/http/deadline.hpp"
#include "tessaline/auth/http/http_client.hpp"
#include "tessaline/auth/http/redirect.hpp"
#include "tessaline/auth/http/ticker.hpp"

namespace tessaline::auth::http {

/// What an exchange needs besides what it sends.
struct Circumstances {
  const TrustStore& trust;
  const ProxySettings& proxies;
  const Deadline& deadline;
  Ticker& ticker;
};

/// One request and its answer, whatever the status, on a pooled session. The calling thread is inside
/// libcurl. Throws TransportFailure and std::bad_alloc, and what the ticker throws.
Response exchange(const Hop& hop, const Circumstances& around);

}  // namespace tessaline::auth::http
