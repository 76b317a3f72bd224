#include "tessaline/auth/http/redirect.hpp"

#include <algorithm>
#include <array>
#include <string_view>

#include "tessaline/auth/http/limits.hpp"
#include "tessaline/auth/http/text.hpp"

namespace tessaline::auth::http {
namespace {

constexpr std::array<std::string_view, 2> kContentHeaders = {"content-length", "content-type"};
constexpr std::array<std::string_view, 4> kOriginBoundHeaders = {"authorization", "cookie", "host",
                                                                 "proxy-authorization"};

bool is_followed(int status, std::string_view method) {
  const bool reads = method == "GET" || method == "HEAD";
  switch (status) {
    case 301:
    case 302:
    case 303:
      return reads || method == "POST";
    case 307:
    case 308:
      return reads;
    default:
      return false;
  }
}

const std::string* find_header(const Headers& headers, std::string_view name) {
  const auto found = std::find_if(headers.begin(), headers.end(),
                                  [&](const auto& field) { return equal_without_case(field.first, name); });
  return found == headers.end() ? nullptr : &found->second;
}

const std::string* reference_in(const Headers& headers) {
  const std::string* location = find_header(headers, "location");
  return location != nullptr ? location : find_header(headers, "uri");
}

template <typename Names>
void drop_headers(Headers& headers, const Names& names) {
  std::erase_if(headers, [&](const auto& field) {
    return std::any_of(names.begin(), names.end(),
                       [&](std::string_view name) { return equal_without_case(field.first, name); });
  });
}

bool gives_up_encryption(const Url& from, const Url& to) {
  return from.scheme == "https" && to.scheme == "http";
}

}  // namespace

std::optional<Hop> RedirectTrail::next(const Hop& hop, const Response& response) {
  if (!is_followed(response.status, hop.method)) return std::nullopt;
  const std::string* reference = reference_in(response.headers);
  if (reference == nullptr) return std::nullopt;
  std::optional<Url> target = resolve_reference(hop.url, *reference);
  if (!target || gives_up_encryption(hop.url, *target) || !may_visit(target->text)) return std::nullopt;

  Hop following;
  following.method = hop.method == "HEAD" ? "HEAD" : "GET";
  following.headers = hop.headers;
  following.user_agent = hop.user_agent;
  drop_headers(following.headers, kContentHeaders);
  if (target->origin() != hop.url.origin()) drop_headers(following.headers, kOriginBoundHeaders);
  following.url = std::move(*target);
  return following;
}

bool RedirectTrail::may_visit(const std::string& url) {
  if (visits_.size() >= kMostRedirectTargets) return false;
  int& visits = visits_[url];
  if (visits >= kMostRedirectRepeats) return false;
  ++visits;
  return true;
}

}  // namespace tessaline::auth::http
