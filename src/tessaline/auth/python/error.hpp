#pragma once

#include <Python.h>

#include "tessaline/auth/python/ref.hpp"

namespace tessaline::auth::python {

/// A Python exception in flight through C++ frames. Meanwhile the thread's error indicator is clear, so that
/// destructors may call Python. The exception object stays the same.
class Error {
 public:
  /// Takes the exception that the last call into Python set.
  static Error fetch() noexcept;

  explicit Error(Ref exception) noexcept : exception_(std::move(exception)) {}

  PyObject* exception() const noexcept { return exception_.get(); }
  bool matches(PyObject* type) const noexcept;

  /// Sets it as the thread's exception again, to return to Python.
  void restore() && noexcept;

 private:
  Ref exception_;
};

/// Returns a result of Python, or throws the exception that is set.
Ref checked(PyObject* owned);

/// The same for calls that return a negative number on failure.
int checked(int status);

/// Raises `exception` as Python's `raise` statement does: the exception being handled becomes its context.
[[noreturn]] void raise(PyObject* exception);

/// Raises a new `type(message)`.
[[noreturn]] void raise(PyObject* type, const char* message);

/// Throws `error` without its context and traceback, which hold what the program must not see.
[[noreturn]] void raise_bare(Error error);

/// Issues a ResourceWarning, which Python ignores by default. Throws if the program turns warnings into
/// errors.
void warn_of_resource(PyObject* resource, PyObject* text);

/// `exception.__traceback__`, or None.
Ref traceback_of(PyObject* exception);
void set_traceback(PyObject* exception, PyObject* traceback);

/// For its lifetime the exception is being handled, as inside an `except` block: it becomes the context of
/// what is raised meanwhile.
class Handling {
 public:
  explicit Handling(const Error& error) noexcept;
  ~Handling();

  Handling(const Handling&) = delete;
  Handling& operator=(const Handling&) = delete;

 private:
  Ref before_;
};

}  // namespace tessaline::auth::python
