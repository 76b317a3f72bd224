#include "tessaline/auth/transport/raise_failure.hpp"

#include <cerrno>
#include <cstring>
#include <string>

#include "tessaline/auth/python/python.hpp"
#include "tessaline/auth/transport/attach_notes.hpp"

namespace tessaline::auth {
namespace {

using python::Ref;

constinit const python::Name kSsl{"ssl"};
constinit const python::Name kSslError{"SSLError"};
constinit const python::Name kCertificateError{"SSLCertVerificationError"};
constinit const python::Name kLibrary{"library"};
constinit const python::Name kReason{"reason"};
constinit const python::Name kVerifyCode{"verify_code"};
constinit const python::Name kVerifyMessage{"verify_message"};
constinit const python::Name kHttpClient{"http.client"};
constinit const python::Name kBadStatusLine{"BadStatusLine"};

/// A path in the message may be invalid UTF-8.
Ref text_of(const char* message) {
  return python::checked(
      PyUnicode_DecodeUTF8(message, static_cast<Py_ssize_t>(std::strlen(message)), "replace"));
}

Ref new_error(PyObject* type, const char* message) {
  return python::call(type, {text_of(message).get()});
}

/// OSError and its subclasses take a number and a text.
Ref new_numbered(PyObject* type, int number, const char* message) {
  return python::call(type, {python::integer(number).get(), text_of(message).get()});
}

Ref new_error_of(const python::Name& module, const python::Name& type, const char* message) {
  const Ref loaded = python::import(module);
  return new_error(python::attribute(loaded.get(), type).get(), message);
}

/// Like Python's own: the number of its SSL_ERROR_SSL, the text, and OpenSSL's reason.
Ref new_tls_error(const python::Name& type, const http::TransportFailure& failure) {
  constexpr int kSslErrorSsl = 1;
  const Ref ssl = python::import(kSsl);
  Ref error = new_numbered(python::attribute(ssl.get(), type).get(), kSslErrorSsl, failure.what());
  const std::string& reason = failure.detail().tls_reason;
  python::set_attribute(error.get(), kLibrary, python::text("SSL").get());
  python::set_attribute(error.get(), kReason, reason.empty() ? Py_None : python::text(reason).get());
  return error;
}

Ref new_certificate_error(const http::TransportFailure& failure) {
  Ref error = new_tls_error(kCertificateError, failure);
  python::set_attribute(error.get(), kVerifyCode, python::integer(failure.detail().verify_code).get());
  python::set_attribute(error.get(), kVerifyMessage, python::text(failure.detail().verify_message).get());
  return error;
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
    case http::FailureKind::kProxyUnavailable:
      return new_error(PyExc_ConnectionError, message);
    case http::FailureKind::kDescriptors:
      return new_numbered(PyExc_OSError, failure.detail().os_errno, message);
    case http::FailureKind::kCertificate:
      return new_certificate_error(failure);
    case http::FailureKind::kTls:
    case http::FailureKind::kTrustStore:
      return new_tls_error(kSslError, failure);
    case http::FailureKind::kMalformedResponse:
      return new_error_of(kHttpClient, kBadStatusLine, message);
    case http::FailureKind::kInterrupted:
      throw python::Error::fetch();  // what a signal handler raised
    case http::FailureKind::kProxyRefused:
    case http::FailureKind::kOther:
      break;
  }
  return new_error(PyExc_OSError, message);
}

}  // namespace

void raise_failure(const http::TransportFailure& failure, const http::Request& request,
                   const ChosenSettings& chosen) {
  const Ref error = error_for(failure);
  attach_notes(error.get(), failure, request, chosen);
  python::raise(error.get());
}

}  // namespace tessaline::auth
