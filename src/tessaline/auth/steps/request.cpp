#include "tessaline/auth/steps/request.hpp"

#include <optional>
#include <utility>

#include "tessaline/auth/errors/notes.hpp"
#include "tessaline/auth/names.hpp"
#include "tessaline/auth/python/python.hpp"

namespace tessaline::auth {
namespace {

using python::Ref;

Ref request_headers(PyObject* headers) {
  Ref merged = python::dictionary({{names::content_type, python::text("application/json").get()}});
  if (python::truthy(headers)) python::call_method(merged.get(), names::update, {headers});
  return merged;
}

Ref request_body(PyObject* json, PyObject* body_dict) {
  if (body_dict == Py_None) return Ref::none();
  return python::call_method(json, names::dumps, {body_dict});
}

bool is_not_json(PyObject* json, const python::Error& error) {
  return error.matches(python::attribute(json, names::json_decode_error).get()) ||
         error.matches(PyExc_UnicodeDecodeError);
}

Ref response_value(PyObject* json, PyObject* body) {
  if (!python::truthy(body)) return Ref::none();
  Ref value;
  std::optional<python::Error> failure =
      python::caught([&] { value = python::call_method(json, names::loads, {body}); });
  if (!failure) return value;
  // The parser's frames hold the body, and so a token and a secret.
  if (!is_not_json(json, *failure)) {
    if (python::tells_of_misuse(*failure))
      failure = python::noted(std::move(*failure), notes::kTransportAnswer);
    python::raise_bare(std::move(*failure));
  }
  return python::with_note(notes::kTransportAnswer, [body] {
    return python::call_method(body, names::decode, {python::text("utf-8").get()},
                               {{names::errors, python::text("replace").get()}});
  });
}

}  // namespace

Ref http_request(PyObject* manager, PyObject* method, PyObject* path, PyObject* body_dict,
                 PyObject* headers) {
  Ref json = python::global(names::json);
  Ref url = python::add(python::attribute(manager, names::server_url).get(), path);
  Ref sent_headers = request_headers(headers);
  Ref sent_body = request_body(json.get(), body_dict);
  Ref transport = python::attribute(manager, names::transport);
  if (PyCallable_Check(transport.get()) == 0) {
    PyErr_Format(PyExc_TypeError, "_transport must be callable, not %.200s",
                 Py_TYPE(transport.get())->tp_name);
    throw python::Error::fetch();
  }
  Ref answer = python::call(transport.get(), {method, url.get()},
                            {{names::headers, sent_headers.get()}, {names::body, sent_body.get()}});
  auto [status, response_headers, body] =
      python::with_note(notes::kTransportAnswer, [&] { return python::unpack3(answer.get()); });
  Ref value = response_value(json.get(), body.get());
  return python::triple(std::move(status), std::move(response_headers), std::move(value));
}

}  // namespace tessaline::auth
