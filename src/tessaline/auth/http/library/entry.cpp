#include "tessaline/auth/http/http_client.hpp"

// The one symbol of the library that the module loads at its first request. The result is C++ and not C,
// which is for two objects of one build to agree on.
#pragma GCC diagnostic push
#ifdef __clang__
#pragma GCC diagnostic ignored "-Wreturn-type-c-linkage"
#endif
extern "C" __attribute__((visibility("default"))) tessaline::auth::http::Response tessaline_http_perform(
    const tessaline::auth::http::Request& request, const tessaline::auth::http::Tick& tick) {
  return tessaline::auth::http::perform(request, tick);
}
#pragma GCC diagnostic pop
