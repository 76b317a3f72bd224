#pragma once

#include <string_view>

#include "tessaline/auth/http/http_client.hpp"

namespace tessaline::auth {

/// The proxies in the environment. To be called with the GIL, under which the program changes the
/// environment.
http::ProxySettings proxies_of_environment();

/// The variable that names the proxy for URLs of the scheme, "http" or "https"; null if none does.
const char* proxy_variable(std::string_view scheme) noexcept;

}  // namespace tessaline::auth
