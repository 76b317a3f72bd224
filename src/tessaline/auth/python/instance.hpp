#pragma once

#include <Python.h>

// What a type's own dealloc does to an instance. May run callbacks, and so any Python code.

namespace tessaline::auth::python {

void clear_weak_references(PyObject* self) noexcept;

}  // namespace tessaline::auth::python
