#include "tessaline/auth/transport/attach_notes.hpp"

#include "tessaline/auth/errors/note_texts.hpp"
#include "tessaline/auth/python/python.hpp"
#include "tessaline/auth/transport/proxy_environment.hpp"

namespace tessaline::auth {
namespace {

/// The variable that names the proxy. Its value may have a password and is not read.
const char* variable_of(const http::Request& request) {
  const bool plain = PyOS_strnicmp(request.url.c_str(), "http:", 5) == 0;
  return proxy_variable(plain ? "http" : "https");
}

void add_roots(PyObject* exception, const http::TrustStore& trust, bool chosen) {
  python::add_note_from(exception, [&trust, chosen] {
    if (chosen) return python::checked(PyUnicode_FromFormat(notes::kChosenRoots, trust.ca_file.c_str()));
    return python::checked(
        PyUnicode_FromFormat(notes::kRoots, trust.ca_file.empty() ? "no file" : trust.ca_file.c_str(),
                             trust.ca_directory.empty() ? "no directory" : trust.ca_directory.c_str()));
  });
}

void add_proxy(PyObject* exception, const http::Request& request, bool chosen) {
  if (chosen) return python::add_note(exception, notes::kChosenProxy);
  const char* const variable = variable_of(request);
  if (variable == nullptr) return;
  python::add_note_from(
      exception, [variable] { return python::checked(PyUnicode_FromFormat(notes::kProxy, variable)); });
}

}  // namespace

void attach_notes(PyObject* exception, const http::TransportFailure& failure, const http::Request& request,
                  const ChosenSettings& chosen) {
  using http::FailureKind;
  if (failure.kind() == FailureKind::kInvalidRequest) return;
  python::add_note(exception, notes::for_failure(failure.kind()));
  if (failure.kind() == FailureKind::kCertificate || failure.kind() == FailureKind::kTrustStore) {
    add_roots(exception, request.trust, chosen.trust);
  }
  if (failure.detail().through_proxy) add_proxy(exception, request, chosen.proxies);
}

}  // namespace tessaline::auth
