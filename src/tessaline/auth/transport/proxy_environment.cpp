#include "tessaline/auth/transport/proxy_environment.hpp"

#include <algorithm>
#include <cstdlib>
#include <initializer_list>

namespace tessaline::auth {
namespace {

bool is_set(const char* variable) noexcept {
  const char* const value = std::getenv(variable);
  return value != nullptr && *value != '\0';
}

const char* first_set(std::initializer_list<const char*> variables) noexcept {
  const auto* const found = std::ranges::find_if(variables, is_set);
  return found == variables.end() ? nullptr : *found;
}

std::string value_of(const char* variable) {
  const char* const value = variable == nullptr ? nullptr : std::getenv(variable);
  return value == nullptr ? std::string() : std::string(value);
}

}  // namespace

const char* proxy_variable(std::string_view scheme) noexcept {
  // HTTP_PROXY is ignored: in a CGI program, it is the header "Proxy" of a request.
  if (scheme == "http") return first_set({"http_proxy", "all_proxy", "ALL_PROXY"});
  return first_set({"https_proxy", "HTTPS_PROXY", "all_proxy", "ALL_PROXY"});
}

http::ProxySettings proxies_of_environment() {
  http::ProxySettings settings{value_of(proxy_variable("http")), value_of(proxy_variable("https")), {}};
  const bool any = !settings.for_http.empty() || !settings.for_https.empty();
  if (any) settings.exempt = value_of(first_set({"no_proxy", "NO_PROXY"}));
  return settings;
}

}  // namespace tessaline::auth
