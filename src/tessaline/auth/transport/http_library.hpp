#pragma once

#include <variant>

#include "tessaline/auth/http/http_client.hpp"
#include "tessaline/auth/http/library/library.hpp"

namespace tessaline::auth {

/// Registers fork handlers, which wait while the library is being loaded or initialised, and call the
/// library's own. Called once, by the module's initialisation: a fork runs only handlers that were registered
/// before it began. Throws std::bad_alloc.
void watch_forks_for_http();

/// `http::perform`, from the library beside the module that contains `http/`. It is loaded at the first call
/// and never unloaded: a system's libcurl loads some thirty libraries, which programs that only import the
/// component, or use their own transport, do not need.
///
/// Blocks; to be called without the GIL, from any thread. Throws only std::bad_alloc. If the library cannot
/// be loaded, the result is a failure (kOther), and the next call tries again.
http::Result perform_request(const http::Request& request, const http::Tick& tick);

/// The versions of libcurl and OpenSSL that the library uses. To be called without the GIL, as it may load
/// the library.
std::variant<http::Versions, http::TransportFailure> http_versions();

}  // namespace tessaline::auth
