#include "tessaline/auth/python/seen_type.hpp"

#include "tessaline/auth/python/call.hpp"
#include "tessaline/auth/python/interior.hpp"

namespace tessaline::auth::python {
namespace {

constinit const Name kInit{"__init__"};

bool versions_tell = false;

unsigned int looked_up(PyTypeObject* type) {
  attribute(reinterpret_cast<PyObject*>(type), kInit);
  return type->tp_version_tag;
}

}  // namespace

void SeenType::see(const PyTypeObject* type) noexcept {
  type_ = type;
  version_ = versions_tell ? type->tp_version_tag : 0;
}

void know_versions(PyTypeObject* type) {
  if (!inside_is_known()) return;
  const unsigned int before = looked_up(type);
  PyType_Modified(type);
  versions_tell = before != 0 && type->tp_version_tag != before && looked_up(type) != before;
}

}  // namespace tessaline::auth::python
