#include "tessaline/auth/transport/default_transport.hpp"

#include <chrono>
#include <optional>

#include "tessaline/auth/names.hpp"
#include "tessaline/auth/python/python.hpp"
#include "tessaline/auth/transport/default_trust.hpp"
#include "tessaline/auth/transport/exchange.hpp"
#include "tessaline/auth/transport/proxy_environment.hpp"

namespace tessaline::auth {
namespace {

using python::Ref;

std::optional<std::chrono::duration<double>> timeout_in_force() {
  Ref seconds = python::call(python::global(names::auth_http_timeout_seconds).get());
  if (seconds.is_none()) return std::nullopt;
  return std::chrono::duration<double>(python::double_value(seconds.get()));
}

}  // namespace

Ref default_http_transport(PyObject* method, PyObject* url, PyObject* headers, PyObject* body) {
  http::Request request = request_of(method, url, headers, body);
  request.timeout = timeout_in_force();
  request.trust = default_trust_store();
  request.proxies = proxies_of_environment();
  return make_exchange(request);
}

}  // namespace tessaline::auth
