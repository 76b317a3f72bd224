#include <time.h>

#include <algorithm>
#include <optional>

#include "tessaline/auth/manager/manager.hpp"
#include "tessaline/auth/names.hpp"
#include "tessaline/auth/python/python.hpp"

// `get_token` in front of every request of the host: a healthy manager on the default clock is served from
// one look at its fields. Under the interpreter's lock, with `_lock` free, that look cannot be told from one
// under `_lock`. Whatever is not plainly healthy takes the full path.

namespace tessaline::auth {
namespace {

/// Host facilities whose behaviour is known and which may therefore be read without calling them.
struct KnownHost {
  PyObject* wall_clock = nullptr;      ///< `time.time`
  PyTypeObject* lock_type = nullptr;   ///< of `threading.Lock()`
  PyCFunction lock_is_held = nullptr;  ///< its method `locked`
  PyObject* get_time = nullptr;        ///< the manager's own methods, as its class defines them
  PyObject* era_guard = nullptr;
};

KnownHost host;

/// The class that was last found to leave the methods on the full path as they are, as it stood then.
PyTypeObject* plain_type = nullptr;
unsigned int plain_version = 0;

Ref class_attribute(PyTypeObject* type, const python::Name& name) {
  return python::attribute(reinterpret_cast<PyObject*>(type), name);
}

bool keeps_methods(PyTypeObject* type) {
  return class_attribute(type, names::get_time).get() == host.get_time &&
         class_attribute(type, names::raise_if_pending_era_locked).get() == host.era_guard;
}

bool is_plain(PyTypeObject* type) {
  if (type == plain_type && type->tp_version_tag == plain_version && plain_version != 0) return true;
  if (!keeps_methods(type)) return false;
  plain_type = type;
  plain_version = type->tp_version_tag;
  return true;
}

/// Whether the instance itself replaces one of those methods.
bool is_patched(PyObject* dict) {
  if (dict == nullptr || PyDict_GET_SIZE(dict) == 0) return false;
  const Ref kept = Ref::borrow(dict);
  return python::has_entry(dict, names::get_time) ||
         python::has_entry(dict, names::raise_if_pending_era_locked);
}

bool is_free(PyObject* lock) {
  return lock != nullptr && host.lock_is_held != nullptr && Py_IS_TYPE(lock, host.lock_type) &&
         host.lock_is_held(lock, nullptr) == Py_False;
}

std::optional<double> instant_in(PyObject* field) {
  if (field == nullptr || !PyFloat_CheckExact(field)) return std::nullopt;
  return PyFloat_AS_DOUBLE(field);
}

/// Far more than the kernel's longest tick (10 ms).
constexpr double kTickSeconds = 1.0;

/// The wall clock as it stood at the kernel's last tick, which costs a fraction of an exact reading.
double wall_clock_at_last_tick() {
  timespec tick{};
  clock_gettime(CLOCK_REALTIME_COARSE, &tick);
  return static_cast<double>(tick.tv_sec) + static_cast<double>(tick.tv_nsec) * 1e-9;
}

bool is_future(double instant) {
  if (wall_clock_at_last_tick() + kTickSeconds < instant) return true;
  PyTime_t now = 0;
  return PyTime_TimeRaw(&now) == 0 && PyTime_AsSecondsDouble(now) < instant;
}

}  // namespace

void know_host(PyTypeObject* manager_type) {
  host.get_time = class_attribute(manager_type, names::get_time).release();
  host.era_guard = class_attribute(manager_type, names::raise_if_pending_era_locked).release();
  host.wall_clock = python::attribute(python::global(names::time).get(), names::wall_clock).release();
  const Ref lock = python::call_method(python::global(names::threading).get(), names::lock);
  host.lock_type = Py_TYPE(lock.get());
  const Ref method = python::attribute(reinterpret_cast<PyObject*>(host.lock_type), names::locked);
  if (Py_IS_TYPE(method.get(), &PyMethodDescr_Type)) {
    const PyMethodDef* definition = reinterpret_cast<PyMethodDescrObject*>(method.get())->d_method;
    if (definition->ml_flags == METH_NOARGS) host.lock_is_held = definition->ml_meth;
  }
  Py_INCREF(host.lock_type);
}

Ref AuthManager::token_if_healthy() {
  const auto field = [this](Field name) { return fields[static_cast<std::size_t>(name)]; };
  // These may run Python code; everything after them is one look.
  if (is_patched(dict) || !is_plain(Py_TYPE(object()))) return {};
  const bool looks_healthy = field(Field::kState) == state_text(State::kAuthenticated) &&
                             field(Field::kPendingEraNumber) == Py_None &&
                             field(Field::kPermanentRefreshError) == Py_False &&
                             field(Field::kClock) == host.wall_clock && is_free(field(Field::kLock));
  if (!looks_healthy) return {};
  PyObject* const token = field(Field::kToken);
  if (token == nullptr || token == Py_None) return {};
  const std::optional<double> expiry = instant_in(field(Field::kTokenExpiry));
  const std::optional<double> refresh_at = instant_in(field(Field::kRefreshAt));
  if (!expiry || !refresh_at || !is_future(std::min(*expiry, *refresh_at))) return {};
  return Ref::borrow(token);
}

}  // namespace tessaline::auth
