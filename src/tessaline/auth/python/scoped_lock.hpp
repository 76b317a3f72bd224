#pragma once

#include <Python.h>

#include "tessaline/auth/python/ref.hpp"

namespace tessaline::auth::python {

/// Holds a lock of Python (any context manager) for a block, like `with lock:`. Waits without the
/// interpreter's lock; throws Error when the wait is interrupted, with the lock not held.
class ScopedLock {
 public:
  explicit ScopedLock(Ref lock);
  ~ScopedLock();

  ScopedLock(const ScopedLock&) = delete;
  ScopedLock& operator=(const ScopedLock&) = delete;

 private:
  Ref lock_;
};

}  // namespace tessaline::auth::python
