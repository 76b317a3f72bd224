#pragma once

#include <Python.h>

#include "tessaline/auth/python/name.hpp"
#include "tessaline/auth/python/ref.hpp"

namespace tessaline::auth::python {

/// The extension module's own namespace. Set once when the module is executed; the module is kept until the
/// process ends, because daemon threads may still be inside it.
void keep_module(PyObject* module) noexcept;

/// Gives back the module and every name: what is executed after a failure may be another interpreter's
/// module.
void forget_interpreter() noexcept;

/// The dict of that namespace, borrowed.
PyObject* module_namespace() noexcept;

/// A module-level name as it stands now, so that replacing it takes effect. Throws Error with a NameError
/// where it is missing.
Ref global(const Name& name);

/// `name = value` at module level.
void set_global(const Name& name, PyObject* value);

}  // namespace tessaline::auth::python
