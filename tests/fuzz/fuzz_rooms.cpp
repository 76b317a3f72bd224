// `http/` and `wallet/` as a Python module, for targets that compare them with Python's libraries.

#include <Python.h>

#include <string>
#include <string_view>

#include "tessaline/auth/http/http_client.hpp"
#include "tessaline/auth/http/url.hpp"

namespace tessaline::fuzz {
namespace {

namespace http = auth::http;

PyObject* as_tuple(const http::Url& url) {
  return Py_BuildValue("(ssss)", url.text.c_str(), url.scheme.c_str(), url.host.c_str(), url.port.c_str());
}

PyObject* parse_url(PyObject*, PyObject* text) {
  Py_ssize_t size = 0;
  const char* data = PyUnicode_AsUTF8AndSize(text, &size);
  if (data == nullptr) return nullptr;
  try {
    return as_tuple(http::parse_url({data, static_cast<std::size_t>(size)}));
  } catch (const http::TransportFailure&) {
    Py_RETURN_NONE;
  }
}

PyObject* resolve_reference(PyObject*, PyObject* arguments) {
  const char* base = nullptr;
  const char* reference = nullptr;
  Py_ssize_t size = 0;
  if (!PyArg_ParseTuple(arguments, "sy#", &base, &reference, &size)) return nullptr;
  try {
    const auto url = http::resolve_reference(http::parse_url(base),
                                             std::string_view(reference, static_cast<std::size_t>(size)));
    if (url) return as_tuple(*url);
  } catch (const http::TransportFailure&) {
    PyErr_SetString(PyExc_ValueError, "not a base");
    return nullptr;
  }
  Py_RETURN_NONE;
}

PyMethodDef kFunctions[] = {
    {"parse_url", parse_url, METH_O, "(text, scheme, host, port), or None where it is refused"},
    {"resolve_reference", resolve_reference, METH_VARARGS, "where (base, reference) leads, or None"},
    {nullptr, nullptr, 0, nullptr},
};

PyModuleDef kModule = {PyModuleDef_HEAD_INIT, "fuzz_rooms", nullptr, -1, kFunctions, {}, {}, {}, {}};

}  // namespace
}  // namespace tessaline::fuzz

PyMODINIT_FUNC PyInit_fuzz_rooms() {
  return PyModule_Create(&tessaline::fuzz::kModule);
}
