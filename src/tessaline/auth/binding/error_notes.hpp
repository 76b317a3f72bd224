#pragma once

#include <Python.h>

namespace tessaline::auth::binding {

// Where the component's error types keep `__notes__`: in the place that Python's exceptions have for them,
// instead of the instance's `__dict__`, so that `vars(error)` shows what the error carries and nothing else.

/// The attribute `__notes__`.
extern PyGetSetDef error_attributes[];

/// `__reduce__`, which takes the notes along when an error is pickled or copied.
extern PyMethodDef error_methods[];

}  // namespace tessaline::auth::binding
