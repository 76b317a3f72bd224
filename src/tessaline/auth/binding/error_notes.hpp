#pragma once

#include <Python.h>

namespace tessaline::auth::binding {

// The component's error types keep `__notes__` in the slot that Python's exceptions have for it, instead of
// the instance's `__dict__`, so that `vars(error)` shows only what the error carries.

/// The attribute `__notes__`.
extern PyGetSetDef error_attributes[];

/// `__reduce__`, which preserves the notes when an error is pickled or copied.
extern PyMethodDef error_methods[];

}  // namespace tessaline::auth::binding
