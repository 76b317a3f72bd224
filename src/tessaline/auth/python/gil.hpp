#pragma once

#include <Python.h>

#include <exception>
#include <optional>
#include <utility>

namespace tessaline::auth::python {

/// Takes the interpreter's lock again. Parks the thread when the interpreter is shutting down.
void take_gil(PyThreadState* thread) noexcept;

/// Runs native work without the interpreter's lock and takes it again afterwards, whatever `work` throws.
/// `work` touches no Python object, except between `take_gil` and `PyEval_SaveThread` of its own.
template <class Work>
auto without_gil(Work&& work) -> decltype(work(std::declval<PyThreadState*&>())) {
  PyThreadState* thread = PyEval_SaveThread();
  std::optional<decltype(work(thread))> result;
  std::exception_ptr failure;
  try {
    result.emplace(work(thread));
  } catch (const std::exception&) {
    failure = std::current_exception();
  }
  take_gil(thread);
  if (failure) std::rethrow_exception(failure);
  return std::move(*result);
}

/// Lets other threads run for a millisecond; needs no memory.
void pause_without_gil() noexcept;

/// Lets the interpreter run its signal handlers from inside `without_gil`. False when one of them raised; the
/// exception is then the thread's raised exception.
bool run_signal_handlers(PyThreadState*& thread) noexcept;

}  // namespace tessaline::auth::python
