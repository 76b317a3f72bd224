#pragma once

#include <map>
#include <optional>
#include <string>

#include "tessaline/auth/http/hop.hpp"

namespace tessaline::auth::http {

/// Follows redirects, response by response.
class RedirectTrail {
 public:
  /// The next hop; empty if `response` is the final one.
  std::optional<Hop> next(const Hop& hop, const Response& response);

 private:
  bool may_visit(const std::string& url);

  std::map<std::string, int> visits_;
};

}  // namespace tessaline::auth::http
