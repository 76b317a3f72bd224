#include "floor_module.hpp"

namespace tessaline::benchmarks {
namespace {

PyObject* empty_method(PyObject* /*self*/, PyObject* /*none*/) {
  Py_RETURN_NONE;
}

PyMethodDef kMethods[] = {
    {"get_token", empty_method, METH_NOARGS, "Does nothing."},
    {nullptr, nullptr, 0, nullptr},
};

PyType_Slot kSlots[] = {
    {Py_tp_methods, kMethods},
    {Py_tp_doc, const_cast<char*>("A heap type whose method does nothing.")},
    {0, nullptr},
};

PyType_Spec kSpec = {
    .name = "benchmarks.Empty",
    .basicsize = sizeof(PyObject),
    .itemsize = 0,
    .flags = Py_TPFLAGS_DEFAULT | Py_TPFLAGS_BASETYPE,
    .slots = kSlots,
};

int add_empty_type(PyObject* module) {
  PyObject* type = PyType_FromSpec(&kSpec);
  if (type == nullptr) return -1;
  const int result = PyModule_AddType(module, reinterpret_cast<PyTypeObject*>(type));
  Py_DECREF(type);
  return result;
}

PyModuleDef_Slot kModuleSlots[] = {
    {Py_mod_exec, reinterpret_cast<void*>(add_empty_type)},
    {0, nullptr},
};

}  // namespace

PyModuleDef with_empty_type(const char* name, const char* doc, PyMethodDef* functions) {
  return {
      .m_base = PyModuleDef_HEAD_INIT,
      .m_name = name,
      .m_doc = doc,
      .m_size = 0,
      .m_methods = functions,
      .m_slots = kModuleSlots,
      .m_traverse = nullptr,
      .m_clear = nullptr,
      .m_free = nullptr,
  };
}

}  // namespace tessaline::benchmarks
