#include "tessaline/auth/python/instance.hpp"

#include "tessaline/auth/python/park.hpp"

namespace tessaline::auth::python {

void clear_weak_references(PyObject* self) noexcept {
  door([self] { PyObject_ClearWeakRefs(self); });
}

}  // namespace tessaline::auth::python
