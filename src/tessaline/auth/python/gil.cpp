#include "tessaline/auth/python/gil.hpp"

#include <ctime>

#include "tessaline/auth/python/park.hpp"

namespace tessaline::auth::python {

void take_gil(PyThreadState* thread) noexcept {
  door([thread] { PyEval_RestoreThread(thread); });
}

void pause_without_gil() noexcept {
  PyThreadState* const thread = PyEval_SaveThread();
  constexpr timespec kMillisecond{0, 1'000'000};
  nanosleep(&kMillisecond, nullptr);
  take_gil(thread);
}

bool run_signal_handlers(PyThreadState*& thread) noexcept {
  take_gil(thread);
  const bool quiet = door([] { return PyErr_CheckSignals(); }) == 0;
  thread = PyEval_SaveThread();
  return quiet;
}

}  // namespace tessaline::auth::python
