#include "tessaline/auth/manager/active_manager.hpp"

#include "tessaline/auth/names.hpp"
#include "tessaline/auth/python/python.hpp"

namespace tessaline::auth {
namespace {

using python::Ref;

Ref registered_manager() {
  const python::ScopedLock lock(python::global(names::active_auth_manager_lock));
  return python::global(names::active_auth_manager);
}

}  // namespace

void set_active_auth_manager(PyObject* manager) {
  // The replaced manager is released after the lock: its finalizer may run code that announces an era.
  Ref replaced;
  const python::ScopedLock lock(python::global(names::active_auth_manager_lock));
  replaced = python::global(names::active_auth_manager);
  python::set_global(names::active_auth_manager, manager);
}

void notify_active_manager(PyObject* new_era_number) {
  const Ref manager = registered_manager();
  if (manager.is_none()) return;
  python::call_method(manager.get(), names::notify_era_change, {new_era_number});
}

}  // namespace tessaline::auth
