#pragma once

#include <map>
#include <optional>
#include <string>

#include "tessaline/auth/http/http_client.hpp"
#include "tessaline/auth/http/url.hpp"

namespace tessaline::auth::http {

/// What one exchange sends. The body stays the caller's.
struct Hop {
  Url url;
  std::string method;
  Headers headers;
  std::string user_agent{};  ///< empty: the client's own
  const std::string* body = nullptr;
};

/// Decides, answer by answer, where a request goes on to.
class RedirectTrail {
 public:
  /// The exchange that `response` to `hop` asks for; nothing when that response is the result.
  std::optional<Hop> next(const Hop& hop, const Response& response);

 private:
  bool may_visit(const std::string& url);

  std::map<std::string, int> visits_;
};

}  // namespace tessaline::auth::http
