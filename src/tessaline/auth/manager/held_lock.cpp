#include "tessaline/auth/manager/held_lock.hpp"

#include <utility>

#include "tessaline/auth/errors/errors.hpp"
#include "tessaline/auth/errors/notes.hpp"
#include "tessaline/auth/python/python.hpp"

namespace tessaline::auth {
namespace {

/// Whether releasing it cannot run a program's code.
bool drops_quietly(PyObject* value) {
  return value == Py_None || PyBool_Check(value) || PyUnicode_CheckExact(value) ||
         PyFloat_CheckExact(value) || PyBytes_CheckExact(value);
}

}  // namespace

bool holds_lock(const AuthManager& manager) {
  return manager.lock.owner != 0 && manager.lock.owner == python::line_of_execution();
}

HeldLock::Afterwards::Afterwards(AuthManager& manager, unsigned long here) : manager_(&manager) {
  if (manager.lock.owner == here) {
    python::raise(PyExc_RuntimeError,
                  "AuthManager was called by code that it runs itself while it holds its lock",
                  notes::kCalledUnderLock);
  }
}

HeldLock::Afterwards::~Afterwards() {
  if (manager_ == nullptr) return;
  if (manager_->lock.replaced != nullptr) python::drop(std::exchange(manager_->lock.replaced, nullptr));
  if (manager_->lock.close_deferred) manager_->finish_deferred_close();
}

HeldLock::HeldLock(AuthManager& manager) : HeldLock(manager, python::line_of_execution()) {}

HeldLock::HeldLock(AuthManager& manager, unsigned long here) : manager_(manager), afterwards_(manager, here) {
  require_constructed();
  lock_.emplace(manager.get(Field::kLock));
  manager.lock.owner = here;
}

HeldLock::HeldLock(AuthManager& manager, Afterwards afterwards)
    : manager_(manager), afterwards_(std::move(afterwards)) {
  require_constructed();
}

void HeldLock::require_constructed() const {
  if (manager_.attempt != nullptr) return;
  python::raise(PyExc_AttributeError, "'AuthManager' object has not been constructed",
                notes::kNotConstructed);
}

HeldLock::~HeldLock() {
  if (!lock_) return;
  // Before another thread can take the lock: the call of close() has already returned.
  if (manager_.lock.close_deferred) manager_.mark_closed(*this);
  manager_.lock.owner = 0;
}

bool HeldLock::is_true(Field field) const {
  const Ref value = get(field);
  return value.get() == Py_True || (value.get() != Py_False && python::truthy(value.get()));
}

void HeldLock::set(Field field, Ref value) const noexcept {
  drop_later(Ref::steal(std::exchange(manager_.at(field), value.release())));
}

void HeldLock::raise_if_closed() const {
  if (closed()) raise_auth_error(reason::kManagerClosed);
}

void HeldLock::set_auth_event() const {
  const Ref event = get(Field::kAuthEvent);
  if (!event.is_none()) python::set_event(event.get());
}

void HeldLock::drop_later(Ref replaced) const noexcept {
  if (!replaced || drops_quietly(replaced.get())) return;
  PyObject*& list = manager_.lock.replaced;
  if (list == nullptr) list = PyList_New(0);
  if (list == nullptr || PyList_Append(list, replaced.get()) != 0) PyErr_Clear();
}

}  // namespace tessaline::auth
