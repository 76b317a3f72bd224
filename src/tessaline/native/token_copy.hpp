#pragma once

#include <Python.h>

#include <cstdint>

#include "tessaline/auth/python/ref.hpp"
#include "tessaline/native/era_board.hpp"

namespace tessaline::native {

/// A keeper's copy of one wallet's token, with all that determines whether it may be served.
struct TokenCopy {
  PyObject_HEAD PyObject* clock;  ///< called without arguments for the time in seconds
  PyObject* board;                ///< an EraBoard
  PyObject* token;                ///< null while there is none
  double expiry;                  ///< on `clock`
  std::int64_t era;               ///< of the token; 0 if it has none

  /// The token, if it has not expired and its era is not older than the board's; else empty.
  auth::python::Ref good_token() const;

  bool is_of_the_era() const noexcept;
};

extern PyTypeObject* token_copy_type;

void add_token_copy_type(PyObject* module);

}  // namespace tessaline::native
