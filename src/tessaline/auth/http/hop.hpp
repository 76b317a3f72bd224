#pragma once

#include <string>

#include "tessaline/auth/http/deadline.hpp"
#include "tessaline/auth/http/http_client.hpp"
#include "tessaline/auth/http/ticker.hpp"
#include "tessaline/auth/http/url.hpp"

namespace tessaline::auth::http {

/// What a request sends to be answered once: at first, and again after a redirection. The body stays the
/// caller's.
struct Hop {
  Url url;
  std::string method;
  Headers headers;
  std::string user_agent{};  ///< empty: the client's own
  const std::string* body = nullptr;
};

/// What a hop needs besides what it sends.
struct Circumstances {
  const TrustStore& trust;
  const ProxySettings& proxies;
  const Deadline& deadline;
  Ticker& ticker;
};

/// The answer, whatever its status, on a pooled session. The calling thread is inside libcurl. Throws
/// TransportFailure and std::bad_alloc, and what the ticker throws.
Response answer_to(const Hop& hop, const Circumstances& around);

}  // namespace tessaline::auth::http
