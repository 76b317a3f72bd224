#pragma once

#include <string_view>

#include "tessaline/auth/http/http_client.hpp"

namespace tessaline::auth {

/// The proxies that the environment names now. To be called where nothing changes the environment meanwhile:
/// the program changes it under the interpreter's lock.
http::ProxySettings proxies_of_environment();

/// The variable that names the proxy for URLs of the scheme, "http" or "https"; null where none does.
const char* proxy_variable(std::string_view scheme) noexcept;

}  // namespace tessaline::auth
