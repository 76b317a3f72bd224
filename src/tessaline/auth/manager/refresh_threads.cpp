#include "tessaline/auth/manager/refresh_threads.hpp"

#include <optional>
#include <utility>

#include "tessaline/auth/manager/held_lock.hpp"
#include "tessaline/auth/names.hpp"
#include "tessaline/auth/python/python.hpp"

namespace tessaline::auth {

bool is_alive(PyObject* thread) {
  if (thread == nullptr || thread == Py_None) return false;
  const Ref kept = Ref::borrow(thread);
  bool alive = false;
  // A program's own kind of thread may not know.
  std::optional<python::Error> failure =
      python::caught([&] { alive = python::call_method(kept.get(), names::is_alive).get() == Py_True; });
  if (failure && !failure->matches(PyExc_Exception)) throw std::move(*failure);
  return alive;
}

Ref RefreshThreads::enlist(PyObject* thread) {
  Ref before = Ref::steal(std::exchange(newest, Py_NewRef(thread)));
  if (!before) return before;
  if (older == nullptr) older = python::checked(PyList_New(0)).release();
  python::checked(PyList_Append(older, before.get()));
  return before;
}

void RefreshThreads::withdraw(PyObject* thread, Ref before) {
  if (newest != thread) return;
  if (before) python::call_method(older, names::remove, {before.get()});
  python::drop(std::exchange(newest, before.release()));
}

void RefreshThreads::resign(PyObject* thread) noexcept {
  if (newest == thread) python::drop(std::exchange(newest, nullptr));
}

bool RefreshThreads::is_newest_alive() const {
  return is_alive(newest);
}

Ref RefreshThreads::living_older(PyObject* for_thread) const {
  const Ref list = Ref::borrow(older);
  while (newest == for_thread && list && python::length(list.get()) > 0) {
    Ref thread = python::item(list.get(), python::integer(-1).get());
    if (is_alive(thread.get())) return thread;
    // Not the last by now, where this loop was superseded and listed meanwhile.
    if (python::contains(list.get(), thread.get())) {
      python::call_method(list.get(), names::remove, {thread.get()});
    }
  }
  return {};
}

int RefreshThreads::traverse(visitproc visit, void* arg) const {
  Py_VISIT(newest);
  Py_VISIT(older);
  return 0;
}

void RefreshThreads::clear() noexcept {
  python::drop(std::exchange(newest, nullptr));
  python::drop(std::exchange(older, nullptr));
}

bool Registration::is_superseded(const HeldLock& held, const RefreshThreads& threads) {
  const Ref registered = held.get(Field::kRefreshThread);
  if (registered.get() == thread_.get()) {
    was_registered_ = true;
    return false;
  }
  if (was_registered_ && !registered.is_none()) return true;
  return threads.newest != thread_.get() && threads.is_newest_alive();
}

}  // namespace tessaline::auth
