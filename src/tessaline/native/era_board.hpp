#pragma once

#include <Python.h>

#include <cstdint>

namespace tessaline::native {

/// The highest era that was announced, in a page that a process shares with the children it forks.
struct EraBoard {
  PyObject_HEAD void* page;  ///< null until the object is initialised

  std::int64_t era() const noexcept;

  /// Never lowers what stands there, whichever process is first.
  void announce(std::int64_t era) noexcept;
};

extern PyTypeObject* era_board_type;

void add_era_board_type(PyObject* module);

}  // namespace tessaline::native
