#pragma once

#include <Python.h>

#include "tessaline/auth/python/ref.hpp"

namespace tessaline::auth::python {

/// Holds a Python lock (any context manager) for a block, like `with lock:`. Waits without the GIL; throws
/// Error if the wait is interrupted, without holding the lock.
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
