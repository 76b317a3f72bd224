#include <Python.h>

#include <variant>

#include "tessaline/auth/python/python.hpp"
#include "tessaline/auth/transport/http_library.hpp"
#include "tessaline/native/era_board.hpp"
#include "tessaline/native/keeper_get_token.hpp"
#include "tessaline/native/token_copy.hpp"
#include "tessaline/native/transport.hpp"

namespace tessaline::native {
namespace {

namespace python = auth::python;

constinit const python::Name kAuth{"tessaline.auth"};

// Whether libcurl, OpenSSL and libsecp256k1 are statically linked.
#ifdef TESSALINE_BUNDLED
constexpr bool kBundled = true;
#else
constexpr bool kBundled = false;
#endif

PyObject* set_event(PyObject*, PyObject* event) {
  return python::boundary([event] {
    python::set_event(event);
    return python::Ref::none();
  });
}

PyObject* own_get_token(PyObject*, PyObject* subclass) {
  return python::boundary([subclass] { return with_own_get_token(subclass); });
}

PyObject* library_versions(PyObject*, PyObject*) {
  return python::boundary([] {
    const auto told = python::without_gil([](PyThreadState*&) { return auth::http_versions(); });
    if (const auto* const failure = std::get_if<auth::http::TransportFailure>(&told)) {
      python::raise(PyExc_OSError, failure->what());
    }
    const auto& versions = std::get<auth::http::Versions>(told);
    return python::triple(python::text(versions.libcurl), python::text(versions.openssl),
                          python::text(TESSALINE_SECP256K1_VERSION));
  });
}

PyMethodDef functions[] = {
    {"library_versions", library_versions, METH_NOARGS,
     "library_versions($module, /)\n--\n\n"
     "The versions of libcurl and OpenSSL that are in use, and of libsecp256k1 as it was at the build.\n\n"
     "Raises:\n    OSError: The library that makes requests cannot be loaded."},
    {"own_get_token", own_get_token, METH_O,
     "own_get_token($module, cls, /)\n--\n\n"
     "Class decorator: gives a subclass of `Serving` a `get_token` that is called at its cheapest."},
    {"set_event", set_event, METH_O,
     "set_event($module, event, /)\n--\n\n"
     "Set a `threading.Event` in one step: a signal handler that touches it cannot run inside."},
    {nullptr, nullptr, 0, nullptr},
};

bool executed = false;

/// Forgets all interned names if the initialisation fails: the next one may be in another interpreter.
class Execution {
 public:
  Execution() = default;
  ~Execution() {
    if (!executed) python::forget_interpreter();
  }
  Execution(const Execution&) = delete;
  Execution& operator=(const Execution&) = delete;
};

int execute(PyObject* module) {
  return python::status_boundary([module] {
    const Execution here;
    // Importing that module refuses a second interpreter, for these types too; globals are looked up there.
    python::keep_module(python::import(kAuth).get());
    python::know_own_events();
    auth::watch_forks_for_http();
    python::checked(PyModule_AddFunctions(module, functions));
    python::checked(PyModule_AddObjectRef(module, "bundled", kBundled ? Py_True : Py_False));
    add_era_board_type(module);
    add_token_copy_type(module);
    add_serving_type(module);
    add_transport_type(module);
    executed = true;
  });
}

PyModuleDef_Slot slots[] = {
    {Py_mod_exec, reinterpret_cast<void*>(execute)},
    {Py_mod_multiple_interpreters, Py_MOD_PER_INTERPRETER_GIL_SUPPORTED},
    {0, nullptr},
};

PyModuleDef definition = {
    PyModuleDef_HEAD_INIT,
    "tessaline._native",
    "The native parts of the modules beside `tessaline.auth`; private to the package.",
    0,
    nullptr,
    slots,
    nullptr,
    nullptr,
    nullptr,
};

}  // namespace
}  // namespace tessaline::native

// The interpreter derives this name from the module's.
PyMODINIT_FUNC PyInit__native() {  // NOLINT(bugprone-reserved-identifier,readability-identifier-naming)
  return PyModuleDef_Init(&tessaline::native::definition);
}
