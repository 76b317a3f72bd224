#pragma once

#include <Python.h>

#include "tessaline/auth/python/ref.hpp"

namespace tessaline::auth {

using python::Ref;

class HeldLock;

/// The threads that sleep until a renewal. The active loop is that of the thread in `_refresh_thread`, or of
/// the newest if that is none of them. A part of the manager's plain structure.
struct RefreshThreads {
  PyObject* newest;  ///< while its loop may still refresh
  PyObject* older;   ///< list of superseded threads that may still sleep

  /// Makes `thread` the newest, and returns the previous one.
  Ref enlist(PyObject* thread);

  /// Reverts that if the thread could not be started.
  void withdraw(PyObject* thread, Ref before);

  /// Called before it refreshes: if a login fails meanwhile, it sees that no loop is left.
  void resign(PyObject* thread) noexcept;

  bool is_newest_alive() const;

  /// An older one that is alive, for the newest to wake; else empty.
  Ref living_older(PyObject* for_thread);
  void remove_older(PyObject* thread);

  int traverse(visitproc visit, void* arg) const;
  void clear() noexcept;
};

/// Whether one loop is still active. A program that sets `_refresh_thread` selects another.
class LoopStanding {
 public:
  explicit LoopStanding(Ref thread) noexcept : thread_(std::move(thread)) {}
  PyObject* thread() const noexcept { return thread_.get(); }
  bool is_superseded(const HeldLock& held, const RefreshThreads& threads);

 private:
  Ref thread_;
  bool was_registered_ = false;
};

/// `thread.is_alive()`; false for none, and if the call fails.
bool is_alive(PyObject* thread);

}  // namespace tessaline::auth
