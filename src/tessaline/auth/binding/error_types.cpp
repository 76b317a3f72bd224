#include "tessaline/auth/binding/error_types.hpp"

#include "tessaline/auth/binding/error_notes.hpp"
#include "tessaline/auth/errors/errors.hpp"
#include "tessaline/auth/names.hpp"
#include "tessaline/auth/python/python.hpp"

namespace tessaline::auth::binding {
namespace {

using python::Ref;

/// `Exception.__init__(self, reason)` and the attribute `reason`.
void initialise_with_reason(PyObject* self, PyObject* reason_value) {
  Ref arguments = python::checked(PyTuple_Pack(1, reason_value));
  python::checked(reinterpret_cast<PyTypeObject*>(PyExc_Exception)->tp_init(self, arguments.get(), nullptr));
  python::set_attribute(self, names::reason, reason_value);
}

int initialise_auth_error(PyObject* self, PyObject* arguments, PyObject* keywords) {
  static constexpr python::Parameters kParameters("AuthError.__init__", {"reason"}, 1, 1, 1);
  return python::status_boundary(
      [&] { initialise_with_reason(self, kParameters.bind(arguments, keywords)[0]); });
}

/// Accepts any keyword besides `reason`; each becomes an attribute of the instance.
int initialise_profile_error(PyObject* self, PyObject* arguments, PyObject* keywords) {
  static constexpr python::Parameters kParameters("ProfileError.__init__", {"reason"}, 1, 1, 1);
  return python::status_boundary([&] {
    Ref extras = python::checked(keywords == nullptr ? PyDict_New() : PyDict_Copy(keywords));
    Ref reason_only = python::checked(PyDict_New());
    if (Ref given = python::entry(extras.get(), names::reason)) {
      python::checked(PyDict_SetItem(reason_only.get(), names::reason.object(), given.get()));
      python::checked(PyDict_DelItem(extras.get(), names::reason.object()));
    }
    PyObject* const reason_value = kParameters.bind(arguments, reason_only.get())[0];
    Ref attributes = python::checked(PyObject_GenericGetDict(self, nullptr));
    python::checked(PyDict_Update(attributes.get(), extras.get()));
    initialise_with_reason(self, reason_value);
  });
}

Ref make_type(PyObject* module, const char* name, const char* doc, initproc initialise) {
  PyType_Slot slots[] = {
      {Py_tp_doc, const_cast<char*>(doc)},
      {Py_tp_getset, error_attributes},
      {Py_tp_methods, error_methods},
      {initialise != nullptr ? Py_tp_init : 0, reinterpret_cast<void*>(initialise)},
      {0, nullptr},
  };
  // With garbage collection, a `__dict__` and weak references, like errors of Python code.
  PyType_Spec spec{name, 0, 0, Py_TPFLAGS_DEFAULT | Py_TPFLAGS_BASETYPE | Py_TPFLAGS_MANAGED_WEAKREF, slots};
  Ref bases = python::checked(PyTuple_Pack(1, PyExc_Exception));
  return python::checked(PyType_FromModuleAndSpec(module, &spec, bases.get()));
}

PyObject* add_type(PyObject* module, const char* name, const char* doc, initproc initialise = nullptr) {
  Ref type = make_type(module, name, doc, initialise);
  python::checked(PyModule_AddType(module, reinterpret_cast<PyTypeObject*>(type.get())));
  return type.release();
}

}  // namespace

void add_error_types(PyObject* module) {
  ErrorTypes types;
  types.invalid_key = add_type(module, "tessaline.auth.InvalidKeyError",
                               "Raised when private key is invalid (format, length, or secp256k1 scalar).\n\n"
                               "Carries one English sentence, which never repeats the key.");
  types.auth =
      add_type(module, "tessaline.auth.AuthError",
               "AuthError(reason)\n--\n\n"
               "Raised on authentication failures.\n\n"
               "Attributes:\n"
               "    reason: lowercase snake_case text for programs to compare; also the error's text.\n\n"
               "If a manager raises it, a note says what to do.",
               initialise_auth_error);
  types.registration =
      add_type(module, "tessaline.auth.RegistrationError",
               "Raised when the server rejects a registration request.\n\n"
               "Its only argument is the server's reason: \"invite_required\", \"invite_invalid\",\n"
               "\"invite_already_redeemed\" or \"invite_revoked\".");
  types.profile = add_type(module, "tessaline.auth.ProfileError",
                           "ProfileError(reason, **kwargs)\n--\n\n"
                           "Raised on display name/profile failures.\n\n"
                           "Attributes:\n"
                           "    reason: \"validation_failed\" or \"rate_limited\"; also the error's text.\n"
                           "    message: the server's words, with \"validation_failed\".\n"
                           "    retry_after: seconds to wait before the next try, with \"rate_limited\".",
                           initialise_profile_error);
  types.network =
      add_type(module, "tessaline.auth.NetworkError",
               "Raised when network is unreachable after retries.\n\n"
               "Its message has the number of attempts, its note the last of them. It is safe to retry.");
  set_error_types(types);
}

}  // namespace tessaline::auth::binding
