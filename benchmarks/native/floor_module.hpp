#pragma once

#define PY_SSIZE_T_CLEAN
#include <Python.h>

namespace tessaline::benchmarks {

/// The definition of a module with these functions and a heap type `Empty`, whose method `get_token` does
/// nothing. The texts and the array must outlive it.
PyModuleDef with_empty_type(const char* name, const char* doc, PyMethodDef* functions);

}  // namespace tessaline::benchmarks
