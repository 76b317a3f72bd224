#include "tessaline/auth/transport_errors.hpp"

#include <cerrno>
#include <optional>
#include <utility>

#include "tessaline/auth/python/python.hpp"
#include "tessaline/auth/transport_notes.hpp"

namespace tessaline::auth {
namespace {

using python::Ref;

constinit const python::Name kSsl{"ssl"};
constinit const python::Name kSslError{"SSLError"};
constinit const python::Name kCertificateError{"SSLCertVerificationError"};
constinit const python::Name kHttpClient{"http.client"};
constinit const python::Name kBadStatusLine{"BadStatusLine"};

/// OSError and its kin carry a number and a text.
[[noreturn]] void raise_numbered(PyObject* type, int number, const char* message) {
  python::raise(python::call(type, {python::integer(number).get(), python::text(message).get()}).get());
}

[[noreturn]] void raise_from(const python::Name& module, const python::Name& type, const char* message) {
  Ref loaded = python::import(module);
  python::raise(
      python::call(python::attribute(loaded.get(), type).get(), {python::text(message).get()}).get());
}

[[noreturn]] void raise_kind(const http::TransportFailure& failure) {
  const char* const message = failure.what();
  switch (failure.kind()) {
    case http::FailureKind::kInvalidRequest:
      python::raise(PyExc_ValueError, message);
    case http::FailureKind::kUnresolvable:
    case http::FailureKind::kTruncated:
      python::raise(PyExc_ConnectionError, message);
    case http::FailureKind::kUnreachable:
      raise_numbered(PyExc_ConnectionError, EHOSTUNREACH, message);
    case http::FailureKind::kRefused:
      raise_numbered(PyExc_ConnectionRefusedError, ECONNREFUSED, message);
    case http::FailureKind::kReset:
      raise_numbered(PyExc_ConnectionResetError, ECONNRESET, message);
    case http::FailureKind::kTimedOut:
      python::raise(PyExc_TimeoutError, message);
    case http::FailureKind::kCertificate:
      raise_from(kSsl, kCertificateError, message);
    case http::FailureKind::kTls:
      raise_from(kSsl, kSslError, message);
    case http::FailureKind::kMalformedResponse:
      raise_from(kHttpClient, kBadStatusLine, message);
    case http::FailureKind::kInterrupted:
      throw python::Error::fetch();
    case http::FailureKind::kOther:
      break;
  }
  python::raise(PyExc_OSError, message);
}

}  // namespace

void raise_transport_failure(const http::TransportFailure& failure, const http::Request& request) {
  std::optional<python::Error> raised = python::caught([&] { raise_kind(failure); });
  if (failure.kind() != http::FailureKind::kInterrupted)
    add_transport_notes(raised->exception(), failure, request);
  throw std::move(*raised);
}

}  // namespace tessaline::auth
