#pragma once

#include <Python.h>

#include <array>
#include <utility>

#include "tessaline/auth/python/ref.hpp"

namespace tessaline::auth {

using python::Ref;

class AttemptRef;
class HeldLock;

/// One login, from its beginning to its outcome. Kept by the manager while it is the current one, and by
/// those that run it or wait for it. Changed under the GIL, in steps that call no Python code.
struct Attempt {
  enum class Kind {
    kLogin,      ///< of a caller of `authenticate`
    kRenewal,    ///< of a refresh thread
    kEraChange,  ///< of an announcement
    kProgram,    ///< the program has assigned `_auth_event`
  };
  enum class Phase { kBegun, kRunning, kEnded };

  /// Raises MemoryError.
  static AttemptRef make(Kind kind, Ref event);

  /// Whether something will complete it: the line of execution that runs it, or a thread that was started for
  /// it and has not begun yet.
  bool is_worked_on() const;

  /// Whether the interpreter has silently ended its thread before the first line, for lack of memory.
  bool is_lost() const;

  /// Whether this is a forked child, and the attempt runs in the parent.
  bool is_left_behind() const noexcept;

  /// Whether that line of execution runs it.
  bool is_run_by(unsigned long line) const noexcept { return runner != 0 && runner == line; }

  void keep_failure(const HeldLock& held, PyObject* error);

  /// Raises a stored error, as the same object, with the traceback it had when it was stored or first raised.
  /// Otherwise a manager with a permanent error would keep the frames of all its callers alive.
  [[noreturn]] void raise_stored(const HeldLock& held, PyObject* error);

  /// Moves the stored errors out.
  std::array<Ref, 3> take_errors() noexcept {
    return {std::move(failure), std::move(raised_), std::move(traceback_)};
  }

  bool has_last_holder() const noexcept { return holders_ == 1; }
  int traverse(visitproc visit, void* arg) const;

  Kind kind;
  Phase phase = Phase::kBegun;
  bool follows_token = false;   ///< a login that began in AUTHENTICATED
  const unsigned long process;  ///< in which it began, numbered by `process_generation`
  unsigned long runner = 0;     ///< the line of execution that runs it, or 0
  Ref event;                    ///< set when it has ended; None if the program has removed it
  Ref thread;                   ///< started for it; empty: it runs in the caller
  Ref failure;                  ///< its outcome; empty: not yet known, or success

 private:
  friend class AttemptRef;
  Attempt(Kind of_kind, Ref its_event) noexcept;
  void remember_traceback(const HeldLock& held, PyObject* error);

  Ref raised_;
  Ref traceback_;
  int holders_ = 0;
};

/// A share in an attempt.
class AttemptRef {
 public:
  AttemptRef() noexcept = default;
  explicit AttemptRef(Attempt* attempt) noexcept : attempt_(attempt) {
    if (attempt_ != nullptr) ++attempt_->holders_;
  }
  AttemptRef(const AttemptRef& other) noexcept : AttemptRef(other.attempt_) {}
  AttemptRef(AttemptRef&& other) noexcept : attempt_(other.release()) {}
  AttemptRef& operator=(AttemptRef other) noexcept {
    std::swap(attempt_, other.attempt_);
    return *this;
  }
  ~AttemptRef() { give_back(attempt_); }

  explicit operator bool() const noexcept { return attempt_ != nullptr; }
  Attempt* get() const noexcept { return attempt_; }
  Attempt* operator->() const noexcept { return attempt_; }
  Attempt& operator*() const noexcept { return *attempt_; }

  /// Transfers the share to the caller, who must end it with `give_back`.
  Attempt* release() noexcept { return std::exchange(attempt_, nullptr); }
  static void give_back(Attempt* attempt) noexcept;

 private:
  Attempt* attempt_ = nullptr;
};

/// Marks an attempt as running in this block, until its outcome is settled. Has no effect if it runs already.
class Running {
 public:
  explicit Running(AttemptRef attempt);
  ~Running();
  Running(const Running&) = delete;
  Running& operator=(const Running&) = delete;

 private:
  const AttemptRef attempt_;
  const bool mine_;
};

}  // namespace tessaline::auth
