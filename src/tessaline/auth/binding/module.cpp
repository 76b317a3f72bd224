#include <Python.h>

#include <atomic>
#include <cstdint>

#include "tessaline/auth/binding/error_types.hpp"
#include "tessaline/auth/binding/manager_type.hpp"
#include "tessaline/auth/binding/module_constants.hpp"
#include "tessaline/auth/binding/module_functions.hpp"
#include "tessaline/auth/errors/notes.hpp"
#include "tessaline/auth/manager/manager.hpp"
#include "tessaline/auth/manager/process_generation.hpp"
#include "tessaline/auth/names.hpp"
#include "tessaline/auth/python/python.hpp"
#include "tessaline/auth/steps/validation.hpp"
#include "tessaline/auth/transport/http_library.hpp"

namespace tessaline::auth::binding {
namespace {

using python::Ref;

constinit const python::Name kRe{"re"};
constinit const python::Name kTime{"time"};
constinit const python::Name kLoggingStyle{"tessaline.logging_style"};

constexpr std::int64_t kNoInterpreter = -1;

// The ID, because the address of an interpreter that has ended may be reused.
std::atomic<std::int64_t> home{kNoInterpreter};
bool executed = false;

/// The component is process-wide, including its threads and types; a second interpreter, main or sub, would
/// share them.
void refuse_other_interpreters() {
  std::int64_t expected = kNoInterpreter;
  const std::int64_t here = PyInterpreterState_GetID(PyInterpreterState_Get());
  if (!home.compare_exchange_strong(expected, here) && expected != here) {
    python::raise_apart(
        PyExc_ImportError,
        "Interpreter change detected - this module can only be loaded into one interpreter per process.",
        notes::kOneInterpreter);
  }
  if (executed) {
    python::raise(PyExc_RuntimeError,
                  "Module 'auth' has already been imported. Re-initialisation is not supported.",
                  notes::kOneImport);
  }
}

/// One attempt to initialise the module. If it fails, the component belongs to no interpreter yet.
class Execution {
 public:
  Execution() { refuse_other_interpreters(); }
  ~Execution() {
    if (executed) return;
    python::forget_interpreter();
    home = kNoInterpreter;
  }
  Execution(const Execution&) = delete;
  Execution& operator=(const Execution&) = delete;
};

void import_as(const python::Name& module, const python::Name& name) {
  python::set_global(name, python::import(module).get());
}

void import_host_modules() {
  import_as(names::base64, names::base64);
  import_as(names::json, names::json);
  import_as(names::random, names::random);
  import_as(kRe, kRe);
  import_as(names::threading, names::threading);
  import_as(kTime, names::time_module);
  const Ref hook = python::import_from(kLoggingStyle, names::log_library_surface_event);
  python::set_global(names::log_library_surface_event, hook.get());
}

int execute(PyObject* module) {
  return python::status_boundary([module] {
    const Execution here;
    python::keep_module(module);
    import_host_modules();
    watch_forks();
    watch_forks_for_http();
    python::know_own_events();
    python::know_own_get_ident();
    add_constants();
    make_manager_texts();
    add_error_types(module);
    add_functions(module);
    know_own_validator();
    add_active_manager_slot();
    add_active_manager_functions(module);
    add_manager_type(module);
    executed = true;
  });
}

PyModuleDef_Slot slots[] = {
    {Py_mod_exec, reinterpret_cast<void*>(execute)},
    // Our own check refuses every second interpreter, isolated ones included, with the same text.
    {Py_mod_multiple_interpreters, Py_MOD_PER_INTERPRETER_GIL_SUPPORTED},
    {0, nullptr},
};

PyModuleDef definition = {
    PyModuleDef_HEAD_INIT,
    "tessaline.auth",
    "Auth subcomponent -- AuthManager with EIP-191 signing, JWT management, proactive refresh.",
    0,
    nullptr,
    slots,
    nullptr,
    nullptr,
    nullptr,
};

}  // namespace

PyObject* module_definition() {
  return PyModuleDef_Init(&definition);
}

}  // namespace tessaline::auth::binding

PyMODINIT_FUNC PyInit_auth() {
  return tessaline::auth::binding::module_definition();
}
