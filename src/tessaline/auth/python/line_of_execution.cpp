#include "tessaline/auth/python/line_of_execution.hpp"

#include <Python.h>

#include "tessaline/auth/python/call.hpp"
#include "tessaline/auth/python/caught.hpp"
#include "tessaline/auth/python/globals.hpp"

namespace tessaline::auth::python {
namespace {

constinit const Name kThreading{"threading"};
constinit const Name kThread{"_thread"};
constinit const Name kGetIdent{"get_ident"};
constinit const Name kMainThread{"main_thread"};
constinit const Name kIdent{"ident"};

PyObject* own_get_ident = nullptr;

unsigned long named_by(PyObject* get_ident) {
  const Ref named = call(get_ident);
  const unsigned long ident = PyLong_Check(named.get()) ? PyLong_AsUnsignedLongMask(named.get()) : 0;
  return ident != 0 ? ident : PyThread_get_thread_ident();
}

}  // namespace

void know_own_get_ident() {
  const Ref thread = import(kThread);
  Ref found = attribute(thread.get(), kGetIdent);
  if (PyCFunction_CheckExact(found.get()) && PyCFunction_GET_SELF(found.get()) == thread.get()) {
    own_get_ident = found.release();
  }
}

unsigned long line_of_execution() noexcept {
  unsigned long here = PyThread_get_thread_ident();
  // Who cannot be asked, for want of memory, is the thread.
  static_cast<void>(caught([&] {
    const Ref get_ident = attribute(global(kThreading).get(), kGetIdent);
    if (get_ident.get() != own_get_ident) here = named_by(get_ident.get());
  }));
  return here;
}

bool on_main_thread() {
  const Ref threading = global(kThreading);
  const Ref main_thread = call_method(threading.get(), kMainThread);
  const Ref here = call_method(threading.get(), kGetIdent);
  return equal(attribute(main_thread.get(), kIdent).get(), here.get());
}

}  // namespace tessaline::auth::python
