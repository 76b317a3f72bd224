#include <exception>
#include <new>

#include "tessaline/auth/http/http_client.hpp"
#include "tessaline/auth/http/library/result.hpp"

namespace tessaline::auth::http {
namespace {

/// Throws std::bad_alloc, where there is no memory for what a failure says.
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

}  // namespace
}  // namespace tessaline::auth::http

// The one symbol of the library that the module loads at its first request. The result is C++ and not C,
// which is for two objects of one build to agree on.
#pragma GCC diagnostic push
#ifdef __clang__
#pragma GCC diagnostic ignored "-Wreturn-type-c-linkage"
#endif
extern "C" __attribute__((visibility("default"))) tessaline::auth::http::Result tessaline_http_perform(
    const tessaline::auth::http::Request& request, const tessaline::auth::http::Tick& tick) {
  try {
    return tessaline::auth::http::result_of(request, tick);
  } catch (const std::bad_alloc&) {
    return tessaline::auth::http::OutOfMemory{};
  }
}
#pragma GCC diagnostic pop
