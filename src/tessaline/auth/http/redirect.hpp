#pragma once

#include <map>
#include <optional>
#include <string>

#include "tessaline/auth/http/hop.hpp"

namespace tessaline::auth::http {

/// Decides, answer by answer, where a request goes on to.
class RedirectTrail {
 public:
  /// The hop that `response` to `hop` asks for; nothing when that response is the result.
  std::optional<Hop> next(const Hop& hop, const Response& response);

 private:
  bool may_visit(const std::string& url);

  std::map<std::string, int> visits_;
};

}  // namespace tessaline::auth::http
