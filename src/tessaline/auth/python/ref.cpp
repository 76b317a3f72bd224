#include "tessaline/auth/python/ref.hpp"

#include "tessaline/auth/python/park.hpp"

namespace tessaline::auth::python {

void drop(PyObject* object) noexcept {
  if (object == nullptr) return;
  door([object] { Py_DECREF(object); });
}

}  // namespace tessaline::auth::python
