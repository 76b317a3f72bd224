#include "tessaline/auth/python/event.hpp"

#include "tessaline/auth/python/call.hpp"
#include "tessaline/auth/python/caught.hpp"
#include "tessaline/auth/python/error.hpp"
#include "tessaline/auth/python/import.hpp"
#include "tessaline/auth/python/interior.hpp"
#include "tessaline/auth/python/plain_lock.hpp"
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

/// Python's own type and functions, never freed. Null for a function that another library had replaced before
/// our import (gevent: with a type in C), and if events differ from what this file knows.
PyObject* own_type = nullptr;
PyObject* own_set = nullptr;
PyObject* own_clear = nullptr;
PyObject* own_wait = nullptr;

/// The parts of a plain event.
struct Inside {
  Ref new_lock;
  Ref lock;
  Ref waiters;
};

/// Empty if the locks, in the event or newly made, are not the interpreter's own (eventlet replaces both and
/// keeps the type of events).
std::optional<Inside> inside_of(PyObject* event) {
  Ref new_lock = plain_lock_maker();
  if (!new_lock) return std::nullopt;
  const Ref condition = attribute(event, kCondition);
  Ref lock = attribute(condition.get(), kLock);
  if (!is_plain_lock(lock.get())) return std::nullopt;
  return Inside{std::move(new_lock), std::move(lock), attribute(condition.get(), kWaiters)};
}

/// How to perform a method of the event: on its parts, or by calling the method.
struct Way {
  std::optional<Inside> inside;
  Ref method;
};

Way way_to(PyObject* event, const Name& name, PyObject* own_function) {
  Way way;
  std::optional<Error> failure = caught([&] { way.method = attribute(event, name); });
  if (own_function != nullptr) {
    // A bound method needs memory; the way without it does not.
    const bool own =
        failure ? failure->matches(PyExc_MemoryError) &&
                      Py_IS_TYPE(event, reinterpret_cast<PyTypeObject*>(own_type))
                : PyMethod_Check(way.method.get()) && PyMethod_GET_FUNCTION(way.method.get()) == own_function;
    if (own) way.inside = inside_of(event);
  }
  if (failure && !way.inside) throw std::move(*failure);
  return way;
}

/// Does what `Condition.notify_all` does, in calls that run no bytecode: a signal handler that used the event
/// under its inner lock would deadlock. A waiter is released before it is removed from the list, so that a
/// failed call loses none.
void release_all(PyObject* waiters) {
  while (length(waiters) > 0) {
    const Ref waiter = item(waiters, integer(0).get());
    std::optional<Error> failure = caught([&] { call_method(waiter.get(), kRelease); });
    // As in Python: a waiter whose time-out has passed is released already.
    if (failure && !failure->matches(PyExc_RuntimeError)) throw std::move(*failure);
    call_method(waiters, kPopLeft);
  }
}

void set_flag(PyObject* event, Inside inside, PyObject* value) {
  const ScopedLock lock(std::move(inside.lock));
  set_attribute(event, kFlag, value);
  if (value == Py_True) release_all(inside.waiters.get());
}

void change(PyObject* event, const Name& name, PyObject* own_function, PyObject* value) {
  Way way = way_to(event, name, own_function);
  if (way.inside) return set_flag(event, std::move(*way.inside), value);
  call(way.method.get());
}

/// The type's function of that name, if `threading` itself defines it.
PyObject* function_of(PyObject* threading, PyObject* type, const Name& name) {
  Ref function = attribute(type, name);
  const bool own = PyFunction_Check(function.get()) &&
                   PyFunction_GET_GLOBALS(function.get()) == PyModule_GetDict(threading);
  return own ? function.release() : nullptr;
}

void give_up(PyObject* waiters, PyObject* lock, PyObject* waiter) {
  until_done([&] {
    const ScopedLock held(Ref::borrow(lock));
    if (contains(waiters, waiter)) call_method(waiters, kRemove, {waiter});
  });
}

/// Does what `Event.wait` does, in calls that run no bytecode under the inner lock. `timeout` may be null.
bool wait_for_flag(PyObject* event, const Inside& inside, PyObject* timeout) {
  const auto& [new_lock, lock, waiters] = inside;
  const Ref waiter = call(new_lock.get());
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

/// Whether setting the event by `set` changes its parts as this file expects.
template <class Set>
bool wakes_a_waiter(PyObject* event, Set&& set) {
  const std::optional<Inside> inside = inside_of(event);
  if (!inside || attribute(event, kFlag).get() != Py_False) return false;
  const Ref waiter = call(inside->new_lock.get());
  call_method(waiter.get(), kAcquire);
  call_method(inside->waiters.get(), kAppend, {waiter.get()});
  set();
  return attribute(event, kFlag).get() == Py_True && length(inside->waiters.get()) == 0 &&
         call_method(waiter.get(), kAcquire, {Py_False}).get() == Py_True;
}

/// Whether Python's own methods and these functions have the same effect.
bool is_as_known(PyObject* event) {
  if (!wakes_a_waiter(event, [=] { call_method(event, kSet); })) return false;
  call_method(event, kClear);
  return wakes_a_waiter(event, [=] { set_flag(event, *inside_of(event), Py_True); });
}

bool are_as_known(PyObject* type) {
  bool as_known = false;
  std::optional<Error> failure = caught([&] { as_known = is_as_known(call(type).get()); });
  const bool passes = failure && (!failure->matches(PyExc_Exception) || failure->matches(PyExc_MemoryError));
  if (passes) throw std::move(*failure);
  return as_known;
}

}  // namespace

void know_own_events() {
  const Ref threading = import(kThreading);
  know_locks(threading.get());
  Ref type = attribute(threading.get(), kEvent);
  if (!inside_is_known() || !are_as_known(type.get())) return;
  own_set = function_of(threading.get(), type.get(), kSet);
  own_clear = function_of(threading.get(), type.get(), kClear);
  own_wait = function_of(threading.get(), type.get(), kWait);
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
  const Way way = way_to(event, kWait, own_wait);
  if (way.inside) {
    wait_for_flag(event, *way.inside, nullptr);
  } else {
    call(way.method.get());
  }
}

bool wait_event(PyObject* event, double seconds) {
  const Ref timeout = number(seconds);
  const Way way = way_to(event, kWait, own_wait);
  if (way.inside) return wait_for_flag(event, *way.inside, timeout.get());
  return truthy(call(way.method.get(), {}, {{kTimeout, timeout.get()}}).get());
}

}  // namespace tessaline::auth::python
