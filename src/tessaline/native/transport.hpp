#pragma once

#include <Python.h>

namespace tessaline::native {

/// `Transport`, a callable that makes exchanges with its own settings, over the connections that all
/// transports of the process share.
void add_transport_type(PyObject* module);

}  // namespace tessaline::native
