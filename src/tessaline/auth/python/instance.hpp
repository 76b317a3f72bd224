#pragma once

#include <Python.h>

// What a type's own clear and dealloc do to an instance. Each may run finalizers, hence any Python code.

namespace tessaline::auth::python {

void clear_instance_dict(PyObject* self) noexcept;
void clear_weak_references(PyObject* self) noexcept;

}  // namespace tessaline::auth::python
