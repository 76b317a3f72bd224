#include "tessaline/auth/transport_errors.hpp"

#include <cerrno>

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

Ref new_error(PyObject* type, const char* message) {
  return python::call(type, {python::text(message).get()});
}

/// OSError and its kin carry a number and a text.
Ref new_numbered(PyObject* type, int number, const char* message) {
  return python::call(type, {python::integer(number).get(), python::text(message).get()});
}

Ref new_error_of(const python::Name& module, const python::Name& type, const char* message) {
  const Ref loaded = python::import(module);
  return new_error(python::attribute(loaded.get(), type).get(), message);
}

Ref error_for(const http::TransportFailure& failure) {
  const char* const message = failure.what();
  switch (failure.kind()) {
    case http::FailureKind::kInvalidRequest:
      return new_error(PyExc_ValueError, message);
    case http::FailureKind::kUnresolvable:
    case http::FailureKind::kTruncated:
      return new_error(PyExc_ConnectionError, message);
    case http::FailureKind::kUnreachable:
      return new_numbered(PyExc_ConnectionError, EHOSTUNREACH, message);
    case http::FailureKind::kRefused:
      return new_numbered(PyExc_ConnectionRefusedError, ECONNREFUSED, message);
    case http::FailureKind::kReset:
      return new_numbered(PyExc_ConnectionResetError, ECONNRESET, message);
    case http::FailureKind::kTimedOut:
      return new_error(PyExc_TimeoutError, message);
    case http::FailureKind::kCertificate:
      return new_error_of(kSsl, kCertificateError, message);
    case http::FailureKind::kTls:
      return new_error_of(kSsl, kSslError, message);
    case http::FailureKind::kMalformedResponse:
      return new_error_of(kHttpClient, kBadStatusLine, message);
    case http::FailureKind::kInterrupted:
      throw python::Error::fetch();  // what a signal handler raised
    case http::FailureKind::kOther:
      break;
  }
  return new_error(PyExc_OSError, message);
}

}  // namespace

void raise_transport_failure(const http::TransportFailure& failure, const http::Request& request) {
  const Ref error = error_for(failure);
  add_transport_notes(error.get(), failure, request);
  python::raise(error.get());
}

}  // namespace tessaline::auth
