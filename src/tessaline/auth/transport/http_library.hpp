#pragma once

#include <variant>

#include "tessaline/auth/http/http_client.hpp"
#include "tessaline/auth/http/library/library.hpp"

namespace tessaline::auth {

/// Has forks wait while the library is loaded or set up, and the library care for its locks and connections.
/// Called once, when the module is executed: a fork runs only what was registered before it began. Throws
/// std::bad_alloc.
void watch_forks_for_http();

/// `http::perform`, from the library beside the module that holds the HTTP room. It is loaded at the first
/// call and kept: a system's libcurl brings some thirty libraries along, and who only imports the component,
/// or brings a transport of their own, does not pay for them.
///
/// Blocks; to be called without the interpreter's lock, from any thread. Throws nothing but std::bad_alloc.
/// Where the library cannot be loaded there is a failure (kOther), and the next call tries again.
http::Result perform_request(const http::Request& request, const http::Tick& tick);

/// Which libcurl and OpenSSL that library uses. To be called without the interpreter's lock, as it may load
/// it.
std::variant<http::Versions, http::TransportFailure> http_versions();

}  // namespace tessaline::auth
