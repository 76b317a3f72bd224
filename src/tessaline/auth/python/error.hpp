#pragma once

#include <Python.h>

#include "tessaline/auth/python/ref.hpp"

namespace tessaline::auth::python {

/// A Python exception on its way through C++ frames. While it travels, the thread's own error indicator is
/// clear, so that destructors may call Python. The exception keeps its identity.
class Error {
 public:
  /// Takes the exception that the last call into Python raised.
  static Error fetch() noexcept;

  explicit Error(Ref exception) noexcept : exception_(std::move(exception)) {}

  PyObject* exception() const noexcept { return exception_.get(); }
  bool matches(PyObject* type) const noexcept;

  /// Makes it the thread's raised exception again, for the return to Python.
  void restore() && noexcept;

 private:
  Ref exception_;
};

/// Passes a result of Python on, or throws what it raised.
Ref checked(PyObject* owned);

/// The same for calls that answer with a negative number on failure.
int checked(int status);

/// Raises `exception` as Python's `raise` statement does: the exception being handled becomes its context.
[[noreturn]] void raise(PyObject* exception);

/// Raises a new `type(message)`.
[[noreturn]] void raise(PyObject* type, const char* message);

/// Throws `error` without its context and traceback, where those hold what Python must not see.
[[noreturn]] void raise_bare(Error error);

/// Warns of a resource that was not given back, as Python does at its end: nobody hears it by default.
/// Throws where the program makes errors of warnings.
void warn_of_resource(PyObject* resource, PyObject* text);

/// `exception.__traceback__`, or None.
Ref traceback_of(PyObject* exception);
void set_traceback(PyObject* exception, PyObject* traceback);

/// For its lifetime an exception counts as being handled, as inside an `except` block: what is raised
/// meanwhile, by us or by Python, gets it as context.
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
