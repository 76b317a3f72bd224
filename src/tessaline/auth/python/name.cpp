#include "tessaline/auth/python/name.hpp"

#include "tessaline/auth/python/error.hpp"

namespace tessaline::auth::python {

PyObject* Name::object() const {
  if (object_ == nullptr) object_ = checked(PyUnicode_InternFromString(text_)).release();
  return object_;
}

}  // namespace tessaline::auth::python
