#include <algorithm>
#include <optional>

#include "tessaline/auth/manager/manager.hpp"
#include "tessaline/auth/names.hpp"
#include "tessaline/auth/python/python.hpp"

// For `get_token` before every request of a program: a healthy manager on the default clock is served after
// one check of its fields. Under the GIL, with `_lock` free, that is equivalent to a check under `_lock`.
// Everything else takes the full path, including a patched clock function, class or instance.

namespace tessaline::auth {
namespace {

/// The interpreter's or the class's own objects, whose effect is known without calling them.
struct Known {
  PyObject* authenticated = nullptr;  ///< the text of the state
  PyObject* get_time = nullptr;       ///< the methods on the full path, as the class defines them
  PyObject* era_guard = nullptr;
  PyObject* clock = nullptr;
  PyCFunction poll = nullptr;
};

Known known;

/// The class that last passed the check that it overrides no method on the full path, with its version.
python::SeenType plain_type;

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
  if (plain_type.is_still(type)) return true;
  if (!keeps_members(type)) return false;
  plain_type.see(type);
  return true;
}

/// Whether the instance itself overrides one of those methods.
bool is_patched(PyObject* dict) {
  if (dict == nullptr || PyDict_GET_SIZE(dict) == 0) return false;
  const Ref kept = Ref::borrow(dict);
  return python::has_entry(dict, names::get_time) ||
         python::has_entry(dict, names::raise_if_pending_era_locked);
}

std::optional<double> instant_in(PyObject* field) {
  if (field == nullptr || !PyFloat_CheckExact(field)) return std::nullopt;
  return PyFloat_AS_DOUBLE(field);
}

bool is_future(double instant) {
  if (python::is_far_ahead(instant)) return true;
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
  python::know_versions(manager_type);
}

bool has_own_poll(PyObject* manager) {
  const Ref poll = python::attribute(manager, names::poll_for_reauth);
  return PyCFunction_CheckExact(poll.get()) && PyCFunction_GET_FUNCTION(poll.get()) == known.poll &&
         PyCFunction_GET_SELF(poll.get()) == manager;
}

Ref AuthManager::token_if_healthy() {
  const auto field = [this](Field name) { return fields[static_cast<std::size_t>(name)]; };
  // These may run Python code; after them nothing does.
  if (is_patched(dict) || !is_plain(Py_TYPE(object()))) return {};
  const bool looks_healthy =
      field(Field::kState) == known.authenticated && field(Field::kPendingEraNumber) == Py_None &&
      field(Field::kPermanentRefreshError) == Py_False && python::is_wall_clock(field(Field::kClock)) &&
      python::is_free(field(Field::kLock));
  if (!looks_healthy) return {};
  PyObject* const token = field(Field::kToken);
  if (token == nullptr || token == Py_None) return {};
  const std::optional<double> expiry = instant_in(field(Field::kTokenExpiry));
  const std::optional<double> refresh_at = instant_in(field(Field::kRefreshAt));
  if (!expiry || !refresh_at || !is_future(std::min(*expiry, *refresh_at))) return {};
  return Ref::borrow(token);
}

}  // namespace tessaline::auth
