#include "tessaline/auth/python/event.hpp"

#include "tessaline/auth/python/call.hpp"
#include "tessaline/auth/python/caught.hpp"
#include "tessaline/auth/python/error.hpp"
#include "tessaline/auth/python/scoped_lock.hpp"
#include "tessaline/auth/python/until_done.hpp"
#include "tessaline/auth/python/value.hpp"

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
constinit const Name kAppend{"append"};
constinit const Name kRemove{"remove"};
constinit const Name kAcquire{"acquire"};
constinit const Name kRelease{"release"};
constinit const Name kWait{"wait"};
constinit const Name kTimeout{"timeout"};
constinit const Name kNewLock{"Lock"};

/// The host's own type and functions, kept until the process ends.
PyObject* own_type = nullptr;
PyObject* own_set = nullptr;
PyObject* own_clear = nullptr;
PyObject* own_wait = nullptr;
PyObject* new_lock = nullptr;

/// The event's own method of that name; nothing where it is the host's. What another library had put in the
/// host's place before our import (gevent: a type of its own, in C) is not looked into either.
Ref foreign_method(PyObject* event, const Name& name, PyObject* own_function) {
  Ref method;
  std::optional<Error> failure = caught([&] { method = attribute(event, name); });
  const bool is_known = PyFunction_Check(own_function);
  if (!failure) {
    const bool own =
        is_known && PyMethod_Check(method.get()) && PyMethod_GET_FUNCTION(method.get()) == own_function;
    return own ? Ref() : std::move(method);
  }
  // A bound method needs memory; what is done without one does not.
  if (is_known && failure->matches(PyExc_MemoryError) &&
      Py_IS_TYPE(event, reinterpret_cast<PyTypeObject*>(own_type))) {
    return {};
  }
  throw std::move(*failure);
}

/// What `Condition.notify_all` does, in calls that run no bytecode: a signal handler that ran under the
/// event's inner lock and touched the event would wait for itself. A waiter is released before it is taken
/// off the list, so that a call that fails loses none.
void release_all(PyObject* waiters) {
  while (length(waiters) > 0) {
    const Ref waiter = item(waiters, integer(0).get());
    std::optional<Error> failure = caught([&] { call_method(waiter.get(), kRelease); });
    // As the host: a waiter that has given up meanwhile is released already.
    if (failure && !failure->matches(PyExc_RuntimeError)) throw std::move(*failure);
    call_method(waiters, kPopLeft);
  }
}

void set_flag(PyObject* event, PyObject* value) {
  const Ref condition = attribute(event, kCondition);
  const Ref waiters = attribute(condition.get(), kWaiters);
  const ScopedLock lock(attribute(condition.get(), kLock));
  set_attribute(event, kFlag, value);
  if (value == Py_True) release_all(waiters.get());
}

void change(PyObject* event, const Name& name, PyObject* own_function, PyObject* value) {
  if (const Ref method = foreign_method(event, name, own_function)) {
    call(method.get());
  } else {
    set_flag(event, value);
  }
}

void give_up(PyObject* waiters, PyObject* lock, PyObject* waiter) {
  until_done([&] {
    const ScopedLock held(Ref::borrow(lock));
    if (contains(waiters, waiter)) call_method(waiters, kRemove, {waiter});
  });
}

/// What `Event.wait` does, in calls that run no bytecode under the inner lock. `timeout` may be null.
bool wait_for_flag(PyObject* event, PyObject* timeout) {
  const Ref condition = attribute(event, kCondition);
  const Ref waiters = attribute(condition.get(), kWaiters);
  const Ref lock = attribute(condition.get(), kLock);
  const Ref waiter = call(new_lock);
  call_method(waiter.get(), kAcquire);
  {
    const ScopedLock held(Ref::borrow(lock.get()));
    if (truthy(attribute(event, kFlag).get())) return true;
    call_method(waiters.get(), kAppend, {waiter.get()});
  }
  bool woken = false;
  std::optional<Error> failure = caught([&] {
    const Ref acquired = timeout == nullptr ? call_method(waiter.get(), kAcquire)
                                            : call_method(waiter.get(), kAcquire, {Py_True, timeout});
    woken = truthy(acquired.get());
  });
  if (!woken) give_up(waiters.get(), lock.get(), waiter.get());
  if (failure) throw std::move(*failure);
  return woken;
}

}  // namespace

void know_host_events() {
  const Ref threading = import(kThreading);
  Ref type = attribute(threading.get(), kEvent);
  own_set = attribute(type.get(), kSet).release();
  own_clear = attribute(type.get(), kClear).release();
  own_wait = attribute(type.get(), kWait).release();
  new_lock = attribute(threading.get(), kNewLock).release();
  own_type = type.release();
  for (const Name* name : {&kCondition, &kLock, &kFlag, &kWaiters, &kPopLeft, &kRelease}) name->object();
}

void set_event(PyObject* event) {
  change(event, kSet, own_set, Py_True);
}

void clear_event(PyObject* event) {
  change(event, kClear, own_clear, Py_False);
}

void wait_event(PyObject* event) {
  if (const Ref method = foreign_method(event, kWait, own_wait)) {
    call(method.get());
  } else {
    wait_for_flag(event, nullptr);
  }
}

bool wait_event(PyObject* event, double seconds) {
  const Ref timeout = number(seconds);
  if (const Ref method = foreign_method(event, kWait, own_wait)) {
    return truthy(call(method.get(), {}, {{kTimeout, timeout.get()}}).get());
  }
  return wait_for_flag(event, timeout.get());
}

}  // namespace tessaline::auth::python
