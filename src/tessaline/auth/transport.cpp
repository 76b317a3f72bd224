#include "tessaline/auth/transport.hpp"

#include <chrono>
#include <new>
#include <optional>
#include <string>
#include <variant>

#include "tessaline/auth/http/http_client.hpp"
#include "tessaline/auth/names.hpp"
#include "tessaline/auth/python/python.hpp"
#include "tessaline/auth/transport_errors.hpp"
#include "tessaline/auth/trust.hpp"

namespace tessaline::auth {
namespace {

using python::Ref;

[[noreturn]] void raise_not_text(const char* what, PyObject* value) {
  PyErr_Format(PyExc_TypeError, "%s must be str, not %.200s", what, Py_TYPE(value)->tp_name);
  throw python::Error::fetch();
}

std::string bytes_of(PyObject* bytes_object) {
  return {PyBytes_AS_STRING(bytes_object), static_cast<std::size_t>(PyBytes_GET_SIZE(bytes_object))};
}

/// Header fields travel as ISO 8859-1, URLs and methods as its ASCII part, which the client checks.
std::string latin1_of(const char* what, PyObject* value) {
  if (!PyUnicode_Check(value)) raise_not_text(what, value);
  Ref encoded = python::checked(PyUnicode_AsLatin1String(value));
  return bytes_of(encoded.get());
}

std::string ascii_of(const char* what, PyObject* value) {
  if (!PyUnicode_Check(value)) raise_not_text(what, value);
  Ref encoded = python::checked(PyUnicode_AsASCIIString(value));
  return bytes_of(encoded.get());
}

http::Headers headers_of(PyObject* mapping) {
  http::Headers fields;
  if (mapping == Py_None) return fields;
  Ref items = python::iterator(python::call_method(mapping, names::items).get());
  while (Ref pair = python::next(items.get())) {
    Ref name = python::item(pair.get(), python::integer(0).get());
    Ref value = python::item(pair.get(), python::integer(1).get());
    fields.emplace_back(latin1_of("header name", name.get()), latin1_of("header value", value.get()));
  }
  return fields;
}

std::optional<std::string> body_of(PyObject* body) {
  if (body == Py_None) return std::nullopt;
  if (PyUnicode_Check(body)) return std::string(python::utf8_of(body));
  if (PyBytes_Check(body)) return bytes_of(body);
  PyErr_Format(PyExc_TypeError, "body must be str, bytes or None, not %.200s", Py_TYPE(body)->tp_name);
  throw python::Error::fetch();
}

std::optional<std::chrono::duration<double>> timeout_in_force() {
  Ref seconds = python::call(python::global(names::auth_http_timeout_seconds).get());
  if (seconds.is_none()) return std::nullopt;
  return std::chrono::duration<double>(python::double_value(seconds.get()));
}

/// Signal handlers run on the main thread only; other threads need not wake for them.
bool on_main_thread() {
  Ref threading = python::global(names::threading);
  Ref main_thread = python::call_method(threading.get(), names::main_thread);
  Ref here = python::call_method(threading.get(), names::get_ident);
  return python::equal(python::attribute(main_thread.get(), names::ident).get(), here.get());
}

using Answer = std::variant<http::Response, http::TransportFailure>;

Answer exchange(const http::Request& request, bool interruptible) {
  return python::without_gil([&](PyThreadState*& thread) -> Answer {
    http::Tick tick;
    if (interruptible) tick = [&thread] { return python::run_signal_handlers(thread); };
    try {
      return http::perform(request, tick);
    } catch (const http::TransportFailure& failure) {
      return failure;
    }
  });
}

Ref headers_dict(const http::Headers& headers) {
  Ref made = python::checked(PyDict_New());
  for (const auto& [name, value] : headers) {
    Ref key =
        python::checked(PyUnicode_DecodeLatin1(name.data(), static_cast<Py_ssize_t>(name.size()), nullptr));
    Ref content =
        python::checked(PyUnicode_DecodeLatin1(value.data(), static_cast<Py_ssize_t>(value.size()), nullptr));
    python::checked(PyDict_SetItem(made.get(), key.get(), content.get()));
  }
  return made;
}

}  // namespace

Ref default_http_transport(PyObject* method, PyObject* url, PyObject* headers, PyObject* body) {
  http::Request request;
  request.method = ascii_of("method", method);
  request.url = ascii_of("url", url);
  request.headers = headers_of(headers);
  request.body = body_of(body);
  request.timeout = timeout_in_force();
  request.trust = default_trust_store();
  const Answer answer = exchange(request, on_main_thread());
  if (const auto* failure = std::get_if<http::TransportFailure>(&answer)) raise_transport_failure(*failure);
  const auto& response = std::get<http::Response>(answer);
  return python::triple(python::integer(response.status), headers_dict(response.headers),
                        python::bytes(response.body));
}

}  // namespace tessaline::auth
