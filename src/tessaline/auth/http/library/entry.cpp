#include <curl/curl.h>
#include <openssl/crypto.h>

#include <exception>
#include <new>

#include "tessaline/auth/http/http_client.hpp"
#include "tessaline/auth/http/library/library.hpp"
#include "tessaline/auth/http/process.hpp"

namespace tessaline::auth::http {
namespace {

/// Throws std::bad_alloc if there is no memory for the message of a failure.
Result result_of(const Request& request, const Tick& tick) {
  try {
    return perform(request, tick);
  } catch (const TransportFailure& failure) {
    return failure;
  } catch (const std::bad_alloc&) {
    return OutOfMemory{};
  } catch (const std::exception& exception) {
    return TransportFailure(FailureKind::kOther, exception.what());
  }
}

Result perform_for_module(const Request& request, const Tick& tick) {
  try {
    return result_of(request, tick);
  } catch (const std::bad_alloc&) {
    return OutOfMemory{};
  }
}

Versions versions() noexcept {
  return {curl_version_info(CURLVERSION_NOW)->version, OpenSSL_version(OPENSSL_VERSION_STRING)};
}

}  // namespace
}  // namespace tessaline::auth::http

// The only exported symbol.
extern "C" __attribute__((visibility("default"))) const tessaline::auth::http::Library tessaline_http_library;
constexpr tessaline::auth::http::Library tessaline_http_library{
    tessaline::auth::http::perform_for_module,
    tessaline::auth::http::process::before_fork,
    tessaline::auth::http::process::after_fork_in_parent,
    tessaline::auth::http::process::after_fork_in_child,
    tessaline::auth::http::versions,
};
