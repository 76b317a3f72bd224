#pragma once

#include <algorithm>
#include <string>
#include <string_view>

#include "check.hpp"
#include "tessaline/auth/http/text.hpp"
#include "tessaline/auth/http/url.hpp"

namespace tessaline::fuzz {

inline bool is_visible_ascii(std::string_view text) {
  return std::all_of(text.begin(), text.end(), [](char c) { return c > ' ' && c < '\x7f'; });
}

/// Properties of every URL to which a request may be sent.
inline void check_url(const auth::http::Url& url) {
  CHECK(is_visible_ascii(url.text));
  CHECK(url.scheme == "http" || url.scheme == "https");
  CHECK(auth::http::lower_case(url.text).starts_with(url.scheme + "://"));

  CHECK(!url.host.empty() && is_visible_ascii(url.host));
  CHECK(url.host == auth::http::lower_case(url.host));
  CHECK(url.host.find_first_of("/?#@\\") == std::string::npos);
  const bool bracketed = url.host.starts_with('[') && url.host.ends_with(']');
  CHECK(bracketed == (url.host.find_first_of("[]:") != std::string::npos));

  CHECK(!url.port.empty() && url.port.size() <= 5);
  CHECK(url.port.find_first_not_of("0123456789") == std::string::npos);
  CHECK(std::stoi(url.port) <= 65535);
  CHECK(std::to_string(std::stoi(url.port)) == url.port);
}

}  // namespace tessaline::fuzz
