#pragma once

#include <string>

#include "tessaline/auth/http/deadline.hpp"
#include "tessaline/auth/http/http_client.hpp"
#include "tessaline/auth/http/ticker.hpp"
#include "tessaline/auth/http/url.hpp"

namespace tessaline::auth::http {

/// What one hop sends. The caller owns the body.
struct Hop {
  Url url;
  std::string method;
  Headers headers;
  std::string user_agent{};  ///< empty: the client's default
  const std::string* body = nullptr;
};

/// What a hop needs besides what it sends.
struct Circumstances {
  const TrustStore& trust;
  const ProxySettings& proxies;
  const Deadline& deadline;
  Ticker& ticker;
};

/// The response, whatever its status, on a pooled session. The calling thread is inside libcurl. Throws
/// TransportFailure and std::bad_alloc, and what the ticker throws.
Response answer_to(const Hop& hop, const Circumstances& around);

}  // namespace tessaline::auth::http
