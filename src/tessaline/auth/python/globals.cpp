#include "tessaline/auth/python/globals.hpp"

#include <utility>

#include "tessaline/auth/python/error.hpp"
#include "tessaline/auth/python/value.hpp"

namespace tessaline::auth::python {
namespace {

PyObject* kept_module = nullptr;
PyObject* kept_namespace = nullptr;

}  // namespace

void keep_module(PyObject* module) noexcept {
  kept_module = Py_NewRef(module);
  kept_namespace = PyModule_GetDict(module);
}

void forget_interpreter() noexcept {
  kept_namespace = nullptr;
  drop(std::exchange(kept_module, nullptr));
  Name::forget_all();
}

PyObject* module_namespace() noexcept {
  return kept_namespace;
}

Ref global(const Name& name) {
  Ref value = entry(kept_namespace, name);
  if (!value) {
    PyErr_Format(PyExc_NameError, "name '%s' is not defined", name.text());
    throw Error::fetch();
  }
  return value;
}

void set_global(const Name& name, PyObject* value) {
  checked(PyDict_SetItem(kept_namespace, name.object(), value));
}

}  // namespace tessaline::auth::python
