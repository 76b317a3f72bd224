#pragma once

#include <Python.h>

#include <exception>
#include <optional>
#include <utility>

namespace tessaline::auth::python {

/// Takes the GIL again. Parks the thread if the interpreter is shutting down.
void take_gil(PyThreadState* thread) noexcept;

/// Runs native work without the GIL and takes it again afterwards, whatever `work` throws. `work` uses no
/// Python object, except between its own `take_gil` and `PyEval_SaveThread`.
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

/// Has the interpreter run its signal handlers from inside `without_gil`. False if one of them raised; its
/// exception is then set.
bool run_signal_handlers(PyThreadState*& thread) noexcept;

}  // namespace tessaline::auth::python
