#pragma once

#include <Python.h>

#include <cstdint>

// What the types of this module have in common.

namespace tessaline::native {

/// Makes the type, adds it to the module, and keeps it until the process ends.
PyTypeObject* add_type(PyObject* module, PyType_Spec& spec);

/// What `tp_dealloc` does for an instance that the garbage collector tracks: `clear` gives its references
/// back.
void deallocate_tracked(PyObject* self, inquiry clear);

/// An era number. One beyond 64 bits is as good as the highest.
std::int64_t era_of(PyObject* number);

}  // namespace tessaline::native
