#include "tessaline/auth/python/boundary.hpp"

#include "tessaline/auth/python/park.hpp"

namespace tessaline::auth::python {

void raise_native(const std::exception& failure) noexcept {
  door([&failure] {
    if (dynamic_cast<const std::bad_alloc*>(&failure) != nullptr) {
      PyErr_NoMemory();
    } else {
      PyErr_SetString(PyExc_RuntimeError, failure.what());
    }
  });
}

}  // namespace tessaline::auth::python
