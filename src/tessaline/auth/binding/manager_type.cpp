#include "tessaline/auth/binding/manager_type.hpp"

#include <cstddef>

#include "tessaline/auth/binding/manager_docs.hpp"
#include "tessaline/auth/binding/unclosed.hpp"
#include "tessaline/auth/errors/notes.hpp"
#include "tessaline/auth/manager/manager.hpp"
#include "tessaline/auth/manager/process_generation.hpp"
#include "tessaline/auth/names.hpp"
#include "tessaline/auth/python/instance.hpp"
#include "tessaline/auth/python/python.hpp"
#include "tessaline/auth/steps/clock.hpp"
#include "tessaline/auth/steps/request.hpp"
#include "tessaline/auth/steps/retry.hpp"

namespace tessaline::auth::binding {
namespace {

using python::Bound;
using python::Parameters;
using python::Ref;

AuthManager& manager_of(PyObject* self) {
  return *reinterpret_cast<AuthManager*>(self);
}

PyObject* or_none(PyObject* argument) {
  return argument == nullptr ? Py_None : argument;
}

constexpr Parameters kInitParameters("AuthManager.__init__",
                                     {"private_key", "server_url", "invite_code", "register_wallet", "clock",
                                      "_transport"},
                                     2, 2, 1);

int initialise(PyObject* self, PyObject* arguments, PyObject* keywords) {
  return python::status_boundary([&] {
    python::require_stack();
    const Bound given = kInitParameters.bind(arguments, keywords);
    manager_of(self).construct(given[0], given[1], or_none(given[2]),
                               given[3] == nullptr ? Py_True : given[3], or_none(given[4]),
                               or_none(given[5]));
    watch_for_unclosed_managers();
  });
}

int clear(PyObject* self) {
  manager_of(self).clear();
  return 0;
}

void deallocate(PyObject* self) {
  PyTypeObject* const type = Py_TYPE(self);
  PyObject_GC_UnTrack(self);
  // Prevents deep recursion on a long chain of managers.
  Py_TRASHCAN_BEGIN(self, deallocate) python::clear_weak_references(self);
  manager_of(self).wipe_key();
  clear(self);
  type->tp_free(self);
  python::drop(reinterpret_cast<PyObject*>(type));
  Py_TRASHCAN_END
}

int traverse(PyObject* self, visitproc visit, void* arg) {
  Py_VISIT(Py_TYPE(self));
  return manager_of(self).traverse(visit, arg);
}

/// The manager, made ready for use if this process is a forked child.
AuthManager& present(PyObject* self) {
  AuthManager& manager = manager_of(self);
  if (manager.generation != process_generation()) manager.begin_anew_in_child();
  return manager;
}

/// The entry from Python for a method without arguments.
template <Ref (AuthManager::*kMethod)()>
PyObject* plain(PyObject* self, PyObject*) {
  return python::boundary([self] {
    python::require_stack();
    return (present(self).*kMethod)();
  });
}

/// Checks the stack itself, and only if the fast path fails.
PyObject* get_token(PyObject* self, PyObject*) {
  return python::boundary([self] { return present(self).get_token(); });
}

template <Ref (AuthManager::*kMethod)()>
constexpr PyMethodDef define(const char* name, const char* doc) {
  return {name, plain<kMethod>, METH_NOARGS, doc};
}

/// The entry from Python for a method with these parameters and this body.
template <const Parameters& kParameters, Ref (*kBody)(PyObject*, const Bound&)>
PyObject* bound(PyObject* self, PyObject* const* arguments, Py_ssize_t count, PyObject* keyword_names) {
  return python::boundary([&] {
    python::require_stack();
    const Bound given = kParameters.bind(arguments, count, keyword_names);
    present(self);
    return kBody(self, given);
  });
}

template <const Parameters& kParameters, Ref (*kBody)(PyObject*, const Bound&)>
constexpr PyMethodDef define(const char* name, const char* doc) {
  return {name, reinterpret_cast<PyCFunction>(reinterpret_cast<void (*)()>(&bound<kParameters, kBody>)),
          METH_FASTCALL | METH_KEYWORDS, doc};
}

constexpr Parameters kHttpRequest("AuthManager._http_request", {"method", "path", "body_dict", "headers"}, 4,
                                  2, 1);
Ref http_request_method(PyObject* self, const Bound& given) {
  return http_request(self, given[0], given[1], or_none(given[2]), or_none(given[3]));
}

constexpr Parameters kRequestWithRetry("AuthManager._request_with_retry",
                                       {"method", "path", "body_dict", "headers", "max_attempts",
                                        "is_verify"},
                                       6, 2, 1);
Ref request_with_retry_method(PyObject* self, const Bound& given) {
  return request_with_retry(self, {given[0], given[1], or_none(given[2]), or_none(given[3]),
                                   or_none(given[4]), given[5] != nullptr && python::truthy(given[5])});
}

Ref get_time(PyObject* self, const Bound&) {
  return read_clock(self);
}
constexpr Parameters kGetTime("AuthManager._get_time", {}, 0, 0, 1);

constexpr Parameters kWaitWithClock("AuthManager._wait_with_clock", {"seconds"}, 1, 1, 1);
Ref wait_with_clock_method(PyObject* self, const Bound& given) {
  wait_with_clock(self, given[0]);
  return Ref::none();
}

constexpr Parameters kStoreAuthResult("AuthManager._store_auth_result", {"token", "wallet_secret_bytes"}, 2,
                                      2, 1);
Ref store_auth_result(PyObject* self, const Bound& given) {
  return manager_of(self).store_auth_result(given[0], given[1]);
}

constexpr Parameters kComputeRefreshAt("AuthManager._compute_refresh_at", {"auth_time"}, 1, 1, 1);
Ref compute_refresh_at(PyObject* self, const Bound& given) {
  return manager_of(self).compute_refresh_at(given[0]);
}

constexpr Parameters kPollForReauth("AuthManager._poll_for_reauth", {"fallback_to_current_token"}, 1, 1, 1);
Ref poll_for_reauth(PyObject* self, const Bound& given) {
  return manager_of(self).poll_for_reauth(python::truthy(given[0]));
}

constexpr Parameters kNotifyEraChange("AuthManager.notify_era_change", {"new_era_number"}, 1, 1, 1);
Ref notify_era_change(PyObject* self, const Bound& given) {
  return manager_of(self).notify_era_change(given[0]);
}

constexpr Parameters kSetDisplayName("AuthManager.set_display_name", {"display_name"}, 1, 1, 1);
Ref set_display_name(PyObject* self, const Bound& given) {
  return manager_of(self).set_display_name(given[0]);
}

constexpr Parameters kEnter("AuthManager.__enter__", {}, 0, 0, 1);
Ref enter(PyObject* self, const Bound&) {
  return Ref::borrow(self);
}

constexpr Parameters kExit("AuthManager.__exit__", {"exc_type", "exc_value", "traceback"}, 3, 3, 1);
Ref leave(PyObject* self, const Bound&) {
  python::call_method(self, names::close);
  return Ref::boolean(false);
}

PyObject* refuse_reduction(PyObject*, PyObject*) {
  return python::boundary([]() -> Ref {
    python::raise(PyExc_TypeError,
                  "AuthManager cannot be pickled or copied: it holds a private key, locks and threads",
                  notes::kNoCopies);
  });
}

PyObject* represent(PyObject* self) {
  return python::boundary([self] {
    python::require_stack();
    return manager_of(self).represent();
  });
}

PyMethodDef methods[] = {
    define<kHttpRequest, http_request_method>("_http_request", docs::kHttpRequest),
    define<kRequestWithRetry, request_with_retry_method>("_request_with_retry", docs::kRequestWithRetry),
    define<kGetTime, get_time>("_get_time", docs::kGetTime),
    define<kWaitWithClock, wait_with_clock_method>("_wait_with_clock", docs::kWaitWithClock),
    define<&AuthManager::do_auth_flow>("_do_auth_flow", docs::kDoAuthFlow),
    define<&AuthManager::do_auth_flow_matching_pending_era>("_do_auth_flow_matching_pending_era",
                                                            docs::kDoAuthFlowMatchingPendingEra),
    define<kStoreAuthResult, store_auth_result>("_store_auth_result", docs::kStoreAuthResult),
    define<kComputeRefreshAt, compute_refresh_at>("_compute_refresh_at", docs::kComputeRefreshAt),
    define<&AuthManager::raise_if_pending_era_locked>("_raise_if_pending_era_locked",
                                                      docs::kRaiseIfPendingEraLocked),
    define<&AuthManager::authenticate>("authenticate", docs::kAuthenticate),
    define<&AuthManager::start_refresh>("_start_refresh", docs::kStartRefresh),
    define<&AuthManager::refresh_loop>("_refresh_loop", docs::kRefreshLoop),
    define<&AuthManager::do_refresh>("_do_refresh", docs::kDoRefresh),
    {"get_token", get_token, METH_NOARGS, docs::kGetToken},
    define<kPollForReauth, poll_for_reauth>("_poll_for_reauth", docs::kPollForReauth),
    define<&AuthManager::get_wallet_secret>("get_wallet_secret", docs::kGetWalletSecret),
    define<&AuthManager::get_wallet_address>("get_wallet_address", docs::kGetWalletAddress),
    define<&AuthManager::get_token_expiry>("get_token_expiry", docs::kGetTokenExpiry),
    define<kNotifyEraChange, notify_era_change>("notify_era_change", docs::kNotifyEraChange),
    define<&AuthManager::background_reauth>("_background_reauth", docs::kBackgroundReauth),
    define<kSetDisplayName, set_display_name>("set_display_name", docs::kSetDisplayName),
    define<&AuthManager::close>("close", docs::kClose),
    define<kEnter, enter>("__enter__", docs::kEnter),
    define<kExit, leave>("__exit__", docs::kExit),
    {"__reduce__", refuse_reduction, METH_NOARGS, nullptr},
    {"__reduce_ex__", refuse_reduction, METH_O, nullptr},
    {nullptr, nullptr, 0, nullptr},
};

template <std::size_t... kIndices>
constexpr std::array<PyMemberDef, kFieldCount + 2> field_members(std::index_sequence<kIndices...>) {
  return {
      {{kFieldNames[kIndices], Py_T_OBJECT_EX,
        static_cast<Py_ssize_t>(offsetof(AuthManager, fields) + kIndices * sizeof(PyObject*)), 0, nullptr}...,
       {"__dictoffset__", Py_T_PYSSIZET, static_cast<Py_ssize_t>(offsetof(AuthManager, dict)), Py_READONLY,
        nullptr},
       {nullptr, 0, 0, 0, nullptr}}};
}

auto members = field_members(std::make_index_sequence<kFieldCount>());

PyObject* get_private_key(PyObject* self, void*) {
  return python::boundary([self] { return manager_of(self).private_key(); });
}

int set_private_key(PyObject* self, PyObject* value, void*) {
  return python::status_boundary([=] { manager_of(self).set_private_key(or_none(value)); });
}

PyGetSetDef properties[] = {
    {"_private_key", get_private_key, set_private_key, docs::kPrivateKey, nullptr},
    {"__dict__", PyObject_GenericGetDict, PyObject_GenericSetDict, nullptr, nullptr},
    {nullptr, nullptr, nullptr, nullptr, nullptr},
};

PyType_Slot slots[] = {
    {Py_tp_new, reinterpret_cast<void*>(PyType_GenericNew)},
    {Py_tp_init, reinterpret_cast<void*>(initialise)},
    {Py_tp_clear, reinterpret_cast<void*>(clear)},
    {Py_tp_dealloc, reinterpret_cast<void*>(deallocate)},
    {Py_tp_traverse, reinterpret_cast<void*>(traverse)},
    {Py_tp_repr, reinterpret_cast<void*>(represent)},
    {Py_tp_methods, methods},
    {Py_tp_members, members.data()},
    {Py_tp_getset, properties},
    {Py_tp_doc, const_cast<char*>(docs::kType)},
    {0, nullptr},
};

PyType_Spec spec = {
    "tessaline.auth.AuthManager",
    static_cast<int>(sizeof(AuthManager)),
    0,
    Py_TPFLAGS_DEFAULT | Py_TPFLAGS_BASETYPE | Py_TPFLAGS_HAVE_GC | Py_TPFLAGS_MANAGED_WEAKREF,
    slots,
};

PyTypeObject* manager_type = nullptr;

}  // namespace

bool is_manager(PyObject* object) noexcept {
  return PyObject_TypeCheck(object, manager_type);
}

void add_manager_type(PyObject* module) {
  const Ref type = python::checked(PyType_FromModuleAndSpec(module, &spec, nullptr));
  python::checked(PyModule_AddType(module, reinterpret_cast<PyTypeObject*>(type.get())));
  manager_type = reinterpret_cast<PyTypeObject*>(Py_NewRef(type.get()));
  know_own_members(manager_type);
}

}  // namespace tessaline::auth::binding
