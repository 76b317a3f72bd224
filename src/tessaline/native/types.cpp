#include "tessaline/native/types.hpp"

#include <limits>

#include "tessaline/auth/python/python.hpp"

namespace tessaline::native {

namespace python = auth::python;

PyTypeObject* add_type(PyObject* module, PyType_Spec& spec) {
  python::Ref made = python::checked(PyType_FromModuleAndSpec(module, &spec, nullptr));
  auto* const type = reinterpret_cast<PyTypeObject*>(made.get());
  python::checked(PyModule_AddType(module, type));
  made.release();
  return type;
}

void deallocate_tracked(PyObject* self, inquiry clear) {
  PyTypeObject* const type = Py_TYPE(self);
  PyObject_GC_UnTrack(self);
  clear(self);
  type->tp_free(self);
  python::drop(reinterpret_cast<PyObject*>(type));
}

std::int64_t era_of(PyObject* number) {
  int overflow = 0;
  const long long value = PyLong_AsLongLongAndOverflow(number, &overflow);
  if (overflow > 0) return std::numeric_limits<std::int64_t>::max();
  if (overflow < 0) return 0;
  if (value == -1 && PyErr_Occurred() != nullptr) throw python::Error::fetch();
  return value;
}

}  // namespace tessaline::native
