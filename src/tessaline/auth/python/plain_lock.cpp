#include "tessaline/auth/python/plain_lock.hpp"

#include <string_view>

#include "tessaline/auth/python/call.hpp"
#include "tessaline/auth/python/interior.hpp"
#include "tessaline/auth/python/note.hpp"
#include "tessaline/auth/python/value.hpp"

namespace tessaline::auth::python {
namespace {

using namespace std::string_view_literals;

constinit const Name kAllocateLock{"_allocate_lock"};
constinit const Name kLock{"Lock"};
constinit const Name kLocked{"locked"};

/// Of the module `threading`, never freed; null if its locks are unknown.
PyObject* threading_namespace = nullptr;

bool is_of_thread_module(PyObject* module) noexcept {
  if (module == nullptr || !PyModule_Check(module)) return false;
  const PyModuleDef* const definition = PyModule_GetDef(module);
  return definition != nullptr && definition->m_name == "_thread"sv;
}

LockKind kind_of(PyObject* lock) {
  PyTypeObject* const type = Py_TYPE(lock);
  Ref method;
  best_effort([&] { method = attribute(reinterpret_cast<PyObject*>(type), kLocked); });
  if (!method || !Py_IS_TYPE(method.get(), &PyMethodDescr_Type)) return {};
  const PyMethodDef* const definition = reinterpret_cast<PyMethodDescrObject*>(method.get())->d_method;
  if (definition->ml_flags != METH_NOARGS) return {};
  return {reinterpret_cast<PyTypeObject*>(Py_NewRef(type)), definition->ml_meth};
}

}  // namespace

bool is_plain_lock(PyObject* lock) noexcept {
  // A class made by Python code has no module in its name, and is not immutable.
  PyTypeObject* const type = Py_TYPE(lock);
  return threading_namespace != nullptr && PyType_HasFeature(type, Py_TPFLAGS_IMMUTABLETYPE) &&
         type->tp_name == "_thread.lock"sv;
}

void know_locks(PyObject* threading) {
  if (!inside_is_known()) return;
  kAllocateLock.object();
  lock_kind = kind_of(call_method(threading, kLock).get());
  threading_namespace = Py_NewRef(PyModule_GetDict(threading));
}

Ref plain_lock_maker() {
  if (threading_namespace == nullptr) return {};
  Ref maker = entry(threading_namespace, kAllocateLock);
  const bool own =
      maker && PyCFunction_CheckExact(maker.get()) && is_of_thread_module(PyCFunction_GET_SELF(maker.get()));
  return own ? std::move(maker) : Ref();
}

}  // namespace tessaline::auth::python
