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
  // A program's own type of thread may lack it.
  std::optional<python::Error> failure =
      python::caught([&] { alive = python::call_method(kept.get(), names::is_alive).get() == Py_True; });
  if (failure && !failure->matches(PyExc_Exception)) throw std::move(*failure);
  return alive;
}

namespace {

/// Whether the thread has been started.
bool has_begun(PyObject* thread) {
  bool begun = true;
  // A program's own type of thread may lack it.
  std::optional<python::Error> failure =
      python::caught([&] { begun = !python::attribute(thread, names::ident).is_none(); });
  if (failure && !failure->matches(PyExc_Exception)) throw std::move(*failure);
  return begun;
}

}  // namespace

Ref RefreshThreads::enlist(PyObject* thread) {
  if (newest != nullptr) {
    if (older == nullptr) older = python::checked(PyList_New(0)).release();
    python::checked(PyList_Append(older, newest));
  }
  return Ref::steal(std::exchange(newest, Py_NewRef(thread)));
}

void RefreshThreads::withdraw(PyObject* thread, Ref before) {
  if (newest != thread) return remove_older(thread);
  if (before) remove_older(before.get());
  python::drop(std::exchange(newest, before.release()));
}

void RefreshThreads::remove_older(PyObject* thread) {
  const Ref list = Ref::borrow(older);
  if (list && python::contains(list.get(), thread)) python::call_method(list.get(), names::remove, {thread});
}

void RefreshThreads::resign(PyObject* thread) noexcept {
  if (newest == thread) python::drop(std::exchange(newest, nullptr));
}

bool RefreshThreads::is_newest_alive() const {
  return is_alive(newest);
}

Ref RefreshThreads::living_older(PyObject* for_thread) {
  const Ref list = Ref::borrow(older);
  if (!list) return {};
  for (Py_ssize_t index = python::length(list.get()); newest == for_thread && index > 0;) {
    const Ref place = python::integer(static_cast<long>(--index));
    // Another loop may have removed some meanwhile.
    if (index >= python::length(list.get())) continue;
    Ref thread = python::item(list.get(), place.get());
    if (is_alive(thread.get())) return thread;
    if (has_begun(thread.get())) remove_older(thread.get());
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

bool LoopStanding::is_superseded(const HeldLock& held, const RefreshThreads& threads) {
  const Ref registered = held.get(Field::kRefreshThread);
  if (registered.get() == thread_.get()) {
    was_registered_ = true;
    return false;
  }
  if (was_registered_ && !registered.is_none()) return true;
  return threads.newest != thread_.get() && threads.is_newest_alive();
}

}  // namespace tessaline::auth
