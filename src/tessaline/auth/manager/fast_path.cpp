#include <dlfcn.h>
#include <time.h>

#include <algorithm>
#include <optional>
#include <string_view>

#include "tessaline/auth/manager/manager.hpp"
#include "tessaline/auth/names.hpp"
#include "tessaline/auth/python/python.hpp"

// `get_token` in front of every request of a program: a healthy manager on the default clock is served from
// one look at its fields. Under the interpreter's lock, with `_lock` free, that look cannot be told from one
// under `_lock`. Whatever is not plainly healthy takes the full path, and so does whatever a program may have
// patched: the clock's function, the class, the instance.

namespace tessaline::auth {
namespace {

/// What is the interpreter's own or the class's own, and may therefore be read without calling it.
struct Known {
  PyCFunction wall_clock = nullptr;    ///< the function behind `time.time`
  PyTypeObject* lock_type = nullptr;   ///< of `threading.Lock()`
  PyCFunction lock_is_held = nullptr;  ///< its method `locked`
  PyObject* authenticated = nullptr;   ///< the state's text
  PyObject* get_time = nullptr;        ///< the members on the full path, as the class defines them
  PyObject* era_guard = nullptr;
  PyObject* clock = nullptr;
  PyCFunction poll = nullptr;
};

Known known;

/// The class that was last found to leave the members on the full path as they are, as it stood then.
PyTypeObject* plain_type = nullptr;
unsigned int plain_version = 0;

Ref class_attribute(PyTypeObject* type, const python::Name& name) {
  return python::attribute(reinterpret_cast<PyObject*>(type), name);
}

bool keeps_members(PyTypeObject* type) {
  return type->tp_getattro == PyObject_GenericGetAttr &&
         class_attribute(type, names::get_time).get() == known.get_time &&
         class_attribute(type, names::raise_if_pending_era_locked).get() == known.era_guard &&
         class_attribute(type, names::clock).get() == known.clock;
}

bool is_plain(PyTypeObject* type) {
  if (type == plain_type && type->tp_version_tag == plain_version && plain_version != 0) return true;
  if (!keeps_members(type)) return false;
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
  return lock != nullptr && known.lock_is_held != nullptr && Py_IS_TYPE(lock, known.lock_type) &&
         known.lock_is_held(lock, nullptr) == Py_False;
}

std::optional<double> instant_in(PyObject* field) {
  if (field == nullptr || !PyFloat_CheckExact(field)) return std::nullopt;
  return PyFloat_AS_DOUBLE(field);
}

/// Far more than the kernel's longest tick (10 ms).
constexpr double kTickSeconds = 1.0;

/// Whether the function is the interpreter's: a library that fakes the time has put its own into the same
/// function object.
bool is_of_interpreter(PyCFunction function) {
  Dl_info its{};
  Dl_info interpreters{};
  return dladdr(reinterpret_cast<void*>(function), &its) != 0 &&
         dladdr(reinterpret_cast<void*>(&PyTime_TimeRaw), &interpreters) != 0 &&
         its.dli_fbase == interpreters.dli_fbase;
}

/// Learns `time.time` when it is first seen as it is.
bool learn_wall_clock(PyObject* clock) {
  if (known.wall_clock != nullptr || clock == nullptr || !PyCFunction_CheckExact(clock)) return false;
  const PyMethodDef* const definition = reinterpret_cast<PyCFunctionObject*>(clock)->m_ml;
  const bool is_time = std::string_view(definition->ml_name) == "time" && definition->ml_flags == METH_NOARGS;
  if (!is_time || !is_of_interpreter(definition->ml_meth)) return false;
  known.wall_clock = definition->ml_meth;
  return true;
}

/// Looks at the function itself: the object may be the same with another behind it.
bool is_wall_clock(PyObject* clock) {
  if (clock != nullptr && PyCFunction_CheckExact(clock) &&
      PyCFunction_GET_FUNCTION(clock) == known.wall_clock) {
    return true;
  }
  return learn_wall_clock(clock);
}

/// Whether an instant is ahead of the wall clock as it stood at the kernel's last tick, which costs a
/// fraction of an exact reading.
bool is_far_ahead(double instant) {
  timespec tick{};
  if (clock_gettime(CLOCK_REALTIME_COARSE, &tick) != 0) return false;
  const double now = static_cast<double>(tick.tv_sec) + static_cast<double>(tick.tv_nsec) * 1e-9;
  return now + kTickSeconds < instant;
}

bool is_future(double instant) {
  if (is_far_ahead(instant)) return true;
  PyTime_t now = 0;
  return PyTime_TimeRaw(&now) == 0 && PyTime_AsSecondsDouble(now) < instant;
}

}  // namespace

void know_own_members(PyTypeObject* manager_type) {
  known.get_time = class_attribute(manager_type, names::get_time).release();
  known.era_guard = class_attribute(manager_type, names::raise_if_pending_era_locked).release();
  known.authenticated = state_text(State::kAuthenticated);
  known.clock = class_attribute(manager_type, names::clock).release();
  const Ref poll = class_attribute(manager_type, names::poll_for_reauth);
  known.poll = reinterpret_cast<PyMethodDescrObject*>(poll.get())->d_method->ml_meth;
  const Ref lock = python::call_method(python::global(names::threading).get(), names::lock);
  known.lock_type = Py_TYPE(lock.get());
  const Ref method = python::attribute(reinterpret_cast<PyObject*>(known.lock_type), names::locked);
  if (Py_IS_TYPE(method.get(), &PyMethodDescr_Type)) {
    const PyMethodDef* definition = reinterpret_cast<PyMethodDescrObject*>(method.get())->d_method;
    if (definition->ml_flags == METH_NOARGS) known.lock_is_held = definition->ml_meth;
  }
  Py_INCREF(known.lock_type);
}

bool has_own_poll(PyObject* manager) {
  const Ref poll = python::attribute(manager, names::poll_for_reauth);
  return PyCFunction_CheckExact(poll.get()) && PyCFunction_GET_FUNCTION(poll.get()) == known.poll &&
         PyCFunction_GET_SELF(poll.get()) == manager;
}

Ref AuthManager::token_if_healthy() {
  const auto field = [this](Field name) { return fields[static_cast<std::size_t>(name)]; };
  // These may run Python code; everything after them is one look.
  if (is_patched(dict) || !is_plain(Py_TYPE(object()))) return {};
  const bool looks_healthy = field(Field::kState) == known.authenticated &&
                             field(Field::kPendingEraNumber) == Py_None &&
                             field(Field::kPermanentRefreshError) == Py_False &&
                             is_wall_clock(field(Field::kClock)) && is_free(field(Field::kLock));
  if (!looks_healthy) return {};
  PyObject* const token = field(Field::kToken);
  if (token == nullptr || token == Py_None) return {};
  const std::optional<double> expiry = instant_in(field(Field::kTokenExpiry));
  const std::optional<double> refresh_at = instant_in(field(Field::kRefreshAt));
  if (!expiry || !refresh_at || !is_future(std::min(*expiry, *refresh_at))) return {};
  return Ref::borrow(token);
}

}  // namespace tessaline::auth
