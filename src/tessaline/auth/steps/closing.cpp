#include "tessaline/auth/steps/closing.hpp"

#include "tessaline/auth/constants.hpp"
#include "tessaline/auth/errors/errors.hpp"
#include "tessaline/auth/names.hpp"
#include "tessaline/auth/python/python.hpp"

namespace tessaline::auth {

bool is_closing(PyObject* manager) {
  const python::Ref event = python::attribute(manager, names::close_event);
  return python::truthy(python::call_method(event.get(), names::is_set).get());
}

void raise_if_closing(PyObject* manager) {
  if (is_closing(manager)) raise_auth_error(reason::kManagerClosed);
}

}  // namespace tessaline::auth
