#include "tessaline/auth/python/error.hpp"

#include "tessaline/auth/python/park.hpp"

namespace tessaline::auth::python {

Error Error::fetch() noexcept {
  PyObject* exception = PyErr_GetRaisedException();
  if (exception == nullptr) {
    PyErr_SetString(PyExc_SystemError, "a call failed without raising an exception");
    exception = PyErr_GetRaisedException();
  }
  return Error(Ref::steal(exception));
}

bool Error::matches(PyObject* type) const noexcept {
  return PyErr_GivenExceptionMatches(exception_.get(), type) != 0;
}

void Error::restore() && noexcept {
  door([this] { PyErr_SetRaisedException(exception_.release()); });
}

Ref checked(PyObject* owned) {
  if (owned == nullptr) throw Error::fetch();
  return Ref::steal(owned);
}

int checked(int status) {
  if (status < 0) throw Error::fetch();
  return status;
}

void raise(PyObject* exception) {
  if (!PyExceptionInstance_Check(exception)) {
    raise(PyExc_TypeError, "exceptions must derive from BaseException");
  }
  door([exception] { PyErr_SetObject(reinterpret_cast<PyObject*>(Py_TYPE(exception)), exception); });
  throw Error::fetch();
}

void raise(PyObject* type, const char* message) {
  door([type, message] { PyErr_SetString(type, message); });
  throw Error::fetch();
}

void raise_bare(Error error) {
  PyObject* const exception = error.exception();
  set_traceback(exception, Py_None);
  door([exception] { PyException_SetContext(exception, nullptr); });
  door([exception] { PyException_SetCause(exception, nullptr); });
  throw std::move(error);
}

void warn_of_resource(PyObject* resource, PyObject* text) {
  checked(door([=] { return PyErr_ResourceWarning(resource, 1, "%U", text); }));
}

Ref traceback_of(PyObject* exception) {
  PyObject* const traceback =
      PyExceptionInstance_Check(exception) ? PyException_GetTraceback(exception) : nullptr;
  return traceback == nullptr ? Ref::none() : Ref::steal(traceback);
}

void set_traceback(PyObject* exception, PyObject* traceback) {
  if (!PyExceptionInstance_Check(exception)) return;
  checked(door([=] { return PyException_SetTraceback(exception, traceback); }));
}

Handling::Handling(const Error& error) noexcept : before_(Ref::steal(PyErr_GetHandledException())) {
  door([&error] { PyErr_SetHandledException(error.exception()); });
}

Handling::~Handling() {
  door([this] { PyErr_SetHandledException(before_.get()); });
}

}  // namespace tessaline::auth::python
