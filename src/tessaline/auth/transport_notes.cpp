#include "tessaline/auth/transport_notes.hpp"

#include <algorithm>
#include <cstdlib>
#include <initializer_list>
#include <string>
#include <string_view>

#include "tessaline/auth/advice.hpp"
#include "tessaline/auth/python/python.hpp"

namespace tessaline::auth {
namespace {

bool is_set(const char* variable) {
  const char* const value = std::getenv(variable);
  return value != nullptr && *value != '\0';
}

bool has_scheme(const http::Request& request, std::string_view scheme) {
  return PyOS_strnicmp(request.url.c_str(), scheme.data(), static_cast<Py_ssize_t>(scheme.size())) == 0;
}

/// The variable that names the proxy for the request, in libcurl's order; null where none does. Its value may
/// hold a password and is not read.
const char* proxy_variable(const http::Request& request) {
  const auto first_set = [](std::initializer_list<const char*> variables) {
    const auto* const found = std::ranges::find_if(variables, is_set);
    return found == variables.end() ? nullptr : *found;
  };
  // In capitals it would be the header "Proxy" of a request to a CGI program.
  if (has_scheme(request, "http:")) return first_set({"http_proxy", "all_proxy", "ALL_PROXY"});
  return first_set({"https_proxy", "HTTPS_PROXY", "all_proxy", "ALL_PROXY"});
}

void add_roots(PyObject* exception, const http::TrustStore& trust) {
  python::add_note_from(exception, [&trust] {
    return python::checked(
        PyUnicode_FromFormat(advice::kRoots, trust.ca_file.empty() ? "no file" : trust.ca_file.c_str(),
                             trust.ca_directory.empty() ? "no directory" : trust.ca_directory.c_str()));
  });
}

}  // namespace

void add_transport_notes(PyObject* exception, const http::TransportFailure& failure,
                         const http::Request& request) {
  if (failure.kind() == http::FailureKind::kInvalidRequest) return;
  python::add_note(exception, advice::for_failure(failure.kind()));
  if (failure.kind() == http::FailureKind::kCertificate) add_roots(exception, request.trust);
  const char* const proxy = proxy_variable(request);
  if (proxy == nullptr) return;
  python::add_note_from(exception,
                        [proxy] { return python::checked(PyUnicode_FromFormat(advice::kProxy, proxy)); });
}

}  // namespace tessaline::auth
