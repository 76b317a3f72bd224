#include <Python.h>
#include <unistd.h>

#include <cstdlib>

#include "crash.hpp"
#include "plan.hpp"
#include "python_allocators.hpp"

// The controls, as a module for the programs that run the torture. The same file is preloaded, so that its
// functions replace those of the libraries.

namespace {

PyObject* begin(PyObject*, PyObject* arguments) {
  int kind = 0;
  torture::Plan plan;
  if (PyArg_ParseTuple(arguments, "illli", &kind, &plan.first, &plan.last, &plan.also, &plan.variant) == 0) {
    return nullptr;
  }
  plan.kind = static_cast<torture::Kind>(kind);
  torture::hook_python_allocators();
  torture::begin(plan);
  Py_RETURN_NONE;
}

PyObject* end(PyObject*, PyObject*) {
  const torture::Tally tally = torture::end();
  return Py_BuildValue("llNs", tally.seen, tally.failed, PyBool_FromLong(tally.no_such_variant), tally.what);
}

PyObject* armed(PyObject*, PyObject* body) {
  const bool before = torture::arm(true);
  PyObject* result = PyObject_CallNoArgs(body);
  torture::arm(before);
  return result;
}

PyObject* call_host(PyObject* body, PyObject* const* arguments, Py_ssize_t count, PyObject* names) {
  const bool before = torture::arm(false);
  PyObject* result = PyObject_Vectorcall(body, arguments, static_cast<size_t>(count), names);
  torture::arm(before);
  return result;
}

PyMethodDef host_method{"host", reinterpret_cast<PyCFunction>(reinterpret_cast<void (*)()>(call_host)),
                        METH_FASTCALL | METH_KEYWORDS, "A callable during which nothing is counted."};

PyObject* host(PyObject*, PyObject* body) {
  return PyCFunction_New(&host_method, body);
}

PyObject* arm(PyObject*, PyObject*) {
  torture::arm(true);
  Py_RETURN_NONE;
}

PyObject* watch_crashes(PyObject*, PyObject*) {
  torture::watch_crashes();
  Py_RETURN_NONE;
}

PyObject* leave(PyObject*, PyObject*) {
#ifdef TORTURE_COUNTS
  // Only a normal exit writes the counts of an instrumented build.
  std::exit(0);
#else
  _exit(0);
#endif
}

PyObject* live(PyObject*, PyObject*) {
  return Py_BuildValue("ll", torture::live_python_blocks(), torture::live_module_blocks());
}

PyObject* secrets(PyObject*, PyObject*) {
  const torture::SecretPages seen = torture::look_at_secret_pages();
  return Py_BuildValue("ili", seen.pages, seen.bytes_not_zero, seen.slots_taken);
}

PyMethodDef methods[] = {
    {"begin", begin, METH_VARARGS, "begin(kind, first, last, also, variant): make a plan."},
    {"end", end, METH_NOARGS, "End it: (seen, failed, no such variant, what failed last)."},
    {"armed", armed, METH_O, "Call with things counted on this thread."},
    {"host", host, METH_O, "Wrap a callable so that nothing is counted during its calls."},
    {"arm", arm, METH_NOARGS, "Have things counted on this thread until it ends."},
    {"watch_crashes", watch_crashes, METH_NOARGS, "Have a crash write its native frames."},
    {"leave", leave, METH_NOARGS, "End the process at once."},
    {"live", live, METH_NOARGS, "(Python blocks, blocks of the module) allocated and not freed."},
    {"secrets", secrets, METH_NOARGS, "(pages, bytes not zero, slots taken) of the memory for secrets."},
    {nullptr, nullptr, 0, nullptr},
};

PyModuleDef definition{
    PyModuleDef_HEAD_INIT, "_torture", nullptr, 0, methods, nullptr, nullptr, nullptr, nullptr};

}  // namespace

PyMODINIT_FUNC PyInit__torture() {
  return PyModule_Create(&definition);
}
