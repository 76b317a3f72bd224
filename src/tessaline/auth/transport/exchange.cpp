#include "tessaline/auth/transport/exchange.hpp"

#include <new>
#include <optional>
#include <string>
#include <utility>
#include <variant>

#include "tessaline/auth/names.hpp"
#include "tessaline/auth/python/python.hpp"
#include "tessaline/auth/transport/http_library.hpp"
#include "tessaline/auth/transport/raise_failure.hpp"

namespace tessaline::auth {
namespace {

using python::Ref;

[[noreturn]] void raise_not_text(const char* what, PyObject* value) {
  PyErr_Format(PyExc_TypeError, "%s must be str, not %.200s", what, Py_TYPE(value)->tp_name);
  throw python::Error::fetch();
}

[[noreturn]] void raise_unsendable(const char* what, const char* why) {
  PyErr_Format(PyExc_ValueError, "%s %s", what, why);
  throw python::Error::fetch();
}

/// Header fields are sent as ISO 8859-1. Read in place: the errors of Python's own encoders contain the text.
std::string latin1_of(const char* what, PyObject* value) {
  if (!PyUnicode_Check(value)) raise_not_text(what, value);
  if (PyUnicode_KIND(value) != PyUnicode_1BYTE_KIND)
    raise_unsendable(what, "has characters beyond ISO 8859-1");
  return {static_cast<const char*>(PyUnicode_DATA(value)),
          static_cast<std::size_t>(PyUnicode_GET_LENGTH(value))};
}

std::string ascii_of(const char* what, PyObject* value) {
  if (!PyUnicode_Check(value)) raise_not_text(what, value);
  if (!PyUnicode_IS_ASCII(value)) raise_unsendable(what, "has characters outside ASCII");
  return std::string(python::utf8_of(value));
}

Ref items_of(PyObject* mapping) {
  Ref items;
  std::optional<python::Error> failure =
      python::caught([&] { items = python::call_method(mapping, names::items); });
  if (!failure) return items;
  if (!failure->matches(PyExc_AttributeError)) throw std::move(*failure);
  PyErr_Format(PyExc_TypeError, "headers must be a mapping or None, not %.200s", Py_TYPE(mapping)->tp_name);
  throw python::Error::fetch();
}

http::Headers headers_of(PyObject* mapping) {
  http::Headers fields;
  if (mapping == Py_None) return fields;
  const Ref items = python::iterator(items_of(mapping).get());
  while (Ref pair = python::next(items.get())) {
    const Ref name = python::item(pair.get(), python::integer(0).get());
    const Ref value = python::item(pair.get(), python::integer(1).get());
    fields.emplace_back(latin1_of("header name", name.get()), latin1_of("header value", value.get()));
  }
  return fields;
}

std::string utf8_body(PyObject* text) {
  std::string body;
  std::optional<python::Error> failure = python::caught([&] { body = python::utf8_of(text); });
  if (failure && failure->matches(PyExc_UnicodeEncodeError)) raise_unsendable("body", "has no UTF-8 form");
  if (failure) throw std::move(*failure);
  return body;
}

std::optional<std::string> body_of(PyObject* body) {
  if (body == Py_None) return std::nullopt;
  if (PyUnicode_Check(body)) return utf8_body(body);
  if (PyBytes_Check(body)) {
    return std::string(PyBytes_AS_STRING(body), static_cast<std::size_t>(PyBytes_GET_SIZE(body)));
  }
  PyErr_Format(PyExc_TypeError, "body must be str, bytes or None, not %.200s", Py_TYPE(body)->tp_name);
  throw python::Error::fetch();
}

http::Result result_of(const http::Request& request) {
  // Signal handlers run only there; other threads need not wake for them.
  const bool interruptible = python::on_main_thread();
  return python::without_gil([&](PyThreadState*& thread) {
    http::Tick tick;
    if (interruptible) tick = [&thread] { return python::run_signal_handlers(thread); };
    return perform_request(request, tick);
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

http::Request request_of(PyObject* method, PyObject* url, PyObject* headers, PyObject* body) {
  http::Request request;
  request.method = ascii_of("method", method);
  request.url = ascii_of("url", url);
  request.headers = headers_of(headers);
  request.body = body_of(body);
  return request;
}

Ref make_exchange(const http::Request& request, const ChosenSettings& chosen) {
  const http::Result result = result_of(request);
  if (const auto* failure = std::get_if<http::TransportFailure>(&result)) {
    raise_failure(*failure, request, chosen);
  }
  const auto* const response = std::get_if<http::Response>(&result);
  if (response == nullptr) throw std::bad_alloc();
  return python::triple(python::integer(response->status), headers_dict(response->headers),
                        python::bytes(response->body));
}

}  // namespace tessaline::auth
