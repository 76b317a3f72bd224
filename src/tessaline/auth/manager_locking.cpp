#include "tessaline/auth/manager.hpp"
#include "tessaline/auth/names.hpp"
#include "tessaline/auth/python/python.hpp"

namespace tessaline::auth {

bool holds_lock(const AuthManager& manager) noexcept {
  return manager.lock_owner == PyThread_get_thread_ident();
}

Locked::Afterwards::Afterwards(AuthManager& locked) : manager(locked) {
  if (holds_lock(manager)) {
    python::raise(PyExc_RuntimeError,
                  "AuthManager was called by code that it runs itself while it holds its lock");
  }
}

Locked::Afterwards::~Afterwards() {
  manager.drop_retired_errors();
  if (manager.close_deferred) manager.finish_deferred_close();
}

Locked::Locked(AuthManager& manager) : afterwards_(manager), lock_(manager.get(Field::kLock)) {
  manager.lock_owner = PyThread_get_thread_ident();
}

Locked::~Locked() {
  afterwards_.manager.lock_owner = 0;
}

FlowOnThread::FlowOnThread(AuthManager& manager) noexcept : manager_(manager) {
  manager_.flow_thread = PyThread_get_thread_ident();
}

FlowOnThread::~FlowOnThread() {
  if (manager_.flow_thread == PyThread_get_thread_ident()) manager_.flow_thread = 0;
}

void AuthManager::wait_for_flow(PyObject* event) {
  const bool ended = python::truthy(python::call_method(event, names::is_set).get());
  if (!ended && flow_thread == PyThread_get_thread_ident()) {
    python::raise(PyExc_RuntimeError,
                  "AuthManager was asked to wait by code that its own authentication runs");
  }
  python::call_method(event, names::wait);
}

void AuthManager::finish_deferred_close() noexcept {
  close_deferred = false;
  static_cast<void>(python::caught([this] { close(); }));
}

}  // namespace tessaline::auth
