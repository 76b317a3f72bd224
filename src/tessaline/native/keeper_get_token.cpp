#include "tessaline/native/keeper_get_token.hpp"

#include <utility>

#include "tessaline/auth/python/python.hpp"
#include "tessaline/native/token_copy.hpp"
#include "tessaline/native/types.hpp"

namespace tessaline::native {
namespace {

using auth::python::Ref;
namespace python = auth::python;

constinit const python::Name kGetToken{"get_token"};
constinit const python::Name kWaitForToken{"_wait_for_token"};

constexpr double kDefaultTimeout = 10.0;

struct Serving {
  PyObject_HEAD PyObject* copy;  ///< a TokenCopy, or null
};

Serving& serving_of(PyObject* self) {
  return *reinterpret_cast<Serving*>(self);
}

Ref good_token(PyObject* self) {
  PyObject* const copy = serving_of(self).copy;
  if (copy == nullptr) return {};
  return reinterpret_cast<TokenCopy*>(copy)->good_token();
}

PyObject* get_token(PyObject* self, PyObject* const* arguments, Py_ssize_t count, PyObject* keyword_names) {
  return python::boundary([&] {
    static constexpr python::Parameters kParameters("get_token", {"timeout"}, 1, 0, 1);
    python::Bound given{};
    if (count != 0 || keyword_names != nullptr) given = kParameters.bind(arguments, count, keyword_names);
    if (Ref token = good_token(self)) return token;
    python::require_stack();
    const Ref timeout = given[0] == nullptr ? python::number(kDefaultTimeout) : Ref::borrow(given[0]);
    return python::call_method(self, kWaitForToken, {timeout.get()});
  });
}

PyObject* copy(PyObject* self, void*) {
  PyObject* const kept = serving_of(self).copy;
  return Py_NewRef(kept == nullptr ? Py_None : kept);
}

int set_copy(PyObject* self, PyObject* value, void*) {
  return python::status_boundary([&] {
    if (value == nullptr || !Py_IS_TYPE(value, token_copy_type)) {
      python::raise(PyExc_TypeError, "the copy must be a TokenCopy");
    }
    // Set only once: another thread may be reading it.
    if (serving_of(self).copy != nullptr) python::raise(PyExc_AttributeError, "the copy cannot be replaced");
    serving_of(self).copy = Py_NewRef(value);
  });
}

int clear(PyObject* self) {
  python::drop(std::exchange(serving_of(self).copy, nullptr));
  return 0;
}

void deallocate(PyObject* self) {
  deallocate_tracked(self, clear);
}

int traverse(PyObject* self, visitproc visit, void* arg) {
  Py_VISIT(Py_TYPE(self));
  Py_VISIT(serving_of(self).copy);
  return 0;
}

PyMethodDef methods[] = {
    {"get_token", reinterpret_cast<PyCFunction>(reinterpret_cast<void (*)()>(get_token)),
     METH_FASTCALL | METH_KEYWORDS,
     "get_token($self, /, timeout=10.0)\n--\n\n"
     "Return the wallet's token: the keeper's own copy, at once, while it is valid.\n\n"
     "A copy is valid until its expiry, unless a newer era was announced. Cheap: call it before every\n"
     "request instead of storing the token. May be called from any thread.\n\n"
     "Args:\n"
     "    timeout: How long to wait without a valid copy, in seconds of real time; 0 does not wait, None\n"
     "        waits without a limit.\n\n"
     "Returns:\n"
     "    The token, a JWT as str.\n\n"
     "Raises:\n"
     "    AuthError: \"not_authenticated\" before start(), \"manager_closed\" after close() or woken by it, "
     "or the\n"
     "        error of the last attempt; \"token_expired\" or \"era_change_pending\" if there was none yet.\n"
     "    NetworkError, RegistrationError, OSError and others: The error of the last login attempt."},
    {nullptr, nullptr, 0, nullptr},
};

PyGetSetDef properties[] = {
    {"_copy", copy, set_copy, "What is served.", nullptr},
    {nullptr, nullptr, nullptr, nullptr, nullptr},
};

PyType_Slot slots[] = {
    {Py_tp_new, reinterpret_cast<void*>(PyType_GenericNew)},
    {Py_tp_clear, reinterpret_cast<void*>(clear)},
    {Py_tp_dealloc, reinterpret_cast<void*>(deallocate)},
    {Py_tp_traverse, reinterpret_cast<void*>(traverse)},
    {Py_tp_methods, methods},
    {Py_tp_getset, properties},
    {Py_tp_doc, const_cast<char*>(
                    "Serves a token: natively while it is valid, otherwise by `_wait_for_token(timeout)`.")},
    {0, nullptr},
};

PyType_Spec spec = {"tessaline._native.Serving", static_cast<int>(sizeof(Serving)), 0,
                    Py_TPFLAGS_DEFAULT | Py_TPFLAGS_BASETYPE | Py_TPFLAGS_HAVE_GC, slots};

PyTypeObject* serving_type = nullptr;

}  // namespace

void add_serving_type(PyObject* module) {
  serving_type = add_type(module, spec);
}

Ref with_own_get_token(PyObject* subclass) {
  if (!PyType_Check(subclass) ||
      PyType_IsSubtype(reinterpret_cast<PyTypeObject*>(subclass), serving_type) == 0) {
    python::raise(PyExc_TypeError, "the class must be a subclass of Serving");
  }
  const Ref method = python::checked(PyDescr_NewMethod(reinterpret_cast<PyTypeObject*>(subclass), methods));
  python::set_attribute(subclass, kGetToken, method.get());
  return Ref::borrow(subclass);
}

}  // namespace tessaline::native
