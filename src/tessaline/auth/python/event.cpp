#include "tessaline/auth/python/event.hpp"

#include "tessaline/auth/python/call.hpp"
#include "tessaline/auth/python/caught.hpp"
#include "tessaline/auth/python/error.hpp"
#include "tessaline/auth/python/scoped_lock.hpp"

namespace tessaline::auth::python {
namespace {

constinit const Name kThreading{"threading"};
constinit const Name kEvent{"Event"};
constinit const Name kSet{"set"};
constinit const Name kClear{"clear"};
constinit const Name kCondition{"_cond"};
constinit const Name kLock{"_lock"};
constinit const Name kFlag{"_flag"};
constinit const Name kWaiters{"_waiters"};
constinit const Name kPopLeft{"popleft"};
constinit const Name kRelease{"release"};

/// The host's own functions, kept until the process ends.
PyObject* own_set = nullptr;
PyObject* own_clear = nullptr;

bool is_own(const Ref& method, PyObject* function) {
  return PyMethod_Check(method.get()) && PyMethod_GET_FUNCTION(method.get()) == function;
}

/// What `Condition.notify_all` does, in calls that run no bytecode: a signal handler that ran under the
/// event's inner lock and touched the event would wait for itself.
void release_all(PyObject* waiters) {
  while (length(waiters) > 0) {
    const Ref waiter = call_method(waiters, kPopLeft);
    std::optional<Error> failure = caught([&] { call_method(waiter.get(), kRelease); });
    // As the host: a waiter that has given up meanwhile is released already.
    if (failure && !failure->matches(PyExc_RuntimeError)) throw std::move(*failure);
  }
}

void set_flag(PyObject* event, PyObject* condition, PyObject* value) {
  const Ref waiters = attribute(condition, kWaiters);
  const ScopedLock lock(attribute(condition, kLock));
  set_attribute(event, kFlag, value);
  if (value == Py_True) release_all(waiters.get());
}

void change(PyObject* event, const Name& name, PyObject* own_function, PyObject* value) {
  const Ref method = attribute(event, name);
  if (is_own(method, own_function)) {
    set_flag(event, attribute(event, kCondition).get(), value);
  } else {
    call(method.get());
  }
}

}  // namespace

void know_host_events() {
  const Ref type = attribute(import(kThreading).get(), kEvent);
  own_set = attribute(type.get(), kSet).release();
  own_clear = attribute(type.get(), kClear).release();
}

void set_event(PyObject* event) {
  change(event, kSet, own_set, Py_True);
}

void clear_event(PyObject* event) {
  change(event, kClear, own_clear, Py_False);
}

}  // namespace tessaline::auth::python
