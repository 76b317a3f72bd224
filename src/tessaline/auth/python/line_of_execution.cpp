#include "tessaline/auth/python/line_of_execution.hpp"

#include <Python.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <optional>
#include <utility>

#include "tessaline/auth/python/call.hpp"
#include "tessaline/auth/python/caught.hpp"
#include "tessaline/auth/python/globals.hpp"
#include "tessaline/auth/python/import.hpp"
#include "tessaline/auth/python/interior.hpp"

namespace tessaline::auth::python {
namespace {

constinit const Name kThreading{"threading"};
constinit const Name kThread{"_thread"};
constinit const Name kGetIdent{"get_ident"};
constinit const Name kMainThread{"main_thread"};
constinit const Name kIdent{"ident"};

/// Null if it has to be called.
PyObject* own_get_ident = nullptr;
PyObject* threading_names = nullptr;

unsigned long named_by(PyObject* get_ident) {
  const Ref named = call(get_ident);
  const unsigned long ident = PyLong_Check(named.get()) ? PyLong_AsUnsignedLongMask(named.get()) : 0;
  return ident != 0 ? ident : PyThread_get_thread_ident();
}

/// Whether it is the interpreter's function and returns what this file assumes.
bool is_as_known(PyObject* get_ident, PyObject* thread_module) {
  return PyCFunction_CheckExact(get_ident) && PyCFunction_GET_SELF(get_ident) == thread_module &&
         named_by(get_ident) == PyThread_get_thread_ident();
}

}  // namespace

void know_own_get_ident() {
  const Ref thread = import(kThread);
  Ref found = attribute(thread.get(), kGetIdent);
  if (inside_is_known() && is_as_known(found.get(), thread.get())) own_get_ident = found.release();
  kGetIdent.object();
  threading_names = Py_NewRef(PyModule_GetDict(import(kThreading).get()));
}

unsigned long line_of_execution() {
  // Runs whenever a lock is taken: a dict lookup, without a call unless the function was replaced.
  PyObject* const get_ident = PyDict_GetItemWithError(threading_names, kGetIdent.object());
  unsigned long here = PyThread_get_thread_ident();
  if (get_ident == own_get_ident || get_ident == nullptr) return here;
  const Ref kept = Ref::borrow(get_ident);
  std::optional<Error> failure = caught([&] { here = named_by(kept.get()); });
  // If it fails for lack of memory, the thread's own identity is used.
  if (failure && !failure->matches(PyExc_Exception)) throw std::move(*failure);
  return here;
}

bool on_main_thread() {
  // The process's first thread; `threading` may name a green thread instead.
  if (syscall(SYS_gettid) == getpid()) return true;
  const Ref main_thread = call_method(global(kThreading).get(), kMainThread);
  const Ref ident = attribute(main_thread.get(), kIdent);
  return PyLong_Check(ident.get()) && PyLong_AsUnsignedLongMask(ident.get()) == PyThread_get_thread_ident();
}

}  // namespace tessaline::auth::python
