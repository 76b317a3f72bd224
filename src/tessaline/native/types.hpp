#pragma once

#include <Python.h>

#include <cstdint>

// Common to the types of this module.

namespace tessaline::native {

/// Makes the type, adds it to the module, and keeps it until the process ends.
PyTypeObject* add_type(PyObject* module, PyType_Spec& spec);

/// The `tp_dealloc` of an instance that the garbage collector tracks: `clear` releases its references.
void deallocate_tracked(PyObject* self, inquiry clear);

/// An era number. One beyond 64 bits counts as the highest.
std::int64_t era_of(PyObject* number);

}  // namespace tessaline::native
