// The module `floors`: the lower bounds on this machine, timed in C++ or as an empty call.

#define PY_SSIZE_T_CLEAN
#include <Python.h>

#include <exception>
#include <stdexcept>
#include <string>
#include <vector>

#include "bare_curve.hpp"
#include "bare_http.hpp"
#include "bare_roots.hpp"
#include "floor_module.hpp"

namespace {

namespace benchmarks = tessaline::benchmarks;

PyObject* raise(const std::exception& error) {
  PyErr_SetString(PyExc_RuntimeError, error.what());
  return nullptr;
}

PyObject* bare_signing(PyObject* /*module*/, PyObject* args) {
  Py_ssize_t loops = 0;
  Py_ssize_t bytes = 0;
  if (!PyArg_ParseTuple(args, "nn", &loops, &bytes)) return nullptr;
  try {
    return PyFloat_FromDouble(
        benchmarks::time_bare_signing(static_cast<std::size_t>(loops), static_cast<std::size_t>(bytes)));
  } catch (const std::exception& error) {
    return raise(error);
  }
}

PyObject* login_signing(PyObject* /*module*/, PyObject* args) {
  Py_ssize_t loops = 0;
  Py_ssize_t bytes = 0;
  if (!PyArg_ParseTuple(args, "nn", &loops, &bytes)) return nullptr;
  try {
    return PyFloat_FromDouble(
        benchmarks::time_login_signing(static_cast<std::size_t>(loops), static_cast<std::size_t>(bytes)));
  } catch (const std::exception& error) {
    return raise(error);
  }
}

PyObject* bare_derivation(PyObject* /*module*/, PyObject* args) {
  Py_ssize_t loops = 0;
  if (!PyArg_ParseTuple(args, "n", &loops)) return nullptr;
  try {
    return PyFloat_FromDouble(benchmarks::time_bare_derivation(static_cast<std::size_t>(loops)));
  } catch (const std::exception& error) {
    return raise(error);
  }
}

PyObject* bare_posts(PyObject* /*module*/, PyObject* args) {
  Py_ssize_t loops = 0;
  const char* url = nullptr;
  const char* body = nullptr;
  Py_ssize_t body_size = 0;
  if (!PyArg_ParseTuple(args, "nsy#", &loops, &url, &body, &body_size)) return nullptr;
  try {
    const benchmarks::Spent spent = benchmarks::time_bare_posts(
        static_cast<std::size_t>(loops), url, std::string(body, static_cast<std::size_t>(body_size)));
    return Py_BuildValue("dd", spent.wall, spent.cpu);
  } catch (const std::exception& error) {
    return raise(error);
  }
}

bool append_text(PyObject* tuple, std::vector<std::string>& texts) {
  for (Py_ssize_t i = 0; i < PyTuple_GET_SIZE(tuple); ++i) {
    const char* text = PyUnicode_AsUTF8(PyTuple_GET_ITEM(tuple, i));
    if (text == nullptr) return false;
    texts.emplace_back(text);
  }
  return true;
}

/// Fills both from the tuples, or sets an exception.
bool posts_from(PyObject* urls, PyObject* bodies, std::vector<std::string>& url_texts,
                std::vector<std::string>& body_texts) {
  if (PyTuple_GET_SIZE(urls) != PyTuple_GET_SIZE(bodies)) {
    PyErr_SetString(PyExc_ValueError, "one body for each URL");
    return false;
  }
  return append_text(urls, url_texts) && append_text(bodies, body_texts);
}

constexpr const char* kRoots = "floors.root_store";

void free_roots(PyObject* capsule) {
  const benchmarks::Roots owned(static_cast<X509_STORE*>(PyCapsule_GetPointer(capsule, kRoots)));
}

PyObject* root_store(PyObject* /*module*/, PyObject* args) {
  const char* file = nullptr;
  const char* directory = nullptr;
  if (!PyArg_ParseTuple(args, "ss", &file, &directory)) return nullptr;
  try {
    benchmarks::Roots roots = benchmarks::read_roots(file, directory);
    PyObject* const capsule = PyCapsule_New(roots.get(), kRoots, free_roots);
    if (capsule != nullptr) static_cast<void>(roots.release());
    return capsule;
  } catch (const std::exception& error) {
    return raise(error);
  }
}

/// The result of `root_store`, or null for None; false with an exception set for anything else.
bool roots_from(PyObject* capsule, X509_STORE*& roots) {
  if (capsule == nullptr || capsule == Py_None) return true;
  roots = static_cast<X509_STORE*>(PyCapsule_GetPointer(capsule, kRoots));
  return roots != nullptr;
}

PyObject* bare_connections(PyObject* /*module*/, PyObject* args) {
  Py_ssize_t loops = 0;
  const char* url = nullptr;
  PyObject* capsule = nullptr;
  X509_STORE* roots = nullptr;
  if (!PyArg_ParseTuple(args, "ns|O", &loops, &url, &capsule) || !roots_from(capsule, roots)) return nullptr;
  try {
    return PyFloat_FromDouble(benchmarks::time_bare_connections(static_cast<std::size_t>(loops), url, roots));
  } catch (const std::exception& error) {
    return raise(error);
  }
}

PyObject* bare_crowd(PyObject* /*module*/, PyObject* args) {
  Py_ssize_t threads = 0;
  PyObject* urls = nullptr;
  PyObject* bodies = nullptr;
  PyObject* capsule = nullptr;
  X509_STORE* roots = nullptr;
  if (!PyArg_ParseTuple(args, "nO!O!|O", &threads, &PyTuple_Type, &urls, &PyTuple_Type, &bodies, &capsule) ||
      !roots_from(capsule, roots)) {
    return nullptr;
  }
  try {
    std::vector<std::string> url_texts;
    std::vector<std::string> body_texts;
    if (!posts_from(urls, bodies, url_texts, body_texts)) return nullptr;
    return PyFloat_FromDouble(
        benchmarks::time_bare_crowd(static_cast<std::size_t>(threads), url_texts, body_texts, roots));
  } catch (const std::exception& error) {
    return raise(error);
  }
}

PyObject* bare_login(PyObject* /*module*/, PyObject* args) {
  PyObject* urls = nullptr;
  PyObject* bodies = nullptr;
  PyObject* capsule = nullptr;
  X509_STORE* roots = nullptr;
  if (!PyArg_ParseTuple(args, "O!O!|O", &PyTuple_Type, &urls, &PyTuple_Type, &bodies, &capsule) ||
      !roots_from(capsule, roots)) {
    return nullptr;
  }
  std::string failure;
  try {
    std::vector<std::string> url_texts;
    std::vector<std::string> body_texts;
    if (!posts_from(urls, bodies, url_texts, body_texts)) return nullptr;
    PyThreadState* const thread = PyEval_SaveThread();
    try {
      benchmarks::post_bare(url_texts, body_texts, roots);
    } catch (const std::exception& error) {
      failure = error.what();
    }
    PyEval_RestoreThread(thread);
  } catch (const std::exception& error) {
    return raise(error);
  }
  if (!failure.empty()) return raise(std::runtime_error(failure));
  Py_RETURN_NONE;
}

PyMethodDef kFunctions[] = {
    {"bare_signing", bare_signing, METH_VARARGS, "bare_signing(loops, message_bytes) -> seconds"},
    {"login_signing", login_signing, METH_VARARGS, "login_signing(loops, message_bytes) -> seconds"},
    {"bare_derivation", bare_derivation, METH_VARARGS, "bare_derivation(loops) -> seconds"},
    {"bare_posts", bare_posts, METH_VARARGS, "bare_posts(loops, url, body) -> (wall, cpu) in seconds"},
    {"root_store", root_store, METH_VARARGS, "root_store(file, directory) -> roots; either may be empty"},
    {"bare_connections", bare_connections, METH_VARARGS,
     "bare_connections(loops, url, roots=None) -> seconds of processor time, after one that does not count"},
    {"bare_login", bare_login, METH_VARARGS,
     "bare_login(urls, bodies, roots=None): over a connection of its own, without the GIL"},
    {"bare_crowd", bare_crowd, METH_VARARGS, "bare_crowd(threads, urls, bodies, roots=None) -> seconds"},
    {nullptr, nullptr, 0, nullptr},
};

PyModuleDef kModule =
    benchmarks::with_empty_type("floors", "What nothing on this machine can be faster than.", kFunctions);

}  // namespace

PyMODINIT_FUNC PyInit_floors() {
  return PyModuleDef_Init(&kModule);
}
