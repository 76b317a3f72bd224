#include "tessaline/auth/python/plain_lock.hpp"

#include <string_view>

#include "tessaline/auth/python/name.hpp"
#include "tessaline/auth/python/value.hpp"

namespace tessaline::auth::python {
namespace {

using namespace std::string_view_literals;

constinit const Name kAllocateLock{"_allocate_lock"};

/// Of the module `threading`, kept until the process ends.
PyObject* threading_namespace = nullptr;

bool is_of_thread_module(PyObject* module) noexcept {
  if (module == nullptr || !PyModule_Check(module)) return false;
  const PyModuleDef* const definition = PyModule_GetDef(module);
  return definition != nullptr && definition->m_name == "_thread"sv;
}

}  // namespace

bool is_plain_lock(PyObject* lock) noexcept {
  // A class that Python code makes has no module in its name, and is not immutable.
  PyTypeObject* const type = Py_TYPE(lock);
  return PyType_HasFeature(type, Py_TPFLAGS_IMMUTABLETYPE) && type->tp_name == "_thread.lock"sv;
}

void know_lock_maker(PyObject* threading) {
  threading_namespace = Py_NewRef(PyModule_GetDict(threading));
  kAllocateLock.object();
}

Ref plain_lock_maker() {
  Ref maker = entry(threading_namespace, kAllocateLock);
  const bool own =
      maker && PyCFunction_CheckExact(maker.get()) && is_of_thread_module(PyCFunction_GET_SELF(maker.get()));
  return own ? std::move(maker) : Ref();
}

}  // namespace tessaline::auth::python
