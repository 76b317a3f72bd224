#include "tessaline/auth/http/request_check.hpp"

#include <string_view>

#include "tessaline/auth/http/text.hpp"

namespace tessaline::auth::http {
namespace {

[[noreturn]] void refuse(const std::string& why) {
  throw TransportFailure(FailureKind::kInvalidRequest, why);
}

bool breaks_a_line(std::string_view value) {
  return value.find_first_of(std::string_view("\r\n\0", 3)) != std::string_view::npos;
}

}  // namespace

Url check_request(const Request& request) {
  if (!is_token(request.method)) refuse("method is not a token");
  for (const auto& [name, value] : request.headers) {
    if (!is_token(name)) refuse("a header name is not a token");
    if (breaks_a_line(value)) refuse("value of header " + name + " holds CR, LF or NUL");
  }
  if (breaks_a_line(request.user_agent)) refuse("the user agent holds CR, LF or NUL");
  return parse_url(request.url);
}

}  // namespace tessaline::auth::http
