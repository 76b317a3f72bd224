#pragma once

#include <Python.h>

#include "tessaline/auth/python/name.hpp"
#include "tessaline/auth/python/ref.hpp"

namespace tessaline::auth::python {

/// The extension module's namespace. Set once, by the module's initialisation, and never freed, because
/// daemon threads may still be inside the module.
void keep_module(PyObject* module) noexcept;

/// Releases the module and every name: after a failed initialisation, the next one may be in another
/// interpreter.
void forget_interpreter() noexcept;

/// The dict of that namespace, borrowed.
PyObject* module_namespace() noexcept;

/// The current value of a module-level name, so that replacing it takes effect. Throws Error with a NameError
/// if it is missing.
Ref global(const Name& name);

/// `name = value` at module level.
void set_global(const Name& name, PyObject* value);

}  // namespace tessaline::auth::python
