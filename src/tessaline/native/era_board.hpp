#pragma once

#include <Python.h>

#include <cstdint>

namespace tessaline::native {

/// The highest era announced, in a page shared by a process and the children that it forks.
struct EraBoard {
  PyObject_HEAD void* page;  ///< null until the object is initialised

  std::int64_t era() const noexcept;

  /// Never lowers the value, whichever process is first.
  void announce(std::int64_t era) noexcept;
};

extern PyTypeObject* era_board_type;

void add_era_board_type(PyObject* module);

}  // namespace tessaline::native
