// The module `instructions`: what callgrind counts, without other code of the interpreter in between.

#define PY_SSIZE_T_CLEAN
#include <Python.h>
#include <valgrind/callgrind.h>

#include <cstddef>
#include <exception>

#include "benchmarks/native/bare_curve.hpp"
#include "benchmarks/native/floor_module.hpp"

namespace {

namespace benchmarks = tessaline::benchmarks;

PyObject* call_method(PyObject* /*module*/, PyObject* args) {
  const char* mark = nullptr;
  PyObject* object = nullptr;
  PyObject* name = nullptr;
  Py_ssize_t times = 0;
  if (!PyArg_ParseTuple(args, "sOUn", &mark, &object, &name, &times)) return nullptr;
  CALLGRIND_ZERO_STATS;
  for (Py_ssize_t i = 0; i < times; ++i) {
    PyObject* result = PyObject_CallMethodNoArgs(object, name);
    if (result == nullptr) return nullptr;
    Py_DECREF(result);
  }
  CALLGRIND_DUMP_STATS_AT(mark);
  Py_RETURN_NONE;
}

template <double (*kSign)(std::size_t, std::size_t)>
PyObject* sign(PyObject* /*module*/, PyObject* args) {
  const char* mark = nullptr;
  Py_ssize_t bytes = 0;
  Py_ssize_t times = 0;
  if (!PyArg_ParseTuple(args, "snn", &mark, &bytes, &times)) return nullptr;
  try {
    // The first one creates what all others share.
    kSign(1, static_cast<std::size_t>(bytes));
    CALLGRIND_ZERO_STATS;
    kSign(static_cast<std::size_t>(times), static_cast<std::size_t>(bytes));
    CALLGRIND_DUMP_STATS_AT(mark);
  } catch (const std::exception& error) {
    PyErr_SetString(PyExc_RuntimeError, error.what());
    return nullptr;
  }
  Py_RETURN_NONE;
}

PyMethodDef kFunctions[] = {
    {"call_method", call_method, METH_VARARGS, "call_method(mark, object, name, times)"},
    {"bare_signing", sign<benchmarks::time_bare_signing>, METH_VARARGS,
     "bare_signing(mark, message_bytes, times)"},
    {"login_signing", sign<benchmarks::time_login_signing>, METH_VARARGS,
     "login_signing(mark, message_bytes, times)"},
    {nullptr, nullptr, 0, nullptr},
};

PyModuleDef kModule =
    benchmarks::with_empty_type("instructions", "Calls between two marks for callgrind.", kFunctions);

}  // namespace

PyMODINIT_FUNC PyInit_instructions() {
  return PyModuleDef_Init(&kModule);
}
