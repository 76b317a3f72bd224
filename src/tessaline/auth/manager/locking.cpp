#include "tessaline/auth/errors/advice.hpp"
#include "tessaline/auth/manager/manager.hpp"
#include "tessaline/auth/names.hpp"
#include "tessaline/auth/python/python.hpp"

namespace tessaline::auth {
namespace {

constexpr double kLostThreadSeconds = 1.0;  // between two looks at the thread that is waited for

}  // namespace

bool holds_lock(const AuthManager& manager) noexcept {
  return manager.lock_owner == PyThread_get_thread_ident();
}

Locked::Afterwards::Afterwards(AuthManager& locked) : manager(locked) {
  if (holds_lock(manager)) {
    python::raise(PyExc_RuntimeError,
                  "AuthManager was called by code that it runs itself while it holds its lock",
                  advice::kCalledUnderLock);
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
  AuthManager& manager = afterwards_.manager;
  // Closed before anybody else can take the lock: the call of close() has returned already.
  if (manager.close_deferred) manager.mark_closed();
  manager.lock_owner = 0;
}

FlowOnThread::FlowOnThread(AuthManager& manager) noexcept
    : manager_(manager), nested_(manager.flow_thread == PyThread_get_thread_ident()) {
  manager_.flow_thread = PyThread_get_thread_ident();
}

FlowOnThread::~FlowOnThread() {
  if (!nested_ && manager_.flow_thread == PyThread_get_thread_ident()) manager_.flow_thread = 0;
}

void AuthManager::wait_for_flow(PyObject* event) {
  if (flow_thread == PyThread_get_thread_ident() &&
      !python::truthy(python::call_method(event, names::is_set).get())) {
    python::raise(PyExc_RuntimeError,
                  "AuthManager was asked to wait by code that its own authentication runs",
                  advice::kWaitInFlow);
  }
  if (at(Hidden::kEraEvent) != event) return python::wait_event(event);
  while (!python::wait_event(event, kLostThreadSeconds)) settle_lost_reauthentication(event);
}

void AuthManager::finish_deferred_close() noexcept {
  close_deferred = false;
  static_cast<void>(python::caught([this] { complete_close(); }));
}

}  // namespace tessaline::auth
