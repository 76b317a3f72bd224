#pragma once

#include <Python.h>

#include "tessaline/auth/python/ref.hpp"

namespace tessaline::auth {

using python::Ref;

class HeldLock;

/// The threads that sleep until a renewal, and which of their loops counts: that of the thread which
/// `_refresh_thread` names, or of the newest where it names none of them.
/// A part of the manager's plain structure.
struct RefreshThreads {
  PyObject* newest;  ///< while its loop may still refresh
  PyObject* older;   ///< list of those that a newer one has superseded and that may still sleep

  /// Makes `thread` the newest, and gives back the one before it.
  Ref enlist(PyObject* thread);

  /// Undoes that for a thread that did not start.
  void withdraw(PyObject* thread, Ref before);

  /// It sleeps for no refresh any more: a login that fails meanwhile finds that a loop is missing.
  void resign(PyObject* thread) noexcept;

  bool is_newest_alive() const;

  /// An older one that lives, for the newest to wake; else empty.
  Ref living_older(PyObject* for_thread);
  void remove_older(PyObject* thread);

  int traverse(visitproc visit, void* arg) const;
  void clear() noexcept;
};

/// One loop's question whether it counts still. A program that writes `_refresh_thread` names another.
class LoopStanding {
 public:
  explicit LoopStanding(Ref thread) noexcept : thread_(std::move(thread)) {}
  PyObject* thread() const noexcept { return thread_.get(); }
  bool is_superseded(const HeldLock& held, const RefreshThreads& threads);

 private:
  Ref thread_;
  bool was_registered_ = false;
};

/// `thread.is_alive()`; false for none, and for what cannot tell.
bool is_alive(PyObject* thread);

}  // namespace tessaline::auth
